// SPDX-License-Identifier: Apache-2.0
#include "fuzz/udf_tables.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "conformance/udf_call.h"
#include "engine/store/store.h"
#include "fuzz/fuzz_home.h"
#include "fuzz/udf_input.h"
#include "kezu/engine.h"
#include "kezu/shared.h"
#include "tests/unit/crypto_fixture.h"

namespace fuzz {
namespace {

namespace fs = std::filesystem;

constexpr std::uintmax_t kLargeLog = 1 << 20;  // bytes

const std::string kHomePrefix = "kezu-fuzz-";  // a process number follows

fs::path home;

void writeFile(const fs::path& path, std::string_view text) {
  std::ofstream(path, std::ios::binary) << text;
  fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write);
}

void addPolicy(int slot, const test::PolicyParameters& parameters) {
  const int place = g_numberOfEncPolicy[slot]++;
  test::Data key = test::patternOf(32);
  demand(Q7_AddPolicyInfo(g_encPolicyArray[slot][place], &g_makeKeyArray[slot][place], parameters.name.c_str(),
                          parameters.algorithm, parameters.ivMode, key.data(), static_cast<unsigned int>(key.size()),
                          parameters.encPos, parameters.encLen, parameters.blockMode, parameters.strMode,
                          parameters.flag.c_str()) != 0,
         "a policy can be made");
}

void addPolicies(int slot) {
  addPolicy(slot, {.blockMode = test::CBC, .ivMode = test::DETERMINISTIC, .name = "cbcdet"});
  addPolicy(slot, {test::AES256, test::GCM, test::RANDOM, test::BASE64, 2, 3, "#", {}, "gcmpart"});
  addPolicy(slot, {.algorithm = test::ARIA128, .blockMode = test::ECB, .ivMode = test::DETERMINISTIC, .name = "ecb"});
  addPolicy(slot, {.blockMode = test::SIV, .ivMode = test::DETERMINISTIC, .strMode = test::HEX, .name = "siv"});
  addPolicy(slot, {.algorithm = test::HMAC_SHA256, .ivMode = test::DETERMINISTIC, .name = "hmac"});
}

// Into the next slot, as every change of the policies goes.
void resetPolicies(bool some) {
  const int slot = (g_encPolicyArray_flag + 1) % kPolicySlots;
  for (int i = 0; i < g_numberOfEncPolicy[slot]; ++i) {
    BCIPHER_WipeKey(g_makeKeyArray[slot][i]);
    BCIPHER_DelKey(g_makeKeyArray[slot][i]);
    g_makeKeyArray[slot][i] = nullptr;
  }
  g_numberOfEncPolicy[slot] = 0;
  if (some) {
    addPolicies(slot);
  }
  g_encPolicyArray_flag = slot;
}

template <typename Record, std::size_t N>
void clear(Record (&table)[N], int& count) {
  for (int i = 0; i < count; ++i) {
    table[i] = Record{};
  }
  count = 0;
}

void addColumn(const char* column, const char* policy) {
  Q7EncColumnInfo& record = g_encColumnInfoArray[g_numberOfEncColumn++];
  kezu::storeField(record.owner, "shop");
  kezu::storeField(record.table, "customer");
  kezu::storeField(record.column, column);
  kezu::storeField(record.policyID, policy);
}

void resetAdministrators(bool expired) {
  clear(g_userInfo, g_numberOfUserInfo);
  Q7UserInfo& admin = g_userInfo[g_numberOfUserInfo++];
  kezu::storeField(admin.id, "admin");
  kezu::storeField(admin.passwd, kPassword);
  kezu::storeField(admin.sessionId, kSession);
  admin.authTime = expired ? 1 : time(nullptr);
}

void emptyLargeLogs() {
  std::error_code none;
  for (const auto& file : fs::directory_iterator(home / "log", none)) {
    if (file.is_regular_file() && file.file_size() > kLargeLog) {
      fs::resize_file(file.path(), 0);
    }
  }
}

// Removes the homes of programs that ended with a finding.
void removeAbandoned(const fs::path& parent) {
  for (const auto& entry : fs::directory_iterator(parent)) {
    const std::string name = entry.path().filename();
    if (name.starts_with(kHomePrefix) && kill(std::atoi(name.c_str() + kHomePrefix.size()), 0) != 0 && errno == ESRCH) {
      std::error_code none;
      fs::remove_all(entry.path(), none);
    }
  }
}

}  // namespace

void makeHome() {
  const fs::path memory = "/dev/shm";
  std::error_code none;
  const fs::path parent = fs::is_directory(memory, none) ? memory : fs::temp_directory_path();
  removeAbandoned(parent);
  home = parent / (kHomePrefix + std::to_string(getpid()));
  demand(mkdir(home.c_str(), S_IRWXU) == 0, "a folder can be made");
  std::atexit([] {
    std::error_code none;
    fs::remove_all(home, none);
  });
  writeFile(home / "kezu.toml", "");
  writeFile(home / "master.key", kMasterKeyText);
  resetTables(0);
  for (const engine::store::Table* table : engine::store::allTables()) {
    demand(engine::store::createTableFile(engine::store::machineFiles(), home, *table, tableKeys(*table)).ok(),
           "a table's file can be made");
  }
  setenv("KEZU_HOME", home.c_str(), 1);
}

void resetTables(unsigned start) {
  resetPolicies((start & kNoPolicies) == 0);
  resetAdministrators((start & kExpired) != 0);
  clear(g_encColumnInfoArray, g_numberOfEncColumn);
  if ((start & kNoColumns) == 0) {
    addColumn("name", "cbcdet");
    addColumn("phone", "gcmpart");
  }
  clear(g_accessPrivArray, g_numberOfAccessPriv);
  clear(g_encPrivArray, g_numberOfEncPriv);
  clear(g_tableInfo, g_numberOftableInfo);
  clear(g_queryPriv, g_numberOfQueryPriv);
  g_logInfo = (start & kAudited) != 0 ? Q7LogInfo{1, 1, 1, 1, 1} : Q7LogInfo{};
  g_accessControlMode = Q7_ACCESS_ALLOW_PRIOR;
  g_decryptDenyMode = Q7_DECRYPT_DENY_ERROR;
  g_doubleEncryptMode = (start & kPassOn) != 0 ? kDoubleEncryptPass : kDoubleEncryptError;
  g_kmsMode = (start & kFromKeyServer) != 0 ? Q7_CACHED_KMS_MODE : Q7_NO_KMS_MODE;
  emptyLargeLogs();
}

}  // namespace fuzz

// The engine's own guard does not tell who holds it: a call that kept it goes on to the next one.
void conformance::checkAfterCall() {}
