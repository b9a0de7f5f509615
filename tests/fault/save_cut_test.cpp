// SPDX-License-Identifier: Apache-2.0
//
// A save of each table, cut off at each of its system calls: by an error of every kind that a disk gives, by a write
// that takes a part only, and by the end of the process.
#include <cerrno>
#include <csignal>
#include <set>

#include "fault/engine_fixture.h"
#include "fault/machine.h"

namespace fault {
namespace {

namespace fs = std::filesystem;
using engine::store::FileSystem;
using engine::store::TableId;
using store_test::readText;

// How a system call is cut off.
struct Cut {
  enum class Kind {
    error,       // this one call fails
    lasting,     // this one and every later one that changes the disk fails
    shortWrite,  // a write takes half of its bytes, as POSIX allows
    kill,        // the process ends before the call
    killAfter,   // and after it; in the middle of a write
  };
  Kind kind;
  int error = 0;
  const char* name;
};

constexpr Cut kCuts[] = {
    {Cut::Kind::error, EIO, "EIO"},
    {Cut::Kind::error, ENOSPC, "ENOSPC"},
    {Cut::Kind::error, EDQUOT, "EDQUOT"},
    {Cut::Kind::error, EROFS, "EROFS"},
    {Cut::Kind::error, EINTR, "EINTR"},
    {Cut::Kind::lasting, ENOSPC, "ENOSPC from then on"},
    {Cut::Kind::lasting, EROFS, "EROFS from then on"},
    {Cut::Kind::shortWrite, 0, "short write"},
    {Cut::Kind::kill, 0, "kill"},
    {Cut::Kind::killAfter, 0, "kill after"},
};

// Cuts call number `at` (from 0) off.
class CutFiles : public FileSystem {
 public:
  void cutAt(int at, const Cut& cut) {
    at_ = at;
    cut_ = cut;
    calls_ = 0;
    reached_ = false;
  }
  void stop() { at_ = -1; }
  // Whether the call to be cut off was made, and which it was.
  bool reached() const { return reached_; }
  const std::string& call() const { return call_; }

  int open(const char* path, int flags, mode_t mode) override {
    return cut("open", (flags & O_CREAT) != 0, [&] { return FileSystem::open(path, flags, mode); });
  }
  int close(int fd) override {
    // A descriptor is given up also when close() fails, so here it closes and then fails.
    const int result = FileSystem::close(fd);
    return cut("close", false, [&] { return result; });
  }
  ssize_t read(int fd, void* buffer, std::size_t size) override {
    return cut("read", false, [&] { return FileSystem::read(fd, buffer, size); });
  }
  ssize_t write(int fd, const void* buffer, std::size_t size) override {
    if (cut_.kind == Cut::Kind::killAfter && calls_ == at_) {
      FileSystem::write(fd, buffer, size / 2);
      raise(SIGKILL);
    }
    const std::size_t taken = cut_.kind == Cut::Kind::shortWrite && calls_ == at_ ? (size + 1) / 2 : size;
    return cut("write", true, [&] { return FileSystem::write(fd, buffer, taken); });
  }
  int fsync(int /*fd*/) override {
    // What reached the disk only a power failure would show: nobody waits for it.
    return cut("fsync", true, [] { return 0; });
  }
  int flock(int fd, int operation) override {
    return cut("flock", false, [&] { return FileSystem::flock(fd, operation); });
  }
  int fstat(int fd, struct stat* out) override {
    return cut("fstat", false, [&] { return FileSystem::fstat(fd, out); });
  }
  int futimens(int fd, const struct timespec* times) override {
    return cut("futimens", true, [&] { return FileSystem::futimens(fd, times); });
  }
  int stat(const char* path, struct stat* out) override {
    return cut("stat", false, [&] { return FileSystem::stat(path, out); });
  }
  int link(const char* from, const char* to) override {
    return cut("link", true, [&] { return FileSystem::link(from, to); });
  }
  int rename(const char* from, const char* to) override {
    return cut("rename", true, [&] { return FileSystem::rename(from, to); });
  }
  int unlink(const char* path) override {
    return cut("unlink", true, [&] { return FileSystem::unlink(path); });
  }

