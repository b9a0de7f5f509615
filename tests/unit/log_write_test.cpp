// SPDX-License-Identifier: Apache-2.0
//
// Writing the audit log: where lines go, and what becomes of them when the file is not as it was.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <map>
#include <sstream>
#include <thread>

#include "log_fixture.h"

namespace {

namespace fs = std::filesystem;

using testing::HasSubstr;

class LogWriteTest : public LogTest {
 protected:
  static constexpr const char* kDay = "2026-02-28";
  static constexpr const char* kNextDay = "2026-03-01";

  static constexpr const char* kFirst = "2026-02-28T23:59:58.007+09:00 2 n=\"1\"\n";
  static constexpr const char* kSecond = "2026-02-28T23:59:58.007+09:00 2 n=\"2\"\n";
  static constexpr const char* kThird = "2026-02-28T23:59:58.007+09:00 2 n=\"3\"\n";

  static mode_t modeOf(const fs::path& path) {
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_mode & 07777U;
  }

  static std::vector<std::string> linesOf(const fs::path& path) {
    std::istringstream in(contents(path));
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
      lines.push_back(line);
    }
    return lines;
  }

  // The number of write calls that this process has made.
  static long writeCalls() {
    std::ifstream in("/proc/self/io");
    for (std::string name; in >> name;) {
      long value = 0;
      in >> value;
      if (name == "syscw:") {
        return value;
      }
    }
    return -1;
  }
};

TEST_F(LogWriteTest, WritesTimeLevelAndPairsInOrder) {
  EXPECT_EQ(log(2, {"group", "policy", "desc", "SET ENV ACCESS DENY PRIOR"}), 0);
  EXPECT_EQ(log(4, {"group", "status", "SET", "user admin", "result", "success"}), 0);
  EXPECT_EQ(contents(file(kDay)),
            "2026-02-28T23:59:58.007+09:00 2 group=\"policy\" desc=\"SET ENV ACCESS DENY PRIOR\"\n"
            "2026-02-28T23:59:58.007+09:00 4 group=\"status\" SET=\"user admin\" result=\"success\"\n");
}

TEST_F(LogWriteTest, WritesTheZoneWestOfGreenwichWithItsMinutes) {
  setZone("<-0330>3:30");
  EXPECT_EQ(log(3, {}), 0);
  setZone("UTC0");
  EXPECT_EQ(log(3, {}), 0);
  EXPECT_EQ(contents(file(kDay)), "2026-02-28T11:29:58.007-03:30 3\n2026-02-28T14:59:58.007+00:00 3\n");
}

TEST_F(LogWriteTest, MakesFolderAndFileForTheServersUserOnly) {
  EXPECT_FALSE(fs::exists(directory()));
  const mode_t mask = umask(0);
  EXPECT_EQ(log(2, {"n", "1"}), 0);
  umask(mask);
  EXPECT_EQ(modeOf(directory()), 0700U);
  EXPECT_EQ(modeOf(file(kDay)), 0600U);
}

TEST_F(LogWriteTest, WritesALineWithOneCall) {
  const std::string text(60000, 'x');
  long fewest = LONG_MAX;
  for (int i = 0; i < 3; ++i) {  // a sanitizer adds calls of its own to the first
    const long before = writeCalls();
    ASSERT_GE(before, 0);
    ASSERT_EQ(log(2, {"n", text.c_str()}), 0);
    fewest = std::min(fewest, writeCalls() - before);
  }
  EXPECT_EQ(fewest, 1);
}

TEST_F(LogWriteTest, CategoriesThatAreNoneHaveNoHandle) {
  EXPECT_EQ(lw_get_category(logwCategory() + 1), nullptr);
  EXPECT_EQ(lw_get_category(-1), nullptr);
  EXPECT_EQ(lw_get_category(logwCategory()), lw_get_category(logwCategory()));
}

TEST_F(LogWriteTest, RefusesNullArguments) {
  const char* const none[] = {nullptr};
  EXPECT_NE(lw_log(nullptr, 2, none), 0);
  EXPECT_NE(lw_log(lw_get_category(logwCategory()), 2, nullptr), 0);
  EXPECT_FALSE(fs::exists(directory()));
}

TEST_F(LogWriteTest, LosesLinesWhileNoFolderIsSet) {
  logging::setLogDirectory("");
  EXPECT_NE(log(2, {"n", "1"}), 0);
  logging::setLogDirectory(directory());
  EXPECT_EQ(log(2, {"n", "2"}), 0);
  EXPECT_EQ(contents(file(kDay)), kSecond);
}

TEST_F(LogWriteTest, DoesNotMakeMoreThanTheLastFolder) {
  logging::setLogDirectory(directory() / "deeper");
  EXPECT_NE(log(2, {"n", "1"}), 0);
  EXPECT_FALSE(fs::exists(directory()));
}

