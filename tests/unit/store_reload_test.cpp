// SPDX-License-Identifier: Apache-2.0
//
// Reloading what another process saved.
#include "unit/store_fixture.h"

namespace store_test {
namespace {

// Counts what is asked of the file system.
class CountingFiles : public engine::store::FileSystem {
 public:
  int open(const char* path, int flags, mode_t mode) override {
    ++opens;
    return FileSystem::open(path, flags, mode);
  }
  int stat(const char* path, struct stat* out) override {
    ++stats;
    return FileSystem::stat(path, out);
  }

  int opens = 0;
  int stats = 0;
};

// Shows the file of the columns with a status that differs in one place.
class OtherStatusFiles : public CountingFiles {
 public:
  int stat(const char* path, struct stat* out) override {
    const int result = CountingFiles::stat(path, out);
    if (change && fs::path(path).filename() == "column.kz") {
      change(*out);
    }
    return result;
  }

  std::function<void(struct stat&)> change;
};

class StoreReloadTest : public StoreTest {
 protected:
  // Another process changes the tables with `change`, and saves `id`.
  void changeElsewhere(TableId id, const std::function<void()>& change) {
    ASSERT_EQ(0, inChild([&] {
                resetTables();
                auto other = loadStore(home());
                change();
                return other->save(id).ok() ? 0 : 1;
              }));
  }
};

TEST_F(StoreReloadTest, CostsOneStatAFileWhenNothingChanged) {
  CountingFiles files;
  auto store = loadStore(home(), files);
  files.opens = files.stats = 0;
  ASSERT_TRUE(store->reloadChanged().ok());
  EXPECT_EQ(7, files.stats);
  EXPECT_EQ(0, files.opens);
}

TEST_F(StoreReloadTest, OpensOnlyWhatChanged) {
  CountingFiles files;
  auto store = loadStore(home(), files);
  changeElsewhere(TableId::column, [] { addColumn("c"); });
  files.opens = files.stats = 0;
  ASSERT_TRUE(store->reloadChanged().ok());
  EXPECT_EQ(7, files.stats);
  EXPECT_EQ(1, files.opens);
  EXPECT_EQ(1, g_numberOfEncColumn);
}

TEST_F(StoreReloadTest, AFileIsAnotherOneWhenDeviceInodeSizeOrTimeDiffer) {
  const std::pair<const char*, std::function<void(struct stat&)>> changes[] = {
      {"device", [](struct stat& status) { ++status.st_dev; }},
      {"inode", [](struct stat& status) { ++status.st_ino; }},
      {"size", [](struct stat& status) { ++status.st_size; }},
      {"seconds", [](struct stat& status) { --status.st_mtim.tv_sec; }},
      {"nanoseconds", [](struct stat& status) { status.st_mtim.tv_nsec ^= 1; }},
  };
  for (const auto& [what, change] : changes) {
    OtherStatusFiles files;
    auto store = loadStore(home(), files);
    files.change = change;
    addColumn("c");
    const auto status = store->save(TableId::column);
    ASSERT_FALSE(status.ok()) << what;
    EXPECT_EQ(engine::store::Error::Kind::conflict, status.error().kind) << what;
    files.opens = 0;
    EXPECT_TRUE(store->reloadChanged().ok()) << what;
    EXPECT_EQ(1, files.opens) << what;
    EXPECT_EQ(0, g_numberOfEncColumn) << what;
  }
}

TEST_F(StoreReloadTest, TheMasterKeyIsReadAtTheStartOnly) {
  auto store = loadStore(home());
  changeElsewhere(TableId::column, [] { addColumn("c"); });
  fs::remove(home() / "master.key");
  ASSERT_TRUE(store->reloadChanged().ok());
  EXPECT_EQ(1, g_numberOfEncColumn);
  EXPECT_TRUE(store->save(TableId::column).ok());
}

TEST_F(StoreReloadTest, NothingIsReloadedAfterASaveOfOnesOwn) {
  CountingFiles files;
  auto store = loadStore(home(), files);
  addColumn("c");
  addPolicy("p1");
  for (std::size_t i = 0; i < engine::store::kTableCount; ++i) {
    ASSERT_TRUE(store->save(static_cast<TableId>(i)).ok());
  }
  files.opens = 0;
  ASSERT_TRUE(store->reloadChanged().ok());
  EXPECT_EQ(0, files.opens);
}

TEST_F(StoreReloadTest, EveryTableFollowsItsFile) {
  auto store = loadStore(home());
  changeElsewhere(TableId::policy, [] {
    addPolicy("p1");
    g_logInfo.denyLog = 5;
  });
  changeElsewhere(TableId::column, [] { addColumn("c"); });
  changeElsewhere(TableId::access, [] {
    setText(g_accessPrivArray[0].ip, "10.0.0.1");
    g_numberOfAccessPriv = 1;
    g_accessControlMode = Q7_ACCESS_DENY_PRIOR;
  });
  changeElsewhere(TableId::privilege, [] {
    setText(g_encPrivArray[0].user, "alice");
    g_numberOfEncPriv = 1;
    g_decryptDenyMode = Q7_DECRYPT_DENY_MASKING;
  });
  changeElsewhere(TableId::queryPriv, [] {
    Q7QueryPriv rule;
    rule.queryType = 0;
    rule.queryPattern = "^select";
    Q7QueryPriv::insert(rule);
    g_doubleEncryptMode = 1;
  });
  changeElsewhere(TableId::tableInfo, [] {
    setText(g_tableInfo[0].demigrationCmd, "alter table t");
    g_numberOftableInfo = 1;
  });
  changeElsewhere(TableId::user, [] { addUser("second", "value"); });

  ASSERT_TRUE(store->reloadChanged().ok());
  ASSERT_EQ(1, g_numberOfEncPolicy[g_encPolicyArray_flag]);
  EXPECT_STREQ("p1", g_encPolicyArray[g_encPolicyArray_flag][0].policyID);
  EXPECT_NE(nullptr, g_makeKeyArray[g_encPolicyArray_flag][0]);
  EXPECT_EQ(5, g_logInfo.denyLog);
  EXPECT_STREQ("c", g_encColumnInfoArray[0].column);
  EXPECT_STREQ("10.0.0.1", g_accessPrivArray[0].ip);
  EXPECT_EQ(Q7_ACCESS_DENY_PRIOR, g_accessControlMode);
  EXPECT_STREQ("alice", g_encPrivArray[0].user);
  EXPECT_EQ(Q7_DECRYPT_DENY_MASKING, g_decryptDenyMode);
  EXPECT_TRUE(g_queryPriv[0].queryPriv.checkPattern("select 1", ""));
  EXPECT_FALSE(g_queryPriv[0].queryPriv.checkPattern("insert", ""));
  EXPECT_EQ(-1 * 150 + 150, g_queryPriv[0].sqlType);
  EXPECT_EQ(1, g_doubleEncryptMode);
  EXPECT_STREQ("alter table t", g_tableInfo[0].demigrationCmd);
  ASSERT_EQ(2, g_numberOfUserInfo);
  EXPECT_STREQ("second", g_userInfo[1].id);
}

TEST_F(StoreReloadTest, OneTableAlone) {
  auto store = loadStore(home());
  changeElsewhere(TableId::column, [] { addColumn("c"); });
  changeElsewhere(TableId::tableInfo, [] { g_numberOftableInfo = 1; });
  ASSERT_TRUE(store->reloadChanged(TableId::tableInfo).ok());
  EXPECT_EQ(1, g_numberOftableInfo);
  EXPECT_EQ(0, g_numberOfEncColumn);
}

TEST_F(StoreReloadTest, ARemovedRecordLeavesNothing) {
  auto store = loadStore(home());
  for (const char* name : {"a", "b", "c"}) {
    addColumn(name);
  }
  ASSERT_TRUE(store->save(TableId::column).ok());
  changeElsewhere(TableId::column, [] { g_numberOfEncColumn = 1; });
  ASSERT_TRUE(store->reloadChanged().ok());
  EXPECT_EQ(1, g_numberOfEncColumn);
  EXPECT_STREQ("", g_encColumnInfoArray[1].column);
  EXPECT_STREQ("", g_encColumnInfoArray[2].column);
}

TEST_F(StoreReloadTest, PoliciesGoToTheNextSlotAndTheOldOneStays) {
  auto store = loadStore(home());
  addPolicy("p0");
  ASSERT_TRUE(store->save(TableId::policy).ok());
  for (int i = 1; i <= 6; ++i) {
    const int before = g_encPolicyArray_flag;
    const BCipherKey oldKey = g_makeKeyArray[before][0];
    changeElsewhere(TableId::policy, [i] { addPolicy("p" + std::to_string(i)); });
    ASSERT_TRUE(store->reloadChanged().ok());
    EXPECT_EQ((before + 1) % 5, g_encPolicyArray_flag);
    EXPECT_EQ(i + 1, g_numberOfEncPolicy[g_encPolicyArray_flag]);
    EXPECT_EQ(i, g_numberOfEncPolicy[before]);
    EXPECT_EQ(oldKey, g_makeKeyArray[before][0]);
    EXPECT_STREQ("p0", g_encPolicyArray[before][0].policyID);
  }
}

TEST_F(StoreReloadTest, SlotsStandStillWhenThePoliciesAreTheSame) {
  auto store = loadStore(home());
  addPolicy("p0");
  ASSERT_TRUE(store->save(TableId::policy).ok());
  const int slot = g_encPolicyArray_flag;
  changeElsewhere(TableId::policy, [] { g_logInfo.encLogFlag = 1; });
  ASSERT_TRUE(store->reloadChanged().ok());
  EXPECT_EQ(1, g_logInfo.encLogFlag);
  EXPECT_EQ(slot, g_encPolicyArray_flag);
  for (int i = 0; i < 10; ++i) {
    ASSERT_TRUE(store->load(TableId::policy, "").ok());
  }
  EXPECT_EQ(slot, g_encPolicyArray_flag);
}

TEST_F(StoreReloadTest, SessionsFailuresAndLocksGoOn) {
  auto store = loadStore(home());
  addUser("second", "v2");
  addUser("third", "v3");
  ASSERT_TRUE(store->save(TableId::user).ok());
  for (int i = 0; i < 3; ++i) {
    setText(g_userInfo[i].sessionId, std::string(64, static_cast<char>('a' + i)));
    g_userInfo[i].authTime = 1000 + i;
    g_userInfo[i].authFailCount = i;
    g_userInfo[i].authLockTime = 2000 + i;
  }
  // "second" goes, "third" takes its place, "admin" gets another value, and a new one comes.
  changeElsewhere(TableId::user, [] {
    setText(g_userInfo[0].passwd, "new");
    g_userInfo[1] = g_userInfo[2];
    g_numberOfUserInfo = 2;
    addUser("fourth", "v4");
  });
  ASSERT_TRUE(store->reloadChanged().ok());
  ASSERT_EQ(3, g_numberOfUserInfo);
  EXPECT_STREQ("new", g_userInfo[0].passwd);
  EXPECT_EQ(std::string(64, 'a'), g_userInfo[0].sessionId);
  EXPECT_EQ(1000, g_userInfo[0].authTime);
  EXPECT_EQ(2000, g_userInfo[0].authLockTime);
  EXPECT_STREQ("third", g_userInfo[1].id);
  EXPECT_EQ(std::string(64, 'c'), g_userInfo[1].sessionId);
  EXPECT_EQ(1002, g_userInfo[1].authTime);
  EXPECT_EQ(2, g_userInfo[1].authFailCount);
  EXPECT_EQ(2002, g_userInfo[1].authLockTime);
  EXPECT_STREQ("fourth", g_userInfo[2].id);
  EXPECT_STREQ("", g_userInfo[2].sessionId);
  EXPECT_EQ(-1, g_userInfo[2].authTime);
  EXPECT_EQ(0, g_userInfo[2].authFailCount);
}

TEST_F(StoreReloadTest, AfterALoadNoSessionIsValid) {
  loadStore(home());
  ASSERT_EQ(1, g_numberOfUserInfo);
  EXPECT_STREQ("admin", g_userInfo[0].id);
  EXPECT_STREQ("the value", g_userInfo[0].passwd);
  EXPECT_STREQ("", g_userInfo[0].sessionId);
  EXPECT_EQ(-1, g_userInfo[0].authTime);
}

TEST_F(StoreReloadTest, AllChangedTablesOrNone) {
  auto store = loadStore(home());
  addColumn("ours");
  ASSERT_TRUE(store->save(TableId::column).ok());
  changeElsewhere(TableId::policy, [] { addPolicy("p1"); });
  changeElsewhere(TableId::column, [] { addColumn("theirs"); });
  changeElsewhere(TableId::user, [] { addUser("second", "v"); });
  std::string bytes = readText(file("user"));
  bytes[bytes.size() - 20] = static_cast<char>(bytes[bytes.size() - 20] ^ 1);
  writeText(file("user"), bytes);
  for (int i = 0; i < 2; ++i) {
    const auto status = store->reloadChanged();
    ASSERT_FALSE(status.ok());
    EXPECT_NE(status.error().text.find("user.kz"), std::string::npos) << status.error().text;
    EXPECT_EQ(0, g_numberOfEncPolicy[g_encPolicyArray_flag]);
    EXPECT_EQ(1, g_numberOfEncColumn);
    EXPECT_EQ(1, g_numberOfUserInfo);
  }
  fs::copy_file(file("user").string() + ".bak", file("user"), fs::copy_options::overwrite_existing);
  ASSERT_TRUE(store->reloadChanged().ok());
  EXPECT_EQ(1, g_numberOfEncPolicy[g_encPolicyArray_flag]);
  EXPECT_EQ(2, g_numberOfEncColumn);
}

TEST_F(StoreReloadTest, AMissingFileFailsAndChangesNothing) {
  auto store = loadStore(home());
  addColumn("ours");
  ASSERT_TRUE(store->save(TableId::column).ok());
  fs::rename(file("access"), file("access").string() + ".away");
  EXPECT_FALSE(store->reloadChanged().ok());
  EXPECT_EQ(1, g_numberOfEncColumn);
  fs::rename(file("access").string() + ".away", file("access"));
  EXPECT_TRUE(store->reloadChanged().ok());
}

TEST_F(StoreReloadTest, PoliciesInMemoryOnlyAreNeitherSavedNorReplaced) {
  auto store = loadStore(home());
  g_kmsMode = Q7_ONLY_KMS_MODE;
  ASSERT_TRUE(store->save(TableId::policy).ok());
  addPolicy("fetched");
  g_logInfo.accessLog = 1;
  ASSERT_TRUE(store->save(TableId::policy).ok());
  const int slot = g_encPolicyArray_flag;

  changeElsewhere(TableId::policy, [] {
    EXPECT_EQ(0, g_numberOfEncPolicy[g_encPolicyArray_flag]);
    EXPECT_EQ(Q7_ONLY_KMS_MODE, g_kmsMode);
    g_logInfo.queryLog = 1;
  });
  ASSERT_TRUE(store->reloadChanged().ok());
  EXPECT_EQ(1, g_logInfo.queryLog);
  EXPECT_EQ(slot, g_encPolicyArray_flag);
  ASSERT_EQ(1, g_numberOfEncPolicy[slot]);
  EXPECT_STREQ("fetched", g_encPolicyArray[slot][0].policyID);
  EXPECT_NE(nullptr, g_makeKeyArray[slot][0]);
}

TEST_F(StoreReloadTest, LocalPoliciesGoWhenAnotherProcessSwitchesToTheKeyServer) {
  auto store = loadStore(home());
  addPolicy("local");
  ASSERT_TRUE(store->save(TableId::policy).ok());
  changeElsewhere(TableId::policy, [] {
    g_numberOfEncPolicy[g_encPolicyArray_flag] = 0;
    g_kmsMode = Q7_ONLY_KMS_MODE;
  });
  ASSERT_TRUE(store->reloadChanged().ok());
  EXPECT_EQ(Q7_ONLY_KMS_MODE, g_kmsMode);
  EXPECT_EQ(0, g_numberOfEncPolicy[g_encPolicyArray_flag]);
}

TEST_F(StoreReloadTest, CachedPoliciesAreSaved) {
  auto store = loadStore(home());
  g_kmsMode = Q7_CACHED_KMS_MODE;
  addPolicy("cached");
  ASSERT_TRUE(store->save(TableId::policy).ok());
  resetTables();
  loadStore(home());
  EXPECT_EQ(Q7_CACHED_KMS_MODE, g_kmsMode);
  EXPECT_EQ(1, g_numberOfEncPolicy[g_encPolicyArray_flag]);
}

TEST_F(StoreReloadTest, AChangeThatAReloadOvertookIsNotReportedAsSaved) {
  auto store = loadStore(home());
  // One connection adds a column; before it saves, another's reload brings in what another process saved.
  const auto loadsBefore = store->loads(TableId::column);
  addColumn("ours");
  changeElsewhere(TableId::column, [] {
    g_numberOfEncColumn = 0;
    addColumn("theirs");
  });
  ASSERT_TRUE(store->reloadChanged().ok());
  EXPECT_STREQ("theirs", g_encColumnInfoArray[0].column);
  const auto lost = store->save(TableId::column, loadsBefore);
  ASSERT_FALSE(lost.ok());
  EXPECT_EQ(engine::store::Error::Kind::conflict, lost.error().kind);
  ASSERT_TRUE(store->reloadChanged().ok());
  addColumn("ours");
  EXPECT_TRUE(store->save(TableId::column, store->loads(TableId::column)).ok());
}

TEST_F(StoreReloadTest, AChangeThatIsMixedWithWhatAReloadBroughtIsNotSaved) {
  auto store = loadStore(home());
  const auto loadsBefore = store->loads(TableId::column);
  // One connection has read the count; another's reload brings in two columns; then the first stores its record.
  const int count = g_numberOfEncColumn;
  changeElsewhere(TableId::column, [] {
    addColumn("theirs");
    addColumn("theirs too");
  });
  ASSERT_TRUE(store->reloadChanged().ok());
  g_numberOfEncColumn = count;
  addColumn("ours");
  EXPECT_FALSE(store->save(TableId::column, loadsBefore).ok());
  ASSERT_TRUE(store->reloadChanged().ok());
  EXPECT_EQ(2, g_numberOfEncColumn) << "the next reload takes the file in again, though it did not change";
  EXPECT_STREQ("theirs", g_encColumnInfoArray[0].column);
}

TEST_F(StoreReloadTest, AChangeThatALoadOvertookIsNotReportedAsSaved) {
  auto store = loadStore(home());
  const auto loadsBefore = store->loads(TableId::policy);
  addPolicy("ours");
  ASSERT_TRUE(store->load(TableId::policy, "").ok());
  EXPECT_FALSE(store->save(TableId::policy, loadsBefore).ok());
}

TEST_F(StoreReloadTest, PoliciesOfAnotherFile) {
  auto store = loadStore(home());
  addPolicy("p1");
  ASSERT_TRUE(store->save(TableId::policy).ok());
  fs::copy_file(file("policy"), home() / "copy.kz");
  addPolicy("p2");
  ASSERT_TRUE(store->save(TableId::policy).ok());
  ASSERT_TRUE(store->load(TableId::policy, (home() / "copy.kz").string()).ok());
  EXPECT_EQ(1, g_numberOfEncPolicy[g_encPolicyArray_flag]);
  EXPECT_TRUE(store->save(TableId::policy).ok()) << "the home's own file is still the one last saved";
  EXPECT_FALSE(store->load(TableId::policy, (home() / "none.kz").string()).ok());
  EXPECT_FALSE(store->load(TableId::policy, file("column").string()).ok());
  EXPECT_EQ(1, g_numberOfEncPolicy[g_encPolicyArray_flag]);
}

}  // namespace
}  // namespace store_test
