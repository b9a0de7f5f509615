// SPDX-License-Identifier: Apache-2.0
//
// Saving and loading whole tables.
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>

#include "unit/store_fixture.h"

namespace store_test {
namespace {

using engine::store::Error;

class StoreSaveTest : public StoreTest {};

void fillPolicies(int count) {
  for (int i = 0; i < count; ++i) {
    addPolicy("Policy0123456" + std::to_string(i % 1000), 2, 1);
    setText(g_encPolicyArray[0][i].policyID, (std::to_string(i) + "ABCDEFGHIJKLMNOP").substr(0, 16));
    std::memcpy(g_encPolicyArray[0][i].encFlag,
                "\0\xff"
                "0123456789abcd",
                16);
    g_encPolicyArray[0][i].encFlagLen = 16;
  }
  g_logInfo = {1, -2, 3, 2147483647, -2147483647 - 1};
}

void fillNames(int count) {
  for (int i = 0; i < count; ++i) {
    setText(g_encColumnInfoArray[i].owner, highText(64, i));
    setText(g_encColumnInfoArray[i].table, "'\"\\\n");
    setText(g_encColumnInfoArray[i].column, highText(64, i + 7));
    setText(g_encColumnInfoArray[i].policyID, highText(64, i + 9));
    setText(g_accessPrivArray[i].ip, highText(40, i));
    setText(g_accessPrivArray[i].user, highText(64, i + 1));
    setText(g_accessPrivArray[i].owner, "");
    setText(g_accessPrivArray[i].table, highText(64, i + 2));
    setText(g_accessPrivArray[i].column, highText(64, i + 3));
    g_accessPrivArray[i].priv = static_cast<char>(i);
    setText(g_encPrivArray[i].user, highText(64, i));
    setText(g_encPrivArray[i].owner, highText(64, i + 1));
    setText(g_encPrivArray[i].table, highText(64, i + 2));
    setText(g_encPrivArray[i].column, highText(64, i + 3));
    g_encPrivArray[i].enc_priv = static_cast<char>(i);
    g_encPrivArray[i].dec_priv = static_cast<char>(i / 256);
    setText(g_tableInfo[i].owner, highText(64, i));
    setText(g_tableInfo[i].table, highText(64, i + 1));
    setText(g_tableInfo[i].demigrationCmd, highText(3071, i));
    g_tableInfo[i].migrationTime = i;
  }
  g_numberOfEncColumn = g_numberOfAccessPriv = g_numberOfEncPriv = g_numberOftableInfo = count;
  g_accessControlMode = static_cast<Q7AccessControlMode>(-7);
  g_decryptDenyMode = Q7_DECRYPT_DENY_MASKING;
  g_doubleEncryptMode = 77;
}

void fillRules(int count) {
  for (int i = 0; i < count; ++i) {
    Q7QueryPriv rule;
    rule.queryType = i % 100;
    rule.p_queryType = -1;
    rule.queryPattern = "select .*" + std::to_string(i) + "\xff";
    rule.p_queryPattern = i % 2 == 0 ? "" : "(unfinished";
    rule.decAction = -i;
    rule.encAction = i;
    ASSERT_EQ(0, Q7QueryPriv::insert(rule));
  }
}

void fillUsers(int count) {
  for (int i = 0; i < count; ++i) {
    addUser(highText(64, i), highText(127, i));
  }
}

// A byte-for-byte copy of the tables, to compare with.
struct Snapshot {
  std::vector<Q7EncPolicyInfo> policies{
      g_encPolicyArray[g_encPolicyArray_flag],
      g_encPolicyArray[g_encPolicyArray_flag] + g_numberOfEncPolicy[g_encPolicyArray_flag]};
  std::vector<Q7EncColumnInfo> columns{g_encColumnInfoArray, g_encColumnInfoArray + g_numberOfEncColumn};
  std::vector<Q7AccessPriv> access{g_accessPrivArray, g_accessPrivArray + g_numberOfAccessPriv};
  std::vector<Q7EncPriv> privileges{g_encPrivArray, g_encPrivArray + g_numberOfEncPriv};
  std::vector<Q7QueryPrivData> rules{g_queryPriv, g_queryPriv + g_numberOfQueryPriv};
  std::vector<Q7TableInfo> tables{g_tableInfo, g_tableInfo + g_numberOftableInfo};
  std::vector<Q7UserInfo> users{g_userInfo, g_userInfo + g_numberOfUserInfo};
  Q7LogInfo log = g_logInfo;
  int modes[4] = {g_accessControlMode, g_decryptDenyMode, g_doubleEncryptMode, g_kmsMode};
};

template <typename Record>
void expectSameBytes(const std::vector<Record>& a, const std::vector<Record>& b, const char* table) {
  ASSERT_EQ(a.size(), b.size()) << table;
  EXPECT_TRUE(a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(Record)) == 0) << table;
}

void expectSamePolicies(const Snapshot& a, const Snapshot& b) {
  ASSERT_EQ(a.policies.size(), b.policies.size());
  for (std::size_t i = 0; i < a.policies.size(); ++i) {
    const auto& x = a.policies[i];
    const auto& y = b.policies[i];
    ASSERT_STREQ(x.policyID, y.policyID);
    ASSERT_EQ(std::tie(x.algID, x.ivMode, x.keyLength, x.encPos, x.encLen, x.blockMode, x.strMode, x.encFlagLen),
              std::tie(y.algID, y.ivMode, y.keyLength, y.encPos, y.encLen, y.blockMode, y.strMode, y.encFlagLen));
    ASSERT_EQ(0, std::memcmp(x.columnKey, y.columnKey, sizeof x.columnKey));
    ASSERT_EQ(0, std::memcmp(x.encFlag, y.encFlag, sizeof x.encFlag));
  }
}

void expectSame(const Snapshot& a, const Snapshot& b) {
  expectSamePolicies(a, b);
  expectSameBytes(a.columns, b.columns, "column");
  expectSameBytes(a.access, b.access, "access");
  expectSameBytes(a.privileges, b.privileges, "privilege");
  expectSameBytes(a.tables, b.tables, "tableinfo");
  expectSameBytes(a.users, b.users, "user");
  ASSERT_EQ(a.rules.size(), b.rules.size());
  for (std::size_t i = 0; i < a.rules.size(); ++i) {
    const Q7QueryPriv& x = a.rules[i].queryPriv;
    const Q7QueryPriv& y = b.rules[i].queryPriv;
    ASSERT_EQ(std::tie(a.rules[i].sqlType, x.queryType, x.p_queryType, x.queryPattern, x.p_queryPattern, x.decAction,
                       x.encAction),
              std::tie(b.rules[i].sqlType, y.queryType, y.p_queryType, y.queryPattern, y.p_queryPattern, y.decAction,
                       y.encAction));
  }
  EXPECT_EQ(0, std::memcmp(&a.log, &b.log, sizeof a.log));
  EXPECT_EQ(0, std::memcmp(a.modes, b.modes, sizeof a.modes));
}

void saveAll(Store& store) {
  for (std::size_t i = 0; i < engine::store::kTableCount; ++i) {
    const auto status = store.save(static_cast<TableId>(i));
    ASSERT_TRUE(status.ok()) << status.error().text;
  }
}

TEST_F(StoreSaveTest, FullTablesComeBackAsTheyWere) {
  auto store = loadStore(home());
  resetTables();
  fillPolicies(kMaxPolicies);
  fillNames(2000);
  fillRules(kMaxQueryPrivs);
  fillUsers(kMaxUsers);
  const Snapshot saved;
  saveAll(*store);

  resetTables();
  loadStore(home());
  expectSame(saved, Snapshot());
  const int slot = g_encPolicyArray_flag;
  for (int i = 0; i < kMaxPolicies; ++i) {
    ASSERT_NE(nullptr, g_makeKeyArray[slot][i]);
  }
  EXPECT_TRUE(g_queryPriv[3].queryPriv.checkPattern("", "") == false);
  EXPECT_TRUE(g_queryPriv[4].queryPriv.checkPattern("select a 4\xff", "anything"));
}

TEST_F(StoreSaveTest, EmptyTablesComeBackEmpty) {
  auto store = loadStore(home());
  resetTables();
  fillPolicies(3);
  fillNames(3);
  fillRules(3);
  fillUsers(3);
  saveAll(*store);
  resetTables();
  const Snapshot empty;
  saveAll(*store);

  fillPolicies(2);
  fillNames(2);
  fillRules(2);
  fillUsers(2);
  loadStore(home());
  Snapshot loaded;
  for (Q7LogInfo* log : {&loaded.log}) {
    EXPECT_EQ(0, std::memcmp(log, &empty.log, sizeof *log));
  }
  expectSame(empty, loaded);
}

TEST_F(StoreSaveTest, ValuesEncryptedBeforeARestartAreReadAfterIt) {
  auto store = loadStore(home());
  addPolicy("p1");
  ASSERT_TRUE(store->save(TableId::policy).ok());
  unsigned char sealed[200];
  unsigned int sealedLength = sizeof sealed;
  const unsigned char clear[] = "4111-1111-1111-1111";
  ASSERT_EQ(0, Q7_EncryptBinaryExt(sealed, &sealedLength, clear, sizeof clear, &g_encPolicyArray[0][0],
                                   g_makeKeyArray[0][0]));
  resetTables();
  loadStore(home());
  const int slot = g_encPolicyArray_flag;
  unsigned char opened[200];
  unsigned int openedLength = sizeof opened;
  ASSERT_EQ(0, Q7_DecryptBinaryExt(opened, &openedLength, sealed, sealedLength, &g_encPolicyArray[slot][0],
                                   g_makeKeyArray[slot][0]));
  EXPECT_EQ(std::string(clear, clear + sizeof clear), std::string(opened, opened + openedLength));
}

TEST_F(StoreSaveTest, APasswordThatFillsItsFieldComesBack) {
  auto store = loadStore(home());
  std::memset(g_userInfo[0].passwd, 'x', sizeof g_userInfo[0].passwd);
  ASSERT_TRUE(store->save(TableId::user).ok());
  resetTables();
  loadStore(home());
  EXPECT_EQ(std::string(128, 'x'), std::string(g_userInfo[0].passwd, 128));
  EXPECT_EQ('\0', g_userInfo[0].sessionId[0]);
}

TEST_F(StoreSaveTest, KeepsTheVersionBeforeTheLastSave) {
  auto store = loadStore(home());
  EXPECT_FALSE(fs::exists(file("column").string() + ".bak"));
  std::string before = readText(file("column"));
  for (int i = 0; i < 3; ++i) {
    addColumn("c" + std::to_string(i));
    ASSERT_TRUE(store->save(TableId::column).ok());
    EXPECT_EQ(before, readText(file("column").string() + ".bak"));
    before = readText(file("column"));
  }
  EXPECT_FALSE(fs::exists(file("column").string() + ".tmp"));
  EXPECT_FALSE(fs::exists(file("column").string() + ".bak.tmp"));
  EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write, fs::status(file("column")).permissions());
}

