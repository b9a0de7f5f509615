// SPDX-License-Identifier: Apache-2.0
//
// A change of the master key: what it does, and what is left when it ends early.
#include "engine/store/master_key.h"

#include <gmock/gmock.h>

#include "unit/failing_files.h"
#include "unit/store_fixture.h"

namespace store_test {
namespace {

using engine::store::Error;
using engine::store::KeyChange;

// Ends the process at the call number `failAt` (from 0), before that call does anything.
class DyingFiles : public engine::store::FileSystem {
 public:
  explicit DyingFiles(int call) : left_(call) {}
  int open(const char* path, int flags, mode_t mode) override { return step(), FileSystem::open(path, flags, mode); }
  ssize_t write(int fd, const void* buffer, std::size_t size) override {
    return step(), FileSystem::write(fd, buffer, size);
  }
  int fsync(int fd) override { return step(), FileSystem::fsync(fd); }
  int rename(const char* from, const char* to) override { return step(), FileSystem::rename(from, to); }
  int unlink(const char* path) override { return step(), FileSystem::unlink(path); }

 private:
  void step() {
    if (left_-- == 0) {
      _exit(0);
    }
  }
  int left_;
};

class MasterKeyTest : public StoreTest {
 protected:
  // A home with a policy, columns, and .bak files of two tables.
  void SetUp() override {
    StoreTest::SetUp();
    auto store = loadStore(home());
    addPolicy("p1");
    ASSERT_TRUE(store->save(TableId::policy).ok());
    for (const char* name : {"a", "b"}) {
      addColumn(name);
      ASSERT_TRUE(store->save(TableId::column).ok());
    }
    columnKey_.assign(g_encPolicyArray[g_encPolicyArray_flag][0].columnKey, 32);
  }

  engine::store::Home opened() const {
    return engine::store::openHome(engine::store::machineFiles(), home().string()).value();
  }

  engine::store::Result<KeyChange> change(engine::store::FileSystem& files = engine::store::machineFiles()) const {
    return engine::store::changeMasterKey(files, opened());
  }

  std::string keyText() const { return readText(home() / "master.key"); }

  // The home opens, with all that was in it, the .bak files too.
  void expectWhole() const {
    resetTables();
    const auto store = loadStore(home());
    ASSERT_EQ(1, g_numberOfEncPolicy[g_encPolicyArray_flag]);
    EXPECT_EQ(columnKey_, std::string(g_encPolicyArray[g_encPolicyArray_flag][0].columnKey, 32));
    EXPECT_EQ(2, g_numberOfEncColumn);
    EXPECT_STREQ("admin", g_userInfo[0].id);
    for (const TableId id : {TableId::policy, TableId::column}) {
      const auto backup = engine::store::openTableFile(store->files(), store->path(id) + ".bak",
                                                       engine::store::tableOf(id), store->keys(id));
      EXPECT_TRUE(backup.ok()) << backup.error().text;
    }
  }

  // With the key that was there before, no file of the home opens.
  void expectOldKeyIsOfNoUse() const {
    const std::string key = keyText();
    writeText(home() / "master.key", kMasterKeyText);
    const auto store = openStore(home());
    for (std::size_t i = 0; i < engine::store::kTableCount; ++i) {
      const auto id = static_cast<TableId>(i);
      for (const char* suffix : {"", ".bak"}) {
        const std::string path = store->path(id) + suffix;
        if (fs::exists(path)) {
          const auto image =
              engine::store::openTableFile(store->files(), path, engine::store::tableOf(id), store->keys(id));
          ASSERT_FALSE(image.ok()) << path;
          EXPECT_THAT(image.error().text, testing::HasSubstr("another master key"));
        }
      }
    }
    writeText(home() / "master.key", key);
  }

  void expectOneNewKey() const {
    EXPECT_EQ(65u, keyText().size());
    EXPECT_NE(kMasterKeyText, keyText());
  }

