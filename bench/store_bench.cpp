// SPDX-License-Identifier: Apache-2.0
//
// What saving a full table costs, beside writing and syncing as many bytes, and what a reload costs that finds nothing
// changed. Works on the configuration home of KEZU_HOME, whose tables it replaces: give it one that was just made.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kezu/engine.h"
#include "kezu/query_priv.h"

namespace {

std::string home;

void require(bool done, const char* what) {
  if (!done) {
    std::fprintf(stderr, "store_bench: %s\n", what);
    std::exit(1);
  }
}

template <std::size_t N>
void fill(char (&field)[N], const std::string& text) {
  std::memset(field, 0, N);
  text.copy(field, N - 1);
}

// Names as they are in databases, different for every number.
std::string name(const char* what, int number) {
  return std::string(what) + "_of_the_measurement_" + std::to_string(number);
}

void fillPolicies() {
  for (int i = 0; i < kMaxPolicies; ++i) {
    require(Q7_AddPolicyInfo(g_encPolicyArray[0][i], &g_makeKeyArray[0][i], ("policy" + std::to_string(i)).c_str(), 2,
                             1, nullptr, 0xFFFFFFFF, 0, 0, 5, 1, "{enc}") != 0,
            "a policy was refused");
  }
  g_encPolicyArray_flag = 0;
  g_numberOfEncPolicy[0] = kMaxPolicies;
}

void fillColumns() {
  for (int i = 0; i < kMaxColumns; ++i) {
    fill(g_encColumnInfoArray[i].owner, name("database", i / 100));
    fill(g_encColumnInfoArray[i].table, name("table", i / 10));
    fill(g_encColumnInfoArray[i].column, name("column", i));
    fill(g_encColumnInfoArray[i].policyID, "policy" + std::to_string(i));
  }
  g_numberOfEncColumn = kMaxColumns;
}

template <typename Record, std::size_t N>
void fillPrivileges(Record (&records)[N], int& count) {
  for (int i = 0; i < static_cast<int>(N); ++i) {
    fill(records[i].user, name("user", i));
    fill(records[i].owner, name("database", i / 100));
    fill(records[i].table, name("table", i / 10));
    fill(records[i].column, name("column", i));
  }
  count = static_cast<int>(N);
}

void fillRules() {
  for (int i = 0; i < kMaxQueryPrivs; ++i) {
    Q7QueryPriv rule;
    rule.queryType = 2;
    rule.queryPattern = name("table", i);
    require(Q7QueryPriv::insert(rule) == 0, "a rule was refused");
  }
}

void fillTableInfos() {
  for (int i = 0; i < kMaxTableInfos; ++i) {
    fill(g_tableInfo[i].owner, name("database", i / 100));
    fill(g_tableInfo[i].table, name("table", i));
    fill(g_tableInfo[i].demigrationCmd, std::string(sizeof Q7TableInfo::demigrationCmd - 1, 'x'));
  }
  g_numberOftableInfo = kMaxTableInfos;
}

void writeAndSync(const std::string& path, const std::vector<char>& bytes) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  require(file >= 0, "a file could not be made");
  std::size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t piece = write(file, bytes.data() + written, bytes.size() - written);
    require(piece > 0, "a file could not be written");
    written += static_cast<std::size_t>(piece);
  }
  require(fsync(file) == 0 && close(file) == 0, "a file could not be synced");
}

void saveTable(benchmark::State& state, int (*save)()) {
  for ([[maybe_unused]] const auto _ : state) require(save() == 0, "a save failed");
}

void writeTable(benchmark::State& state, const char* table) {
  struct stat status = {};
  require(stat((home + "/" + table + ".kz").c_str(), &status) == 0, "a table's file is not there");
  const std::vector<char> bytes(static_cast<std::size_t>(status.st_size), 'x');
  const std::string path = home + "/written";
  for ([[maybe_unused]] const auto _ : state) writeAndSync(path, bytes);
  unlink(path.c_str());
}

void reloadUnchanged(benchmark::State& state) {
  for ([[maybe_unused]] const auto _ : state) require(Q7_ReloadAllInfoIfChanged() == 0, "a reload failed");
}

void registerTable(const char* table, int (*save)()) {
  require(save() == 0, "a first save failed");
  const std::string name = table;
  benchmark::RegisterBenchmark(("save/" + name).c_str(), saveTable, save)->UseRealTime()->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark(("write/" + name).c_str(), writeTable, table)
      ->UseRealTime()
      ->Unit(benchmark::kMicrosecond);
}

}  // namespace

int main(int argc, char** argv) {
  const char* set = std::getenv("KEZU_HOME");
  require(set != nullptr, "KEZU_HOME is not set to a configuration home that was just made");
  home = set;
  char scratch[kInitScratchSize] = {};
  char message[kInitMessageSize] = {};
  require(kezuInitialize(1, scratch, message) == 0, message);
  fillPolicies();
  fillColumns();
  fillPrivileges(g_accessPrivArray, g_numberOfAccessPriv);
  fillPrivileges(g_encPrivArray, g_numberOfEncPriv);
  fillRules();
  fillTableInfos();
  registerTable("policy", Q7_SavePolicyInfo);
  registerTable("column", Q7_SaveColumnInfo);
  registerTable("access", Q7_SaveAccessPrivInfo);
  registerTable("privilege", Q7_SaveEncPrivInfo);
  registerTable("querypriv", Q7_SaveQueryPrivInfo);
  registerTable("tableinfo", Q7_SaveTableInfo);
  benchmark::RegisterBenchmark("reload", reloadUnchanged)->UseRealTime()->Unit(benchmark::kMicrosecond);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}
