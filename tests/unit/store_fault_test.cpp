// SPDX-License-Identifier: Apache-2.0
//
// The system calls of a save and of a reload: their order, and what happens when each of them fails.
#include <gmock/gmock.h>
#include <sys/file.h>

#include <cerrno>
#include <map>
#include <vector>

#include "unit/failing_files.h"
#include "unit/store_fixture.h"

namespace store_test {
namespace {

// Notes the calls that make a save durable, with the names of the files.
class NotingFiles : public engine::store::FileSystem {
 public:
  int open(const char* path, int flags, mode_t mode) override {
    const int fd = FileSystem::open(path, flags, mode);
    names_[fd] = nameOf(path);
    return fd;
  }
  int close(int fd) override {
    if (names_[fd] == ".lock") {
      calls.push_back("unlock");
    }
    return FileSystem::close(fd);
  }
  ssize_t write(int fd, const void* buffer, std::size_t size) override {
    calls.push_back("write " + names_[fd]);
    return FileSystem::write(fd, buffer, size);
  }
  int fsync(int fd) override {
    calls.push_back("sync " + names_[fd]);
    return FileSystem::fsync(fd);
  }
  int flock(int fd, int operation) override {
    calls.push_back("lock " + names_[fd]);
    return FileSystem::flock(fd, operation);
  }
  int link(const char* from, const char* to) override {
    calls.push_back("link " + nameOf(from) + " " + nameOf(to));
    return FileSystem::link(from, to);
  }
  int rename(const char* from, const char* to) override {
    calls.push_back("rename " + nameOf(from) + " " + nameOf(to));
    return FileSystem::rename(from, to);
  }

  std::vector<std::string> calls;

 private:
  static std::string nameOf(const char* path) { return fs::path(path).filename(); }