TEST_F(LogWriteTest, FollowsAFolderThatIsSetAnew) {
  EXPECT_EQ(log(2, {"n", "1"}), 0);
  const fs::path other = directory().parent_path() / "other";
  logging::setLogDirectory(other);
  EXPECT_EQ(log(2, {"n", "2"}), 0);
  EXPECT_EQ(contents(file(kDay)), kFirst);
  EXPECT_EQ(contents(other / "audit-2026-02-28.log"), kSecond);
}

TEST_F(LogWriteTest, BeginsAFileAtMidnight) {
  setTime({kStart.tv_sec + 1, 999'999'999});
  EXPECT_EQ(log(2, {"n", "1"}), 0);
  setTime({kStart.tv_sec + 2, 0});
  EXPECT_EQ(log(2, {"n", "2"}), 0);
  EXPECT_EQ(contents(file(kDay)), "2026-02-28T23:59:59.999+09:00 2 n=\"1\"\n");
  EXPECT_EQ(contents(file(kNextDay)), "2026-03-01T00:00:00.000+09:00 2 n=\"2\"\n");
}

TEST_F(LogWriteTest, GoesBackToAnEarlierDayWhenTheClockDoes) {
  setTime({kStart.tv_sec + 2, 0});
  EXPECT_EQ(log(2, {"n", "1"}), 0);
  setTime(kStart);
  EXPECT_EQ(log(2, {"n", "2"}), 0);
  EXPECT_EQ(contents(file(kDay)), kSecond);
}

