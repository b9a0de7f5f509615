// SPDX-License-Identifier: Apache-2.0
//
// Writes the inputs that the fuzz programs start from: sealed tables, encrypted values of every kind, statements of
// every form. To be run again when one of these forms changes:
//
//   build/fuzz/bin/make_corpus tests/fuzz/corpus
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "engine/store/codec.h"
#include "fuzz/fuzz_home.h"
#include "fuzz/udf_input.h"
#include "fuzz/value_policies.h"
#include "kezu/shared.h"

namespace {

namespace fs = std::filesystem;
using test::Data;

void write(const fs::path& path, const Data& input) {
  fs::create_directories(path.parent_path());
  std::ofstream file(path, std::ios::binary);
  file.write(reinterpret_cast<const char*>(input.data()), static_cast<std::streamsize>(input.size()));
  if (!file.flush()) throw std::runtime_error("cannot write " + path.string());
}

// Tables: for each its payload, and its file sealed under the fuzz programs' master key.

// Visitor that puts something into every field.
struct Filler {
  template <std::size_t N>
  void text(const char* name, char (&field)[N]) {
    kezu::storeField(field, std::string_view(name).substr(0, N - 1));
  }
  template <std::size_t N>
  void password(const char* name, char (&field)[N]) {
    text(name, field);
  }
  void pattern(const char* /*name*/, std::string& value) { value = "[a-z]+ (x|y)*"; }
  template <typename Int>
  void number(const char* /*name*/, Int& value, Int low, Int high) {
    value = std::max(low, std::min(high, Int{1}));
  }
  void flag(const char* /*name*/, char& value) { value = 1; }
  template <std::size_t N>
  void bytes(const char* name, char (&field)[N], int& length) {
    text(name, field);
    length = 3;
  }
  template <std::size_t N>
  void key(const char* name, char (&field)[N], int& length) {
    bytes(name, field, length);
  }
};

template <typename Table>
void writeTable(const fs::path& folder, engine::store::TableId id) {
  Table data;
  Filler filler;
  engine::store::fields(filler, data.settings);
  data.records.resize(2);
  for (auto& record : data.records) {
    engine::store::fields(filler, record);
  }
  const engine::store::Table& table = engine::store::tableOf(id);
  const auto payload = engine::store::encode(data);
  const auto file = engine::store::sealPayload(payload, table.name(), fuzz::tableKeys(table));
  if (!table.check(payload).ok() || !file.ok()) throw std::runtime_error("no table: " + std::string(table.name()));
  using test::operator+;
  const Data number{static_cast<unsigned char>(id)};
  write(folder / (std::string(table.name()) + "_payload"), number + Data(payload.begin(), payload.end()));
  write(folder / (std::string(table.name()) + "_file"), number + file.value());
}

void writeTables(const fs::path& folder) {
  using namespace engine::store;
  writeTable<PolicyData>(folder, TableId::policy);
  writeTable<ColumnData>(folder, TableId::column);
  writeTable<AccessData>(folder, TableId::access);
  writeTable<PrivilegeData>(folder, TableId::privilege);
  writeTable<QueryPrivData>(folder, TableId::queryPriv);
  writeTable<TableInfoData>(folder, TableId::tableInfo);
  writeTable<UserData>(folder, TableId::user);
}

// Values: encrypted under a policy of every algorithm, block mode and IV type, and clear ones.

Data headerOf(const fuzz::PolicyNumbers& numbers, unsigned action) {
  Data header;
  for (const unsigned number :
       {numbers.algorithm, numbers.blockMode, numbers.ivMode, numbers.encoding, numbers.range, numbers.flag, action}) {
    header.push_back(static_cast<unsigned char>(number));
  }
  return header;
}

void writeValue(const fs::path& folder, const fuzz::PolicyNumbers& numbers) {
  const test::Policy& policy = fuzz::policyOf(numbers);
  if (!policy) return;
  using test::operator+;
  const Data clear = test::bytesOf("a clear value");
  const std::string name = std::string(Q7EncryptionAlgorithmStr[numbers.algorithm]) + "_" +
                           Q7EncryptionBlockModeTypeStr[numbers.blockMode] + "_" +
                           Q7EncryptionIVTypeStr[numbers.ivMode] + "_" + Q7EncryptionStrModeStr[numbers.encoding];
  constexpr unsigned kEncrypted = 0;
  constexpr unsigned kClear = 1;
  write(folder / name, headerOf(numbers, kEncrypted) + *test::encrypt(policy, clear));
  if (numbers.algorithm == test::AES256) {
    write(folder / (name + "_clear"), headerOf(numbers, kClear) + Data{0, 5, 1} + clear);
    // Values from some size on go another way through some ciphers.
    write(folder / (name + "_long"), headerOf(numbers, kClear) + Data{1, 5, 1} + test::patternOf(300));
  }
}

// Every block mode with AES256, the others with two modes each; encodings, ranges and flags by turns.
void writeValues(const fs::path& folder) {
  unsigned turn = 0;
  for (unsigned algorithm = 0; algorithm < kAlgorithmCount; ++algorithm) {
    for (unsigned mode = 0; mode < kBlockModeCount; ++mode) {
      if (algorithm != test::AES256 && mode != test::CBC && mode != test::CTR_HMAC) continue;
      for (unsigned iv = 0; iv < kIvTypeCount; ++iv, ++turn) {
        writeValue(folder, {algorithm, mode, iv, turn % kStrModeCount, turn % 4, turn % 5});
      }
    }
  }
}

// Statements, by the functions' numbers.

enum FunctionNumber : unsigned {
#define NUMBER(name) name,
  KEZU_EVERY_FUNCTION(NUMBER, NUMBER)
#undef NUMBER
};

class Statement {
 public:
  explicit Statement(unsigned function) : function_(function) {}