 private:
  std::string columnKey_;
};

TEST_F(MasterKeyTest, EveryFileIsSealedUnderTheNewKey) {
  const auto done = change();
  ASSERT_TRUE(done.ok()) << done.error().text;
  EXPECT_EQ(KeyChange::made, done.value());
  expectOneNewKey();
  expectWhole();
  expectOldKeyIsOfNoUse();
  const std::string first = keyText();
  ASSERT_TRUE(change().ok());
  EXPECT_NE(first, keyText());
  expectWhole();
  struct stat status = {};
  for (const auto& entry : fs::directory_iterator(home())) {
    ASSERT_EQ(0, stat(entry.path().c_str(), &status));
    EXPECT_EQ(0600u, status.st_mode & 07777) << entry.path();
    EXPECT_NE(".tmp", entry.path().extension()) << entry.path();
  }
}

TEST_F(MasterKeyTest, EveryCallThatFails) {
  int failures = 0;
  for (int call = 0;; ++call) {
    FailingFiles files;
    files.failAt(call, EIO);
    const auto done = change(files);
    expectWhole();
    if (!files.failed()) {
      ASSERT_TRUE(done.ok()) << done.error().text;
      break;
    }
    failures += done.ok() ? 0 : 1;
    ASSERT_TRUE(change().ok()) << "call " << call;
    expectOneNewKey();
    expectWhole();
  }
  EXPECT_GT(failures, 60);
}

TEST_F(MasterKeyTest, EveryInstantAtWhichItIsCutShort) {
  int finished = 0;
  int made = 0;
  for (int call = 0;; ++call) {
    const std::string before = keyText();
    const int left = inChild([&] {
      DyingFiles files(call);
      return change(files).ok() ? 1 : 2;
    });
    if (left == 1) {
      break;
    }
    ASSERT_EQ(0, left) << "call " << call;
    expectWhole();
    const auto again = change();
    ASSERT_TRUE(again.ok()) << "call " << call << ": " << again.error().text;
    (again.value() == KeyChange::finished ? finished : made) += 1;
    EXPECT_NE(before, keyText());
    expectOneNewKey();
    expectWhole();
  }
  expectOldKeyIsOfNoUse();
  EXPECT_GT(finished, 30);
  EXPECT_GT(made, 10);
}

TEST_F(MasterKeyTest, AHalfChangedHomeIsWorkedOn) {
  // The file of the key as it stands between the first step and the last: no table has been sealed anew yet.
  writeText(home() / "master.key", std::string(kOtherKeyText) + kMasterKeyText);
  expectWhole();
  auto store = loadStore(home());
  addColumn("c");
  ASSERT_TRUE(store->save(TableId::column).ok());
  resetTables();
  ASSERT_TRUE(loadStore(home())->reloadChanged().ok());
  EXPECT_EQ(3, g_numberOfEncColumn);
  const auto done = change();
  ASSERT_TRUE(done.ok()) << done.error().text;
  EXPECT_EQ(KeyChange::finished, done.value());
  EXPECT_EQ(kOtherKeyText, keyText());
  expectOldKeyIsOfNoUse();
}

TEST_F(MasterKeyTest, AServerThatRunsNeitherReloadsNorOverwrites) {
  auto server = loadStore(home());
  ASSERT_TRUE(change().ok());
  const std::string after = readText(file("column"));
  EXPECT_FALSE(server->reloadChanged().ok());
  EXPECT_EQ(2, g_numberOfEncColumn) << "what was loaded stays";
  addColumn("c");
  const auto saved = server->save(TableId::column);
  ASSERT_FALSE(saved.ok());
  EXPECT_EQ(Error::Kind::conflict, saved.error().kind);
  EXPECT_EQ(after, readText(file("column")));
  expectWhole();
}

TEST_F(MasterKeyTest, AFileThatCannotBeOpenedStopsItBeforeAnythingChanges) {
  for (const std::string& name : {std::string("user.kz"), std::string("column.kz.bak")}) {
    const std::string bytes = readText(home() / name);
    std::string damaged = bytes;
    damaged.back() = static_cast<char>(damaged.back() ^ 1);
    writeText(home() / name, damaged);
    const std::string policy = readText(file("policy"));
    const auto done = change();
    ASSERT_FALSE(done.ok());
    EXPECT_THAT(done.error().text, testing::AllOf(testing::HasSubstr(name), testing::HasSubstr("kezu-admin verify")));
    EXPECT_EQ(kMasterKeyText, keyText());
    EXPECT_EQ(policy, readText(file("policy")));
    writeText(home() / name, bytes);
  }
  expectWhole();
}

TEST_F(MasterKeyTest, AKeyOnAnotherMediumIsReplacedThere) {
  const fs::path medium = home().parent_path() / "medium";
  fs::create_directory(medium);
  fs::rename(home() / "master.key", medium / "key");
  fs::create_symlink(medium / "key", home() / "master.key");
  ASSERT_TRUE(change().ok());
  EXPECT_TRUE(fs::is_symlink(home() / "master.key"));
  EXPECT_NE(kMasterKeyText, readText(medium / "key"));
  expectWhole();
}

TEST_F(MasterKeyTest, TheFileHoldsOneKeyOrTwo) {
  const std::string one = std::string(kMasterKeyText).substr(0, 64);
  const std::string two = std::string(kOtherKeyText).substr(0, 64);
  const auto read = [&](const std::string& text) {
    writeText(home() / "master.key", text);
    return engine::store::readMasterKeys(engine::store::machineFiles(), home() / "master.key");
  };
  for (const std::string& text : {one + "\n" + two, one + "\n" + two + "\n", one + "\n" + two + "\r\n"}) {
    const auto keys = read(text);
    ASSERT_TRUE(keys.ok()) << keys.error().text;
    EXPECT_EQ(0x00, keys.value().current[0]);
    EXPECT_EQ(0xff, keys.value().previous[0]);
    EXPECT_EQ(32u, keys.value().previous.size());
    const auto written = engine::store::masterKeyText(keys.value());
    EXPECT_EQ(one + "\n" + two + "\n", std::string(written.begin(), written.end()));
  }
  for (const std::string& text :
       {one + two, one + " " + two, one + "\n\n" + two, one + "\n" + two.substr(1), one + "\n" + two + "0",
        one + "\n" + two + "\n" + one, one + "\n" + two.substr(1) + "g", one + "\n" + two + "\n\n\n"}) {
    const auto keys = read(text);
    ASSERT_FALSE(keys.ok()) << text;
    EXPECT_THAT(keys.error().text, testing::Not(testing::HasSubstr(one.substr(2, 20))));
  }
}

}  // namespace
}  // namespace store_test