TEST_F(StoreSaveTest, LeftoversOfACutShortSaveAreReplaced) {
  auto store = loadStore(home());
  addColumn("first");
  ASSERT_TRUE(store->save(TableId::column).ok());
  const std::string before = readText(file("column"));
  writeText(file("column").string() + ".tmp", "half a");
  writeText(file("column").string() + ".bak.tmp", "rest");
  // As after a kill between the two renames: .bak and the file are one.
  fs::remove(file("column").string() + ".bak");
  fs::create_hard_link(file("column"), file("column").string() + ".bak");
  addColumn("second");
  ASSERT_TRUE(store->save(TableId::column).ok());
  EXPECT_EQ(before, readText(file("column").string() + ".bak"));
  EXPECT_FALSE(fs::exists(file("column").string() + ".tmp"));
  EXPECT_FALSE(fs::exists(file("column").string() + ".bak.tmp"));
  resetTables();
  loadStore(home());
  EXPECT_EQ(2, g_numberOfEncColumn);
}

TEST_F(StoreSaveTest, NoClearValueIsInTheFiles) {
  auto store = loadStore(home());
  addPolicy("VISIBLEPOLICY");
  std::memcpy(g_encPolicyArray[0][0].columnKey, "0123456789KEYKEYKEY0123456789ABC", 32);
  addColumn("VISIBLECOLUMN");
  addUser("other", "SECRETVALUE");
  saveAll(*store);
  for (const char* name : kTableNames) {
    const std::string bytes = readText(file(name));
    for (const char* text : {"VISIBLE", "KEYKEY", "SECRET", "admin", "customer"}) {
      EXPECT_EQ(std::string::npos, bytes.find(text)) << name;
    }
  }
}

