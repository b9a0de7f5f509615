// SPDX-License-Identifier: Apache-2.0
//
// Reading the audit log back by line number.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <fstream>
#include <thread>

#include "log_fixture.h"

namespace {

namespace fs = std::filesystem;

class LogReadTest : public LogTest {
 protected:
  static constexpr const char* kDay = "2026-02-28";

  static std::uint64_t count(const std::string& date = kDay) { return audit().getNumTotalLines(date); }
  static std::string lineAt(unsigned int number, const std::string& date = kDay) {
    return audit().getLog(date, number);
  }

  // "line <i>\n" for the numbers from `first` up to, not including, `last`.
  static std::string numbered(unsigned int first, unsigned int last) {
    std::string text;
    for (unsigned int i = first; i < last; ++i) {
      text += "line " + std::to_string(i) + "\n";
    }
    return text;
  }
};

TEST_F(LogReadTest, ReadsBackWhatWasWritten) {
  ASSERT_EQ(log(2, {"group", "policy", "desc", "a\"b"}), 0);
  ASSERT_EQ(log(4, {"group", "status"}), 0);
  EXPECT_EQ(count(), 2U);
  EXPECT_EQ(lineAt(0), "2026-02-28T23:59:58.007+09:00 2 group=\"policy\" desc=\"a\\\"b\"");
  EXPECT_EQ(lineAt(1), "2026-02-28T23:59:58.007+09:00 4 group=\"status\"");
  EXPECT_EQ(lineAt(2), "");
  EXPECT_EQ(count("2026-03-01"), 0U);
  EXPECT_EQ(lineAt(0, "2026-03-01"), "");
}

TEST_F(LogReadTest, OnlyLinesThatAreEndedCount) {
  put(kDay, "");
  EXPECT_EQ(count(), 0U);
  EXPECT_EQ(lineAt(0), "");
  put(kDay, "begun", std::ios::app);
  EXPECT_EQ(count(), 0U);
  EXPECT_EQ(lineAt(0), "");
  put(kDay, " and ended\n\nthird\n", std::ios::app);
  EXPECT_EQ(count(), 3U);
  EXPECT_EQ(lineAt(0), "begun and ended");
  EXPECT_EQ(lineAt(1), "");
  EXPECT_EQ(lineAt(2), "third");
}

TEST_F(LogReadTest, FindsEveryLineAroundTheStridesOfItsIndex) {
  for (const unsigned int lines : {255U, 256U, 257U, 1000U}) {
    put(kDay, numbered(0, lines));
    EXPECT_EQ(count(), lines);
    for (unsigned int i = 0; i < lines; ++i) {
      ASSERT_EQ(lineAt(i), "line " + std::to_string(i)) << lines;
    }
    EXPECT_EQ(lineAt(lines), "");
    EXPECT_EQ(lineAt(UINT_MAX), "");
  }
}

TEST_F(LogReadTest, SeesWhatIsAppended) {
  for (unsigned int lines = 0; lines < 600; lines += 3) {
    put(kDay, numbered(lines, lines + 3), std::ios::app);
    ASSERT_EQ(count(), lines + 3);
    ASSERT_EQ(lineAt(lines + 2), "line " + std::to_string(lines + 2));
    ASSERT_EQ(lineAt(lines / 2), "line " + std::to_string(lines / 2));
  }
}

TEST_F(LogReadTest, LinesLongerThanWhatIsReadAtOnceAreFound) {
  std::string text;
  for (char letter = 'a'; letter <= 'z'; ++letter) {
    text += std::string(static_cast<std::size_t>(16380 + (letter - 'a')), letter) + "\n";
  }
  put(kDay, text);
  EXPECT_EQ(count(), 26U);
  for (char letter = 'a'; letter <= 'z'; ++letter) {
    EXPECT_EQ(lineAt(static_cast<unsigned int>(letter - 'a')),
              std::string(static_cast<std::size_t>(16380 + (letter - 'a')), letter));
  }
}

TEST_F(LogReadTest, NoticesAFileThatWasCut) {
  put(kDay, numbered(0, 500));
  ASSERT_EQ(count(), 500U);
  fs::resize_file(file(kDay), numbered(0, 300).size());
  EXPECT_EQ(count(), 300U);
  EXPECT_EQ(lineAt(299), "line 299");
  EXPECT_EQ(lineAt(300), "");
  fs::resize_file(file(kDay), 0);
  EXPECT_EQ(count(), 0U);
  EXPECT_EQ(lineAt(0), "");
}

TEST_F(LogReadTest, NoticesAFileThatWasCutAndGrewAgain) {
  put(kDay, numbered(0, 500));
  ASSERT_EQ(count(), 500U);
  put(kDay, numbered(1000, 1700));  // the same file: it is cut and written from its start
  EXPECT_EQ(count(), 700U);
  EXPECT_EQ(lineAt(0), "line 1000");
  EXPECT_EQ(lineAt(699), "line 1699");
}

TEST_F(LogReadTest, NoticesAFileThatWasReplacedOrRemoved) {
  put(kDay, numbered(0, 500));
  ASSERT_EQ(count(), 500U);
  put("other", numbered(2000, 2600));
  fs::rename(file("other"), file(kDay));
  EXPECT_EQ(count(), 600U);
  EXPECT_EQ(lineAt(0), "line 2000");
  fs::remove(file(kDay));
  EXPECT_EQ(count(), 0U);
  EXPECT_EQ(lineAt(0), "");
  put(kDay, numbered(3000, 3003));
  EXPECT_EQ(count(), 3U);
  EXPECT_EQ(lineAt(2), "line 3002");
}

TEST_F(LogReadTest, DatesOfAnotherFormHaveAnEmptyLogAndNeverBecomeAPath) {
  for (const std::string& date : {std::string(), std::string("x"), std::string("2026-2-28"), std::string("2026-02-281"),
                                  std::string("2026/02/28"), std::string("2026-02-2x"), std::string("+026-02-28"),
                                  std::string("2026-02-28\0", 11), std::string("2026-02-2\0", 10),
                                  std::string("2026-02-28\n"), std::string(" 2026-02-28"), std::string("2026_02_28"),
                                  std::string("20260228--"), std::string("\xD9\xA2\xD9\xA0\xD9\xA2\xD9\xA6-1")}) {
    fs::create_directory(directory());
    if (date.find_first_of(std::string("\0/\n", 3)) == std::string::npos) {
      put(date, "must not be read\n");
    }
    put(kDay, "must not be read\n");
    EXPECT_EQ(count(date), 0U) << date;
    EXPECT_EQ(lineAt(0, date), "") << date;
  }
  fs::create_directory(directory() / "audit-");
  std::ofstream(directory() / "secret.log") << "must not be read\n";
  EXPECT_EQ(count("/../secret"), 0U);
  EXPECT_EQ(lineAt(0, "/../secret"), "");
}

TEST_F(LogReadTest, TypesThatAreNotKnownHaveAnEmptyLog) {
  put(kDay, "line\n");
  for (const int type : {-1, 1, 2, INT_MIN, INT_MAX}) {
    Log* log = LogFactory::getLogFactory()->getLog(type);
    ASSERT_NE(log, nullptr);
    EXPECT_EQ(log->getNumTotalLines(kDay), 0U);
    EXPECT_STREQ(log->getLog(kDay, 0), "");
  }
  EXPECT_EQ(LogFactory::getLogFactory()->getLog(0), LogFactory::getLogFactory()->getLog(0));
  EXPECT_EQ(count(), 1U);
}

TEST_F(LogReadTest, WithoutAFolderTheLogIsEmpty) {
  put(kDay, "line\n");
  logging::setLogDirectory("");
  EXPECT_EQ(count(), 0U);
  EXPECT_EQ(lineAt(0), "");
  logging::setLogDirectory(directory());
  EXPECT_EQ(count(), 1U);
}

TEST_F(LogReadTest, FollowsNoLinkAndWaitsForNoPipe) {
  put("other", "secret\n");
  fs::create_symlink(file("other"), file(kDay));
  EXPECT_EQ(count(), 0U);
  EXPECT_EQ(lineAt(0), "");
  fs::remove(file(kDay));
  ASSERT_EQ(mkfifo(file(kDay).c_str(), 0600), 0);
  EXPECT_EQ(count(), 0U);
  fs::remove(file(kDay));
  fs::create_directory(file(kDay));
  EXPECT_EQ(count(), 0U);
}

TEST_F(LogReadTest, ALineThatIsNoneOfTheLibrarysOwnIsBounded) {
  put(kDay, std::string(65536, 'x') + "\n" + std::string(65537, 'y') + "\n" + std::string(1'000'000, 'z') + "\na" +
                std::string("\0b\n", 3));
  EXPECT_EQ(count(), 4U);
  EXPECT_EQ(lineAt(0), std::string(65536, 'x'));
  EXPECT_EQ(lineAt(1), std::string(65536, 'y'));
  EXPECT_EQ(lineAt(2), std::string(65536, 'z'));
  EXPECT_EQ(lineAt(3), "a");  // a zero-terminated text can't go further
}

TEST_F(LogReadTest, ALineStaysValidForTheNextSevenCalls) {
  put(kDay, numbered(0, 10));
  const char* lines[8];
  for (unsigned int i = 0; i < 8; ++i) {
    lines[i] = audit().getLog(kDay, i);
  }
  for (unsigned int i = 0; i < 8; ++i) {
    EXPECT_EQ(lines[i], "line " + std::to_string(i));
  }
}

TEST_F(LogReadTest, ALineStaysValidWhileOtherThreadsRead) {
  put(kDay, numbered(0, 10));
  const char* mine = audit().getLog(kDay, 3);
  std::thread([] {
    for (unsigned int i = 0; i < 100; ++i) {
      EXPECT_EQ(lineAt(i % 10), "line " + std::to_string(i % 10));
    }
  }).join();
  EXPECT_STREQ(mine, "line 3");
  EXPECT_EQ(count(), 10U);
  EXPECT_STREQ(mine, "line 3");
}

TEST_F(LogReadTest, ManyDaysAreReadInTurn) {
  const auto date = [](int i) { return "20" + std::to_string(10 + i) + "-01-01"; };
  for (int i = 0; i < 80; ++i) {
    put(date(i), numbered(0, static_cast<unsigned int>(i + 1)));
  }
  for (int round = 0; round < 3; ++round) {
    for (int i = 0; i < 80; ++i) {
      ASSERT_EQ(count(date(i)), static_cast<std::uint64_t>(i + 1));
      ASSERT_EQ(lineAt(static_cast<unsigned int>(i), date(i)), "line " + std::to_string(i));
    }
  }
}

// Bytes that this process has read from files so far.
std::uint64_t bytesRead() {
  std::ifstream io("/proc/self/io");
  std::string name;
  std::uint64_t bytes = 0;
  io >> name >> bytes;
  EXPECT_EQ(name, "rchar:");
  return bytes;
}

TEST_F(LogReadTest, ALineOfAMillionIsFoundByReadingALittle) {
  constexpr unsigned int kLines = 1'000'000;
  constexpr std::uint64_t kMostBytes = 100'000;  // of 90 million
  std::string text;
  text.reserve(120'000'000);
  for (unsigned int i = 0; i < kLines; ++i) {
    text += "2026-02-28T23:59:58.007+09:00 2 group=\"policy\" desc=\"SET ENV ACCESS DENY PRIOR\" n=\"" +
            std::to_string(i) + "\"\n";
  }
  put(kDay, text);
  ASSERT_EQ(count(), kLines);
  for (unsigned int i = 0; i < 10; ++i) {
    const unsigned int number = kLines - 1 - i * 99'991;
    const std::uint64_t before = bytesRead();
    ASSERT_EQ(count(), kLines);
    ASSERT_EQ(lineAt(number).substr(80), "n=\"" + std::to_string(number) + "\"");
    EXPECT_LT(bytesRead() - before, kMostBytes);
  }
  put(kDay, "one more\n", std::ios::app);
  const std::uint64_t before = bytesRead();
  ASSERT_EQ(count(), kLines + 1);
  ASSERT_EQ(lineAt(kLines), "one more");
  EXPECT_LT(bytesRead() - before, kMostBytes);
}

TEST_F(LogReadTest, ReadersAndWritersAtOnce) {
  constexpr unsigned int kWriters = 3;
  constexpr unsigned int kLines = 400;
  std::atomic<bool> done = false;
  std::vector<std::thread> readers;
  for (int r = 0; r < 3; ++r) {
    readers.emplace_back([&done] {
      std::uint64_t seen = 0;
      while (!done) {
        const std::uint64_t lines = count();
        EXPECT_GE(lines, seen);
        seen = lines;
        if (lines > 0) {
          EXPECT_EQ(lineAt(static_cast<unsigned int>(lines - 1)).substr(0, 40),
                    "2026-02-28T23:59:58.007+09:00 2 group=\"p");
        }
      }
    });
  }
  std::vector<std::thread> writers;
  for (unsigned int w = 0; w < kWriters; ++w) {
    writers.emplace_back([] {
      for (unsigned int i = 0; i < kLines; ++i) {
        EXPECT_EQ(log(2, {"group", "policy", "n", std::to_string(i).c_str()}), 0);
      }
    });
  }
  for (auto& writer : writers) {
    writer.join();
  }
  done = true;
  for (auto& reader : readers) {
    reader.join();
  }
  EXPECT_EQ(count(), kWriters * kLines);
}

}  // namespace