  std::map<int, std::string> names_;
};

class StoreFaultTest : public StoreTest {};

// What a power failure leaves can't be tried here; the order of the calls is what the promise rests on.
TEST_F(StoreFaultTest, ASaveSyncsTheNewFileBeforeTheRenamesAndTheDirectoryAfterThem) {
  NotingFiles files;
  auto store = loadStore(home(), files);
  addColumn("c");
  files.calls.clear();
  ASSERT_TRUE(store->save(TableId::column).ok());
  EXPECT_THAT(files.calls,
              testing::ElementsAre("lock .lock", "write column.kz.tmp", "sync column.kz.tmp",
                                   "link column.kz column.kz.bak.tmp", "rename column.kz.bak.tmp column.kz.bak",
                                   "rename column.kz.tmp column.kz", "sync home", "unlock"));
}

TEST_F(StoreFaultTest, EveryCallOfASave) {
  FailingFiles files;
  auto store = loadStore(home(), files);
  addColumn("zero");
  ASSERT_TRUE(store->save(TableId::column).ok());
  int failures = 0;
  for (int call = 0;; ++call) {
    const std::string before = readText(file("column"));
    const std::string checkBefore = g_last_column_KezuFileChkStr;
    setText(g_encColumnInfoArray[0].column, "c" + std::to_string(call));
    files.failAt(call, ENOSPC);
    const auto status = store->save(TableId::column);
    const bool failed = files.failed();
    files.failAt(-1, 0);
    if (!failed) {
      EXPECT_TRUE(status.ok());
      break;
    }
    const bool replaced = readText(file("column")) != before;
    if (!status.ok()) {
      ++failures;
      EXPECT_NE(std::string::npos, status.error().text.find("No space left on device")) << status.error().text;
      // Only the sync of the directory comes after the file was replaced.
      EXPECT_TRUE(!replaced || status.error().text.find("home: cannot be synced") != std::string::npos)
          << status.error().text;
    }
    EXPECT_EQ(replaced, checkBefore != g_last_column_KezuFileChkStr) << "the check string is that of the file";
    EXPECT_EQ("c" + std::to_string(call), g_encColumnInfoArray[0].column) << "the change stays in memory";
    EXPECT_TRUE(fs::exists(file("column").string() + ".bak"));
    // The home opens, and the next save succeeds.
    ASSERT_TRUE(inChild([&] { return openStore(home())->loadAll().ok() ? 0 : 1; }) == 0);
    const auto again = store->save(TableId::column);
    ASSERT_TRUE(again.ok()) << call << ": " << again.error().text;
  }
  EXPECT_GE(failures, 10);
}

TEST_F(StoreFaultTest, EveryCallOfALoad) {
  FailingFiles files;
  auto store = loadStore(home(), files);
  addColumn("c");
  int failures = 0;
  for (int call = 0;; ++call) {
    files.failAt(call, EIO);
    const auto status = store->loadAll();
    if (!files.failed()) {
      EXPECT_TRUE(status.ok());
      break;
    }
    ++failures;
    ASSERT_FALSE(status.ok());
    EXPECT_NE(std::string::npos, status.error().text.find("Input/output error")) << status.error().text;
    EXPECT_NE(std::string::npos, status.error().text.find(".kz")) << status.error().text;
    EXPECT_EQ(1, g_numberOfEncColumn) << "nothing was replaced";
  }
  EXPECT_GE(failures, 7 * 3);
  EXPECT_EQ(0, g_numberOfEncColumn);
}

TEST_F(StoreFaultTest, ACallThatIsInterruptedIsMadeAgain) {
  FailingFiles files;
  auto store = loadStore(home(), files);
  addColumn("c");
  int writes = 0;
  for (int call = 0; call < 40; ++call) {
    files.failAt(call, EINTR);
    const auto status = store->save(TableId::column);
    if (!status.ok()) {
      // Calls that the system does not interrupt here may fail; reads, writes and the lock may not.
      EXPECT_EQ(std::string::npos, status.error().text.find("cannot be written: Interrupted")) << status.error().text;
      EXPECT_EQ(std::string::npos, status.error().text.find("lock: cannot be locked")) << status.error().text;
    } else {
      ++writes;
    }
    files.failAt(-1, 0);
  }
  EXPECT_GE(writes, 20);
  resetTables();
  loadStore(home());
  EXPECT_EQ(1, g_numberOfEncColumn);
}

// Puts another file in the lock's place between its opening and its locking, once.
class LockReplacingFiles : public engine::store::FileSystem {
 public:
  explicit LockReplacingFiles(fs::path lock) : lock_(std::move(lock)) {}
  int flock(int fd, int operation) override {
    if (!replaced_) {
      replaced_ = true;
      fs::remove(lock_);
      writeText(lock_, "");
    }
    return FileSystem::flock(fd, operation);
  }

 private:
  fs::path lock_;
  bool replaced_ = false;
};

TEST_F(StoreFaultTest, ALockOnAFileThatWasReplacedIsNotTakenForOne) {
  const std::string path = home() / ".lock";
  LockReplacingFiles files(path);
  const auto lock = engine::store::FileLock::acquire(files, path);
  ASSERT_TRUE(lock.ok());
  const int other = open(path.c_str(), O_RDWR | O_CLOEXEC);
  EXPECT_EQ(-1, flock(other, LOCK_EX | LOCK_NB)) << "two at once hold the lock";
  close(other);
}

TEST_F(StoreFaultTest, ALockIsGivenBackWithItsDescriptor) {
  const std::string path = home() / ".lock";
  const auto free = [] {
    const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(fd);
    return fd;
  };
  const int before = free();
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(engine::store::FileLock::acquire(engine::store::machineFiles(), path).ok()) << i;
    EXPECT_EQ(before, free());
  }
}

TEST_F(StoreFaultTest, AHangingHolderOfTheLockDoesNotHangASave) {
  auto store = loadStore(home());
  auto lock = engine::store::FileLock::acquire(engine::store::machineFiles(), home() / ".lock");
  ASSERT_TRUE(lock.ok());
  addColumn("c");
  const auto status = store->save(TableId::column);
  ASSERT_FALSE(status.ok());
  EXPECT_NE(std::string::npos, status.error().text.find("another process holds the lock")) << status.error().text;
}

}  // namespace
}  // namespace store_test