TEST_F(StoreSaveTest, FileCheckStringsAreOfTheContentAndTheMasterKey) {
  TemporaryDirectory elsewhere;
  const auto checkOf = [&](const char* folder, const char* key, const char* column) {
    resetTables();
    addColumn(column);
    makeHome(elsewhere.path() / folder, key);
    resetTables();
    loadStore(elsewhere.path() / folder);
    return std::string(g_last_column_KezuFileChkStr);
  };
  const std::string a = checkOf("a", kMasterKeyText, "c");
  EXPECT_EQ(30u, a.size());
  EXPECT_EQ(std::string::npos, a.find_first_not_of("0123456789abcdef"));
  EXPECT_EQ(a, checkOf("b", kMasterKeyText, "c"));
  EXPECT_NE(a, checkOf("c", kMasterKeyText, "d"));
  EXPECT_NE(a, checkOf("d", kOtherKeyText, "c"));
  EXPECT_NE(std::string(g_last_column_KezuFileChkStr), g_last_access_KezuFileChkStr);
}

TEST_F(StoreSaveTest, ASaveShowsTheNewFilesCheckString) {
  auto store = loadStore(home());
  const std::string before = g_last_column_KezuFileChkStr;
  addColumn("c");
  ASSERT_TRUE(store->save(TableId::column).ok());
  const std::string after = g_last_column_KezuFileChkStr;
  EXPECT_NE(before, after);
  resetTables();
  loadStore(home());
  EXPECT_EQ(after, g_last_column_KezuFileChkStr);
}

