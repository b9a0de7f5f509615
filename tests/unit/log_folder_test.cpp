// SPDX-License-Identifier: Apache-2.0
//
// Two writers that find no log folder at the same moment.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <functional>
#include <utility>

#include "log_fixture.h"
#include "logging/line_format.h"
#include "logging/log_writer.h"

namespace {

// Runs once, in front of the next folder that this program makes: what another process does at that moment.
std::function<void()> g_before_next_mkdir;

}  // namespace

// The system's, with a moment for the other process.
extern "C" int mkdir(const char* path, mode_t mode) noexcept {
  if (g_before_next_mkdir) {
    std::exchange(g_before_next_mkdir, nullptr)();
  }
  return static_cast<int>(syscall(SYS_mkdirat, AT_FDCWD, path, mode));
}

namespace {

namespace fs = std::filesystem;

class LogFolderTest : public LogTest {
 protected:
  ~LogFolderTest() override { g_before_next_mkdir = nullptr; }

  static constexpr const char* kDay = "2026-02-28";
};

TEST_F(LogFolderTest, BothLinesOfTwoWritersThatMakeTheFolderAtOnceAreKept) {
  const char* const messages[] = {"n", "other", nullptr};
  logging::LogWriter other;
  bool written = false;
  g_before_next_mkdir = [&] { written = other.append(logging::formatEvent(2, messages)); };
  EXPECT_EQ(log(2, {"n", "own"}), 0);
  EXPECT_TRUE(written) << "no folder was made";
  EXPECT_EQ(contents(file(kDay)),
            "2026-02-28T23:59:58.007+09:00 2 n=\"other\"\n2026-02-28T23:59:58.007+09:00 2 n=\"own\"\n");
}

TEST_F(LogFolderTest, LineIsLostWhereWhatStandsThereIsNoFolder) {
  bool looked = false;
  g_before_next_mkdir = [&] {
    looked = true;
    fs::create_symlink("nowhere", directory());
  };
  EXPECT_NE(log(2, {"n", "1"}), 0);
  EXPECT_TRUE(looked);
  EXPECT_FALSE(fs::exists(directory().parent_path() / "nowhere"));
  fs::remove(directory());
  EXPECT_EQ(log(2, {"n", "2"}), 0);
}

}  // namespace