 private:
  template <typename Call>
  auto cut(const char* name, bool changes, const Call& call) -> decltype(call()) {
    const int number = calls_++;
    const bool here = at_ >= 0 && number == at_;
    if (here) {
      reached_ = true;
      call_ = name;
    }
    const bool later = cut_.kind == Cut::Kind::lasting && at_ >= 0 && number > at_ && changes;
    if ((here && (cut_.kind == Cut::Kind::error || cut_.kind == Cut::Kind::lasting)) || later) {
      errno = cut_.error;
      return -1;
    }
    if (here && cut_.kind == Cut::Kind::kill) {
      raise(SIGKILL);
    }
    const auto result = call();
    if (here && cut_.kind == Cut::Kind::killAfter) {
      raise(SIGKILL);
    }
    return result;
  }

  int at_ = -1;
  Cut cut_ = {Cut::Kind::error, 0, ""};
  int calls_ = 0;
  bool reached_ = false;
  std::string call_;
};

// A table, its save operation with what it returns for a failure, and a change of it by number.
struct SavedTable {
  TableId id;
  const char* name;
  int (*save)();
  int failure;
  void (*change)(int number);
};

void PrintTo(const SavedTable& table, std::ostream* out) {
  *out << table.name;
}

const SavedTable kTables[] = {
    {TableId::policy, "policy", Q7_SavePolicyInfo, -1, [](int number) { g_logInfo.denyLog = number; }},
    {TableId::column, "column", Q7_SaveColumnInfo, -1,
     [](int number) { store_test::setText(g_encColumnInfoArray[0].column, "c" + std::to_string(number)); }},
    {TableId::access, "access", Q7_SaveAccessPrivInfo, -1,
     [](int number) { store_test::setText(g_accessPrivArray[0].ip, "10.0.0." + std::to_string(number)); }},
    {TableId::privilege, "privilege", Q7_SaveEncPrivInfo, -1,
     [](int number) { store_test::setText(g_encPrivArray[0].user, "u" + std::to_string(number)); }},
    {TableId::queryPriv, "querypriv", Q7_SaveQueryPrivInfo, 1, [](int number) { g_doubleEncryptMode = number; }},
    {TableId::tableInfo, "tableinfo", Q7_SaveTableInfo, -1,
     [](int number) { store_test::setText(g_tableInfo[0].demigrationCmd, "command " + std::to_string(number)); }},
    {TableId::user, "user", Q7_SaveUserInfo, -1,
     [](int number) { store_test::setText(g_userInfo[0].passwd, "value " + std::to_string(number)); }},
};

class SaveCutTest : public store_test::StoreTest, public ::testing::WithParamInterface<SavedTable> {
 protected:
  const SavedTable& table() const { return GetParam(); }
  fs::path path() const { return file(table().name); }

  // Starts the engine on a home whose tables have a record each, saved twice: there is a .bak.
  void startFilled() {
    startWithSession(home());
    addPolicyWithKey("p", 1, 5, 9);
    store_test::addColumn("c");
    g_numberOfAccessPriv = 1;
    g_numberOfEncPriv = 1;
    g_numberOftableInfo = 1;
    for (const SavedTable& other : kTables) {
      other.change(0);
      EXPECT_EQ(0, other.save()) << other.name;
      EXPECT_EQ(0, other.save()) << other.name;
    }
  }

  // The table as its file, or the file's .bak, holds it: whole, or a failure of the test.
  cipher::SecretBytes stored(const std::string& suffix = "") const {
    const auto store = store_test::openStore(home());
    const auto image = engine::store::openTableFile(store->files(), path().string() + suffix,
                                                    engine::store::tableOf(table().id), store->keys(table().id));
    EXPECT_TRUE(image.ok()) << image.error().text;
    EXPECT_TRUE(!image.ok() || engine::store::tableOf(table().id).check(image.value().payload).ok());
    return image.ok() ? image.value().payload : cipher::SecretBytes();
  }

  cipher::SecretBytes inMemory() const { return engine::store::tableOf(table().id).capture(); }

  std::string temporaryFiles() const {
    std::string names;
    for (const auto& entry : fs::directory_iterator(home())) {
      const std::string name = entry.path().filename();
      names += name.ends_with(".tmp") ? name + " " : "";
    }
    return names;
  }

  // Checks the home behind a save that was cut off. `before` is what the file held, `after` what the save was to write.
  void expectOldOrNew(const cipher::SecretBytes& before, const cipher::SecretBytes& after) const {
    const cipher::SecretBytes now = stored();
    EXPECT_TRUE(now == before || now == after);
    EXPECT_FALSE(stored(".bak").empty());
  }