TEST_F(StoreSaveTest, WhatCouldNotBeLoadedIsNotSaved) {
  auto store = loadStore(home());
  const std::string before = readText(file("privilege"));
  g_decryptDenyMode = static_cast<Q7DecryptDenyMode>(5);
  const auto status = store->save(TableId::privilege);
  ASSERT_FALSE(status.ok());
  EXPECT_NE(status.error().text.find("privilege.kz"), std::string::npos);
  EXPECT_EQ(before, readText(file("privilege")));

  addPolicy("p1");
  g_encPolicyArray[0][0].encFlagLen = 17;
  EXPECT_FALSE(store->save(TableId::policy).ok());
  g_encPolicyArray[0][0].encFlagLen = 2;
  EXPECT_TRUE(store->save(TableId::policy).ok());
}

TEST_F(StoreSaveTest, AnotherProcessesSaveIsNotOverwritten) {
  auto store = loadStore(home());
  ASSERT_EQ(0, inChild([&] {
              auto other = loadStore(home());
              addColumn("theirs");
              return other->save(TableId::column).ok() ? 0 : 1;
            }));
  const std::string theirs = readText(file("column"));
  addColumn("ours");
  const auto status = store->save(TableId::column);
  ASSERT_FALSE(status.ok());
  EXPECT_EQ(Error::Kind::conflict, status.error().kind);
  EXPECT_EQ(theirs, readText(file("column")));

  ASSERT_TRUE(store->reloadChanged().ok());
  ASSERT_EQ(1, g_numberOfEncColumn);
  EXPECT_STREQ("theirs", g_encColumnInfoArray[0].column);
  addColumn("ours");
  EXPECT_TRUE(store->save(TableId::column).ok());
}