TEST_F(LogWriteTest, LosesALineWhoseYearHasMoreThanFourDigits) {
  setTime({9'000'000'000, 0});  // the year 2255
  EXPECT_EQ(log(2, {"n", "1"}), 0);
  logging::setClock([]() noexcept { return timespec{253'402'300'800, 0}; });  // 10000-01-01T00:00:00Z
  EXPECT_NE(log(2, {"n", "2"}), 0);
  EXPECT_EQ(std::distance(fs::directory_iterator(directory()), {}), 1);
}

TEST_F(LogWriteTest, OpensTheFileAnewWhenItWasRemoved) {
  EXPECT_EQ(log(2, {"n", "1"}), 0);
  fs::remove(file(kDay));
  EXPECT_EQ(log(2, {"n", "2"}), 0);
  EXPECT_EQ(contents(file(kDay)), kSecond);
  fs::remove_all(directory());
  EXPECT_EQ(log(2, {"n", "3"}), 0);
  EXPECT_EQ(contents(file(kDay)), kThird);
}

TEST_F(LogWriteTest, OpensTheFileAnewWhenItWasRenamedOrReplaced) {
  EXPECT_EQ(log(2, {"n", "1"}), 0);
  fs::rename(file(kDay), directory() / "rotated");
  EXPECT_EQ(log(2, {"n", "2"}), 0);
  EXPECT_EQ(contents(directory() / "rotated"), kFirst);
  EXPECT_EQ(contents(file(kDay)), kSecond);
  fs::rename(directory() / "rotated", file(kDay));
  EXPECT_EQ(log(2, {"n", "3"}), 0);
  EXPECT_EQ(contents(file(kDay)), std::string(kFirst) + kThird);
}

TEST_F(LogWriteTest, AppendsToWhatIsThere) {
  put(kDay, "earlier\n");
  EXPECT_EQ(log(2, {"n", "1"}), 0);
  EXPECT_EQ(contents(file(kDay)), std::string("earlier\n") + kFirst);
}

TEST_F(LogWriteTest, EndsAPieceOfALineThatWasLeftBehind) {
  put(kDay, "2026-02-28T20:00");
  EXPECT_EQ(log(2, {"n", "1"}), 0);
  put(kDay, "torn", std::ios::app);
  EXPECT_EQ(log(2, {"n", "2"}), 0);
  EXPECT_EQ(contents(file(kDay)), std::string("2026-02-28T20:00\n") + kFirst + "torn\n" + kSecond);
}

TEST_F(LogWriteTest, ALineThatIsCutByTheSystemDoesNotSpoilTheNext) {
  ASSERT_EQ(log(2, {"n", "1"}), 0);
  rlimit before = {};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  auto* handler = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit cut = {contents(file(kDay)).size() + 12, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &cut), 0);
  const int written = log(2, {"n", "2"});
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
  std::signal(SIGXFSZ, handler);
  EXPECT_NE(written, 0);
  EXPECT_EQ(log(2, {"n", "3"}), 0);
  EXPECT_EQ(contents(file(kDay)), std::string(kFirst) + "2026-02-28T2\n" + kThird);
}

TEST_F(LogWriteTest, DoesNotWaitForAProcessThatKeepsTheFileLocked) {
  ASSERT_EQ(log(2, {"n", "1"}), 0);
  const int other = open(file(kDay).c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(other, 0);
  ASSERT_EQ(flock(other, LOCK_EX), 0);
  EXPECT_EQ(log(2, {"n", "2"}), 0);
  close(other);
  EXPECT_EQ(contents(file(kDay)), std::string(kFirst) + kSecond);
}

TEST_F(LogWriteTest, WritesThroughNoLinkAndWaitsForNoPipe) {
  put("other", "untouched\n");
  fs::create_symlink(file("other"), file(kDay));
  EXPECT_NE(log(2, {"n", "1"}), 0);
  EXPECT_EQ(contents(file("other")), "untouched\n");
  fs::remove(file(kDay));
  ASSERT_EQ(mkfifo(file(kDay).c_str(), 0600), 0);
  EXPECT_NE(log(2, {"n", "1"}), 0);
  fs::remove(file(kDay));
  fs::create_directory(file(kDay));
  EXPECT_NE(log(2, {"n", "1"}), 0);
  fs::remove(file(kDay));
  EXPECT_EQ(log(2, {"n", "2"}), 0);
  EXPECT_EQ(contents(file(kDay)), kSecond);
}

TEST_F(LogWriteTest, ForgedLinesStayInsideTheirValue) {
  const std::string forged =
      "x\"\n2026-02-28T23:59:59.000+09:00 2 group=\"status\" desc=\"Brisolvane login successful\"\r\n";
  EXPECT_EQ(log(4, {"group", "status", "desc", forged.c_str()}), 0);
  EXPECT_EQ(contents(file(kDay)),
            "2026-02-28T23:59:58.007+09:00 4 group=\"status\" desc=\"x\\\"\\n2026-02-28T23:59:59.000+09:00 2 "
            "group=\\\"status\\\" desc=\\\"Brisolvane login successful\\\"\\r\\n\"\n");
}

TEST_F(LogWriteTest, LinesOfManyThreadsStayWholeAndInTheOrderOfTheirTimes) {
  logging::setClock(nullptr);
  constexpr int kThreads = 8;
  constexpr int kLines = 300;
  std::atomic<int> failures = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &failures] {
      const std::string text(static_cast<std::size_t>(100 + 700 * t), static_cast<char>('a' + t));
      for (int i = 0; i < kLines; ++i) {
        failures += log(2, {"text", text.c_str(), "n", std::to_string(i).c_str()}) != 0 ? 1 : 0;
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(failures, 0);

  std::map<char, int> next;
  std::string lastTime;
  std::vector<fs::path> files(fs::directory_iterator(directory()), {});
  std::sort(files.begin(), files.end());  // two when midnight passes
  for (const auto& path : files) {
    for (const std::string& line : linesOf(path)) {
      ASSERT_GT(line.size(), 40U);
      const char letter = line[38];
      const std::size_t size = static_cast<std::size_t>(100 + 700 * (letter - 'a'));
      EXPECT_EQ(line.substr(29),
                " 2 text=\"" + std::string(size, letter) + "\" n=\"" + std::to_string(next[letter]++) + "\"");
      EXPECT_LE(lastTime, line.substr(0, 23));
      lastTime = line.substr(0, 23);
    }
  }
  ASSERT_EQ(next.size(), static_cast<std::size_t>(kThreads));
  for (const auto& [letter, count] : next) {
    EXPECT_EQ(count, kLines) << letter;
  }
}

TEST_F(LogWriteTest, LinesOfSeveralProcessesStayWhole) {
  constexpr int kProcesses = 4;
  constexpr int kLines = 300;
  std::vector<pid_t> children;
  for (int p = 0; p < kProcesses; ++p) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      int failures = 0;
      const std::string text(3000, static_cast<char>('a' + p));
      for (int i = 0; i < kLines; ++i) {
        failures += log(2, {"text", text.c_str()}) != 0 ? 1 : 0;
      }
      _exit(failures == 0 ? 0 : 1);
    }
    children.push_back(child);
  }
  for (const pid_t child : children) {
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  std::map<std::string, int> counts;
  for (const std::string& line : linesOf(file(kDay))) {
    ++counts[line];
  }
  ASSERT_EQ(counts.size(), static_cast<std::size_t>(kProcesses));
  for (const auto& [line, count] : counts) {
    EXPECT_EQ(line, "2026-02-28T23:59:58.007+09:00 2 text=\"" + std::string(3000, line[38]) + "\"");
    EXPECT_EQ(count, kLines);
  }
}

TEST_F(LogWriteTest, ProgramsThatTheServerStartsDoNotInheritTheFile) {
  ASSERT_EQ(log(2, {"n", "1"}), 0);
  int found = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code closed;
    if (fs::read_symlink(entry.path(), closed) == file(kDay)) {
      ++found;
      EXPECT_NE(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC, 0);
    }
  }
  EXPECT_EQ(found, 1);
}

}  // namespace