  // Saves number `number` of the table with the cut at call `at`. False when the save has no such call.
  bool saveCutAt(CutFiles& files, int at, const Cut& cut, int number) {
    SCOPED_TRACE(std::string(cut.name) + " at call " + std::to_string(at));
    const cipher::SecretBytes before = stored();
    table().change(number);
    const cipher::SecretBytes changed = inMemory();
    files.cutAt(at, cut);
    const int code = table().save();
    files.stop();
    EXPECT_TRUE(inMemory() == changed) << "the change stays in memory, saved or not";
    if (!files.reached()) {
      EXPECT_EQ(0, code);
      return false;
    }
    SCOPED_TRACE(files.call());
    expectOldOrNew(before, changed);
    if (code == 0) {
      EXPECT_TRUE(changed == stored()) << "what was reported as saved is in the file";
      succeeded_.insert(files.call());
    } else {
      EXPECT_EQ(table().failure, code);
      failed_.insert(files.call());
    }
    // The next save, without a fault, writes the change and leaves nothing behind.
    EXPECT_EQ(0, table().save());
    EXPECT_TRUE(changed == stored());
    EXPECT_EQ("", temporaryFiles());
    return true;
  }

  // The same where the process does not live to return.
  bool saveKilledAt(CutFiles& files, int at, const Cut& cut, int number) {
    SCOPED_TRACE(std::string(cut.name) + " at call " + std::to_string(at));
    const cipher::SecretBytes before = stored();
    table().change(number);
    const pid_t child = fork();
    if (child == 0) {
      files.cutAt(at, cut);
      _exit(table().save() == 0 ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFEXITED(status)) {
      EXPECT_EQ(0, WEXITSTATUS(status));
    }
    expectOldOrNew(before, inMemory());
    // As after a restart: what is there is loaded, and the next save leaves nothing behind.
    EXPECT_EQ(0, store_test::inChild([&] { return store_test::openStore(home())->loadAll().ok() ? 0 : 1; }));
    EXPECT_EQ(0, Q7_ReloadAllInfoIfChanged());
    table().change(number);
    EXPECT_EQ(0, table().save());
    EXPECT_TRUE(inMemory() == stored());
    EXPECT_EQ("", temporaryFiles());
    return WIFSIGNALED(status);
  }

  // Which calls' failures a save reports, and which it does without. Closing what is synced already, and the removal of
  // a name that the next save removes as well, can fail without a loss. After an interruption (EINTR) a call is made
  // again where the system interrupts it; the others never return that, and would be failures like any other.
  void expectOutcomes(const Cut& cut) const {
    const std::set<std::string> harmless = {"close"};
    const std::set<std::string> madeAgain = {"open", "write", "fsync", "flock", "close"};
    if (cut.kind == Cut::Kind::error) {
      const auto& fine = cut.error == EINTR ? madeAgain : harmless;
      for (const std::string& call : fine) {
        EXPECT_EQ(0u, failed_.count(call)) << cut.name << ": " << call;
      }
      for (const char* call : {"open", "write", "fsync", "flock", "link", "rename"}) {
        EXPECT_TRUE(fine.count(call) != 0 || succeeded_.count(call) == 0) << cut.name << ": " << call;
      }
    }
    if (cut.kind == Cut::Kind::shortWrite) {
      EXPECT_EQ(0u, failed_.size());
    }
  }

  std::set<std::string> succeeded_;  // calls whose cut a save survived
  std::set<std::string> failed_;     // and those that it failed with
};

TEST_P(SaveCutTest, LeavesTheOldTableOrTheNewOneWhole) {
  EXPECT_EQ(0, store_test::inChild([&] {
              CutFiles files;
              const InPlaceOfMachine place(files);
              startFilled();
              int number = 0;
              for (const Cut& cut : kCuts) {
                succeeded_.clear();
                failed_.clear();
                const bool kill = cut.kind == Cut::Kind::kill || cut.kind == Cut::Kind::killAfter;
                int at = 0;
                for (; kill ? saveKilledAt(files, at, cut, ++number) : saveCutAt(files, at, cut, ++number); ++at) {
                  if (::testing::Test::HasFailure()) {
                    return 1;
                  }
                }
                EXPECT_GE(at, 20) << cut.name;
                expectOutcomes(cut);
              }
              return 0;
            }));
}

INSTANTIATE_TEST_SUITE_P(Tables, SaveCutTest, ::testing::ValuesIn(kTables),
                         [](const auto& table) { return std::string(table.param.name); });

}  // namespace
}  // namespace fault