  Statement& text(std::string_view value, unsigned constant = 0) {
    const unsigned number = fuzz::textNumber(value);
    put({fuzz::kText | constant});
    if (number < std::size(fuzz::kTexts)) {
      put({number + 1});
    } else {
      put({static_cast<unsigned>(value.size()) + 128});
      arguments_.insert(arguments_.end(), value.begin(), value.end());
    }
    return next();
  }
  Statement& constant(std::string_view value) { return text(value, fuzz::kConstant); }
  Statement& lastResult() {
    put({fuzz::kText, 255});
    return next();
  }
  Statement& null() {
    put({fuzz::kText, 0});
    return next();
  }
  Statement& number(int value) {
    put({fuzz::kInteger, static_cast<unsigned>(value + fuzz::kZero)});
    return next();
  }
  Statement& session() { return text(fuzz::kSession); }

  Data bytes() const {
    using test::operator+;
    return Data{static_cast<unsigned char>(function_), static_cast<unsigned char>(count_), 0} + arguments_;
  }

 private:
  void put(std::initializer_list<unsigned> bytes) {
    for (const unsigned byte : bytes) arguments_.push_back(static_cast<unsigned char>(byte));
  }
  Statement& next() {
    ++count_;
    return *this;
  }

  unsigned function_;
  unsigned count_ = 0;
  Data arguments_;
};

Statement of(unsigned function) {
  return Statement(function);
}
Statement asAdmin(unsigned function) {
  return Statement(function).session();
}

void writeStatements(const fs::path& folder, const char* name, std::initializer_list<Statement> statements,
                     unsigned start = 0) {
  Data input{static_cast<unsigned char>(start)};
  for (const Statement& statement : statements) {
    const Data bytes = statement.bytes();
    input.insert(input.end(), bytes.begin(), bytes.end());
  }
  write(folder / name, input);
}

void writeLogins(const fs::path& folder) {
  writeStatements(
      folder, "login",
      {of(kezu_conf_get_session_id).text("admin"), of(kezu_conf_get_auth).lastResult().text(std::string(64, 'a')),
       of(kezu_conf_get_auth).session(), of(kezu_conf_check_session_auth).session()},
      fuzz::kExpired);
  writeStatements(folder, "refresh",
                  {of(kezu_conf_get_auth).session(), of(kezu_conf_check_session_auth).session(),
                   of(kezu_conf_get_auth).session().text("nonsense")});
  writeStatements(folder, "passwd", {asAdmin(kezu_conf_set_passwd).text("nonsense")});
  writeStatements(folder, "env",
                  {asAdmin(kezu_conf_set_env).number(0).number(1), asAdmin(kezu_conf_get_env).number(0)});
  writeStatements(folder, "log_flag",
                  {asAdmin(kezu_conf_set_log_flag).number(0).number(1), asAdmin(kezu_conf_get_log_flag).number(0)});
  writeStatements(folder, "log",
                  {asAdmin(kezu_conf_get_log).number(0).text("2026-01-01"),
                   asAdmin(kezu_conf_get_log).number(0).text("2026-01-01").number(0)});
}

void writePolicies(const fs::path& folder) {
  writeStatements(
      folder, "policy",
      {asAdmin(kezu_conf_set_policy).text("p1").number(2).number(1).number(0).number(0).number(5).number(1).text("#"),
       asAdmin(kezu_conf_get_policy), asAdmin(kezu_conf_get_policy).number(1).number(2),
       asAdmin(kezu_conf_get_policy).text("p1").number(8), of(kezu_conf_get_policy),
       asAdmin(kezu_conf_set_policy).text("p1")});
  writeStatements(folder, "kms",
                  {asAdmin(kezu_conf_set_kms_mode).number(2), asAdmin(kezu_conf_get_kms_mode),
                   asAdmin(kezu_conf_get_policy_for_kms), of(kezu_conf_get_policy_for_kms),
                   asAdmin(kezu_conf_set_policy), asAdmin(kezu_conf_set_kms_mode).number(0)},
                  fuzz::kNoColumns | fuzz::kNoPolicies);
  writeStatements(folder, "kms_policies", {asAdmin(kezu_conf_get_policy_for_kms), asAdmin(kezu_conf_set_policy)},
                  fuzz::kFromKeyServer);
  writeStatements(
      folder, "column",
      {asAdmin(kezu_conf_set_column).text("shop").text("customer").text("email").text("siv"),
       asAdmin(kezu_conf_get_column).text("shop").text("customer").text("email"), asAdmin(kezu_conf_get_column),
       asAdmin(kezu_conf_get_column).number(0).number(3), of(kezu_conf_get_column),
       asAdmin(kezu_conf_set_column).text("shop").text("customer").text("email")});
}

void writePrivileges(const fs::path& folder) {
  const auto access = [](unsigned function) {
    return asAdmin(function).text("127.0.0.1").text("root").text("shop").text("customer").text("name");
  };
  writeStatements(folder, "accepriv",
                  {access(kezu_conf_set_accepriv).number(1), access(kezu_conf_get_accepriv),
                   asAdmin(kezu_conf_get_accepriv), asAdmin(kezu_conf_get_accepriv).number(0).number(1),
                   of(kezu_conf_get_accepriv), access(kezu_conf_set_accepriv)});
  const auto encryption = [](unsigned function) {
    return asAdmin(function).text("root").text("shop").text("customer").text("name");
  };
  writeStatements(folder, "encpriv",
                  {encryption(kezu_conf_set_encpriv).number(1).number(0), encryption(kezu_conf_get_encpriv).number(0),
                   asAdmin(kezu_conf_get_encpriv), asAdmin(kezu_conf_get_encpriv).number(0).number(1),
                   of(kezu_conf_get_encpriv), encryption(kezu_conf_set_encpriv)});
  const auto rule = [] {
    return asAdmin(kezu_conf_set_querypriv).text("SELECT").text("(a|b)*c+[^d]{2,3}$").text("NULL").text("NULL");
  };
  writeStatements(folder, "querypriv",
                  {rule().number(3), asAdmin(kezu_conf_get_querypriv), asAdmin(kezu_conf_get_querypriv).number(0),
                   asAdmin(kezu_conf_get_querypriv).number(0).number(1), of(kezu_conf_get_querypriv), rule()});
  writeStatements(
      folder, "tableinfo",
      {asAdmin(kezu_conf_set_tableinfo).text("shop.customer").text("DROP VIEW x"),
       asAdmin(kezu_conf_get_tableinfo).text("shop.customer"), asAdmin(kezu_conf_set_tableinfo).text("shop.customer")});
}

void writeValueFunctions(const fs::path& folder) {
  writeStatements(folder, "hash",
                  {of(hash_raw_data).text("nonsense"), of(hash_b64_data).text("nonsense"),
                   of(hash_b64_data).text("nonsense").constant("HAS160"), of(hash_raw_data).null()});
  writeStatements(folder, "hmac",
                  {of(hmac_b64_data).text("nonsense").text("siv"),
                   of(hmac_b64_data).text("nonsense").text("ecb").constant("SHA512")});
  const std::string_view text = fuzz::kTexts[std::size(fuzz::kTexts) - 1];
  for (const char* policy : {"cbcdet", "gcmpart", "ecb", "siv", "hmac"}) {
    writeStatements(folder, (std::string("value_") + policy).c_str(),
                    {of(data_process_po_ed).text(policy).number(0).text(text),
                     of(data_process_po_ed).text(policy).number(0).lastResult(),
                     of(data_process_ed_check_int).text(policy).lastResult(),
                     of(data_process_ed_check_str).text(policy).lastResult(),
                     of(data_process_po_ed).text(policy).number(1).lastResult()},
                    fuzz::kAudited);
  }
  writeStatements(folder, "size",
                  {of(getcolumnsizebyotc_kezu).text("shop").text("customer").text("name").number(20),
                   of(getcolumnsizebyotc_kezu).text("shop").text("customer").text("phone").number(-1),
                   of(getcolumnsizebyotc_kezu).text("shop").text("customer").text("name").number(-2), of(reload_kezu)});
}

void writeCorpus(const fs::path& corpus) {
  writeTables(corpus / "envelope");
  writeValues(corpus / "encrypted_value");
  writeLogins(corpus / "udf_entry");
  writePolicies(corpus / "udf_entry");
  writePrivileges(corpus / "udf_entry");
  writeValueFunctions(corpus / "udf_entry");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_corpus FOLDER\n");
    return 2;
  }
  try {
    writeCorpus(argv[1]);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "make_corpus: %s\n", error.what());
    return 1;
  }
}
