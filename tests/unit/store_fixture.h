// SPDX-License-Identifier: Apache-2.0
//
// A configuration home of its own for each test of the store, and records to fill its tables with.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>

#include "engine/store/store.h"
#include "kezu/engine.h"
#include "unit/temporary_directory.h"

namespace store_test {

namespace fs = std::filesystem;
using engine::store::Store;
using engine::store::TableId;

// 32 bytes, 00 to 1f.
inline constexpr const char* kMasterKeyText = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f\n";
inline constexpr const char* kOtherKeyText = "ff0102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f\n";

inline constexpr const char* kTableNames[] = {"policy",    "column",    "access", "privilege",
                                              "querypriv", "tableinfo", "user"};

inline std::string readText(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Writes a file as it stands in a home: mode 0600.
inline void writeText(const fs::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
  fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write);
}

template <std::size_t N>
void setText(char (&field)[N], const std::string& text) {
  ASSERT_LT(text.size(), N);
  std::memset(field, 0, N);
  std::memcpy(field, text.data(), text.size());
}

// A text of `length` bytes, of 0x80 and above, that differs by `number`.
inline std::string highText(std::size_t length, int number) {
  std::string text(length, '\xfe');
  const std::string digits = std::to_string(number);
  text.replace(0, std::min(length, digits.size()), digits);
  return text;
}

// Empties every table and mode, the keys too.
inline void resetTables() {
  for (auto& slot : g_makeKeyArray) {
    for (BCipherKey& key : slot) {
      BCIPHER_WipeKey(key);
      BCIPHER_DelKey(key);
      key = nullptr;
    }
  }
  std::memset(g_encPolicyArray, 0, sizeof g_encPolicyArray);
  std::memset(g_numberOfEncPolicy, 0, sizeof g_numberOfEncPolicy);
  g_encPolicyArray_flag = 0;
  std::memset(g_encColumnInfoArray, 0, sizeof g_encColumnInfoArray);
  std::memset(g_accessPrivArray, 0, sizeof g_accessPrivArray);
  std::memset(g_encPrivArray, 0, sizeof g_encPrivArray);
  std::memset(g_tableInfo, 0, sizeof g_tableInfo);
  std::memset(g_userInfo, 0, sizeof g_userInfo);
  for (int i = 0; i < g_numberOfQueryPriv; ++i) {
    g_queryPriv[i] = Q7QueryPrivData{};
  }
  for (int* count : {&g_numberOfEncColumn, &g_numberOfAccessPriv, &g_numberOfEncPriv, &g_numberOfQueryPriv,
                     &g_numberOftableInfo, &g_numberOfUserInfo, &g_doubleEncryptMode}) {
    *count = 0;
  }
  g_logInfo = {};
  g_accessControlMode = Q7_ACCESS_ALLOW_PRIOR;
  g_decryptDenyMode = Q7_DECRYPT_DENY_ERROR;
  g_kmsMode = Q7_NO_KMS_MODE;
  for (auto* text : {&g_last_policy_KezuFileChkStr, &g_last_column_KezuFileChkStr, &g_last_access_KezuFileChkStr,
                     &g_last_privilege_KezuFileChkStr, &g_last_queryPriv_KezuFileChkStr}) {
    std::memset(*text, 0, sizeof *text);
  }
}

// Adds a policy to the active slot, in place: no other thread reads it here.
inline void addPolicy(const std::string& name, int algorithm = 2, int blockMode = 1) {
  int& count = g_numberOfEncPolicy[g_encPolicyArray_flag];
  auto* slot = g_encPolicyArray[g_encPolicyArray_flag];
  ASSERT_NE(0, Q7_AddPolicyInfo(slot[count], &g_makeKeyArray[g_encPolicyArray_flag][count], name.c_str(), algorithm, 0,
                                nullptr, 0xFFFFFFFF, 0, 0, blockMode, 1, "K!"));
  ++count;
}

inline void addColumn(const std::string& name) {
  Q7EncColumnInfo& record = g_encColumnInfoArray[g_numberOfEncColumn++];
  setText(record.owner, "shop");
  setText(record.table, "customer");
  setText(record.column, name);
  setText(record.policyID, "p1");
}

inline void addUser(const std::string& id, const std::string& password) {
  Q7UserInfo& record = g_userInfo[g_numberOfUserInfo++];
  setText(record.id, id);
  setText(record.passwd, password);
  record.authTime = -1;
}

// Makes a home from the tables as they are in memory.
inline void makeHome(const fs::path& directory, const std::string& masterKeyText = kMasterKeyText) {
  fs::create_directory(directory);
  fs::permissions(directory, fs::perms::owner_all);
  writeText(directory / "kezu.toml", "");
  writeText(directory / "master.key", masterKeyText);
  const auto key = engine::store::readMasterKeys(engine::store::machineFiles(), directory / "master.key");
  ASSERT_TRUE(key.ok());
  for (const engine::store::Table* table : engine::store::allTables()) {
    engine::store::TableKeys keys;
    ASSERT_TRUE(engine::store::deriveTableKeys(keys, key.value().current, table->name()));
    ASSERT_TRUE(engine::store::createTableFile(engine::store::machineFiles(), directory, *table, keys).ok());
  }
}

inline std::unique_ptr<Store> openStore(const fs::path& directory,
                                        engine::store::FileSystem& files = engine::store::machineFiles()) {
  auto home = engine::store::openHome(files, directory);
  EXPECT_TRUE(home.ok()) << home.error().text;
  auto store = Store::open(files, home.value());
  EXPECT_TRUE(store.ok()) << store.error().text;
  return std::move(store.value());
}

// A store whose tables are loaded.
inline std::unique_ptr<Store> loadStore(const fs::path& directory,
                                        engine::store::FileSystem& files = engine::store::machineFiles()) {
  auto store = openStore(directory, files);
  const auto status = store->loadAll();
  EXPECT_TRUE(status.ok()) << status.error().text;
  return store;
}

// Runs `body` in a process of its own and returns its result, 0 to 127; 200 when it died.
inline int inChild(const std::function<int()>& body) {
  const pid_t child = fork();
  if (child == 0) {
    int result = 201;
    try {
      result = body();
    } catch (...) {
    }
    _exit(::testing::Test::HasFailure() ? 202 : result);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 200;
}

class StoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    resetTables();
    addUser("admin", "the value");
    makeHome(home());
    resetTables();
  }
  void TearDown() override { resetTables(); }

  fs::path home() const { return directory_.path() / "home"; }
  fs::path file(const std::string& table) const { return home() / (table + ".kz"); }

 private:
  TemporaryDirectory directory_;
};

}  // namespace store_test