TEST_F(StoreSaveTest, AVersionOfTheSameSizeAndTimeIsToldApart) {
  auto store = loadStore(home());
  addColumn("aaaa");
  ASSERT_TRUE(store->save(TableId::column).ok());
  // Versions of one size, as fast as they can be written.
  std::int64_t last = 0;
  for (int i = 0; i < 50; ++i) {
    g_encColumnInfoArray[0].column[0] = static_cast<char>('a' + i % 26);
    ASSERT_TRUE(store->save(TableId::column).ok());
    const auto status = engine::store::statFile(engine::store::machineFiles(), file("column"));
    const std::int64_t modified = engine::store::identityOf(status.value()).modified;
    EXPECT_GT(modified, last);
    last = modified;
  }
}

// As after the machine's clock was put back. With a time before the old version's, a version of the same size that
// happens to get the inode of one before could not be told from that.
TEST_F(StoreSaveTest, AVersionIsLaterThanTheOneThatItReplaces) {
  const auto modified = [this] {
    return engine::store::identityOf(engine::store::statFile(engine::store::machineFiles(), file("column")).value())
        .modified;
  };
  fs::last_write_time(file("column"), fs::file_time_type::clock::now() + std::chrono::hours(1));
  auto store = loadStore(home());
  for (int i = 0; i < 3; ++i) {
    const std::int64_t before = modified();
    addColumn("c" + std::to_string(i));
    ASSERT_TRUE(store->save(TableId::column).ok());
    EXPECT_EQ(before + 1, modified());
    ASSERT_TRUE(store->reloadChanged().ok());
    EXPECT_EQ(i + 1, g_numberOfEncColumn);
  }
}

TEST_F(StoreSaveTest, AMissingFileIsNotMadeAnew) {
  auto store = loadStore(home());
  fs::remove(file("column"));
  addColumn("c");
  const auto status = store->save(TableId::column);
  ASSERT_FALSE(status.ok());
  EXPECT_EQ(Error::Kind::system, status.error().kind);
  EXPECT_FALSE(fs::exists(file("column")));
}

TEST_F(StoreSaveTest, ASymbolicLinkInTheTemporaryFilesPlaceIsNotFollowed) {
  auto store = loadStore(home());
  const fs::path victim = home().parent_path() / "victim";
  writeText(victim, "untouched");
  fs::create_symlink(victim, file("column").string() + ".tmp");
  addColumn("c");
  EXPECT_TRUE(store->save(TableId::column).ok());
  EXPECT_EQ("untouched", readText(victim));
}

TEST_F(StoreSaveTest, AFullDiskLeavesTheOldFile) {
  ASSERT_EQ(
      0, inChild([&] {
        auto store = loadStore(home());
        const std::string before = readText(file("tableinfo"));
        for (int i = 0; i < 100; ++i) {
          setText(g_tableInfo[i].owner, "o");
          setText(g_tableInfo[i].demigrationCmd, highText(3000, i));
        }
        g_numberOftableInfo = 100;
        // Past the limit write() takes what fits and then fails, as on a full disk.
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {100000, RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &limit);
        const auto status = store->save(TableId::tableInfo);
        EXPECT_FALSE(status.ok());
        EXPECT_NE(status.error().text.find("tableinfo.kz.tmp: cannot be written: File too large"), std::string::npos)
            << status.error().text;
        EXPECT_EQ(before, readText(file("tableinfo")));
        EXPECT_FALSE(fs::exists(file("tableinfo").string() + ".tmp"));
        const rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &none);
        EXPECT_TRUE(store->save(TableId::tableInfo).ok());
        return 0;
      }));
}

}  // namespace
}  // namespace store_test
