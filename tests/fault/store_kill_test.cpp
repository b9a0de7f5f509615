// SPDX-License-Identifier: Apache-2.0
//
// Processes that are killed while they save, and processes that save into one home at once.
#include <fcntl.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <random>
#include <set>
#include <thread>

#include "kezu/shared.h"
#include "unit/store_fixture.h"

namespace store_test {
namespace {

class StoreKillTest : public StoreTest {};

// What the column table of the home holds, loaded in a process of its own: the number in its first record's name, which
// every other record must have too. -1 when the home does not open or the records are of two saves.
int savedNumber(const fs::path& home) {
  int pipes[2] = {};
  EXPECT_EQ(0, pipe(pipes));
  const int result = inChild([&] {
    auto store = loadStore(home);
    int number = std::atoi(g_encColumnInfoArray[0].column);
    for (int i = 0; i < g_numberOfEncColumn; ++i) {
      if (std::atoi(g_encColumnInfoArray[i].column) != number) {
        return 1;
      }
    }
    return write(pipes[1], &number, sizeof number) == sizeof number ? 0 : 2;
  });
  int number = -1;
  if (result == 0) {
    EXPECT_EQ(static_cast<ssize_t>(sizeof number), read(pipes[0], &number, sizeof number));
  }
  close(pipes[0]);
  close(pipes[1]);
  return number;
}

void setColumns(int number) {
  g_numberOfEncColumn = 200;
  for (int i = 0; i < g_numberOfEncColumn; ++i) {
    setText(g_encColumnInfoArray[i].column, std::to_string(number) + "-" + std::to_string(i));
  }
}

// Saves one version after the other, and tells each that is saved.
[[noreturn]] void saveOn(const fs::path& home, int from, int report) {
  auto store = loadStore(home);
  for (int number = from;; ++number) {
    setColumns(number);
    if (!store->save(TableId::column).ok() || write(report, &number, sizeof number) != sizeof number) {
      _exit(1);
    }
  }
}

TEST_F(StoreKillTest, AKilledSaveLeavesTheOldTableOrTheNewOne) {
  std::mt19937 random(20240501);
  {
    auto store = loadStore(home());
    setColumns(0);
    ASSERT_TRUE(store->save(TableId::column).ok());
    setColumns(1);
    ASSERT_TRUE(store->save(TableId::column).ok());
  }
  int last = 1;
  int duringSave = 0;
  for (int round = 0; round < 150; ++round) {
    int pipes[2] = {};
    ASSERT_EQ(0, pipe(pipes));
    const pid_t child = fork();
    if (child == 0) {
      close(pipes[0]);
      saveOn(home(), last + 1, pipes[1]);
    }
    close(pipes[1]);
    int reported = last;
    ASSERT_EQ(static_cast<ssize_t>(sizeof reported), read(pipes[0], &reported, sizeof reported));
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));
    ASSERT_EQ(0, kill(child, SIGKILL));
    waitpid(child, nullptr, 0);
    for (int number = 0; read(pipes[0], &number, sizeof number) == sizeof number;) {
      reported = number;
    }
    close(pipes[0]);
    duringSave += fs::exists(file("column").string() + ".tmp") || fs::exists(file("column").string() + ".bak.tmp");
    const int found = savedNumber(home());
    ASSERT_TRUE(found == reported || found == reported + 1) << "found " << found << ", reported " << reported;
    // The .bak is whole as well, and one version behind at most.
    auto store = openStore(home());
    const auto backup =
        engine::store::openTableFile(store->files(), file("column").string() + ".bak",
                                     engine::store::tableOf(TableId::column), store->keys(TableId::column));
    ASSERT_TRUE(backup.ok()) << backup.error().text;
    last = found;
  }
  EXPECT_GT(last, 100);
  EXPECT_GT(duringSave, 0) << "no kill came in the middle of a save";
}

// Adds columns of its own, one a save; writes the number of saves that were reported as done.
int addColumns(const fs::path& home, const std::string& name, int count, int report) {
  auto store = loadStore(home);
  int saved = 0;
  for (int i = 0; saved < count && i < 1000 * count; ++i) {
    if (!store->reloadChanged().ok()) {
      return 1;
    }
    addColumn(name + std::to_string(saved));
    if (store->save(TableId::column).ok()) {
      ++saved;
    } else {
      g_numberOfEncColumn -= 1;
    }
  }
  return write(report, &saved, sizeof saved) == sizeof saved ? 0 : 2;
}

TEST_F(StoreKillTest, NoChangeThatWasReportedAsSavedIsLost) {
  constexpr int kProcesses = 4;
  constexpr int kEach = 60;
  int pipes[2] = {};
  ASSERT_EQ(0, pipe(pipes));
  std::vector<pid_t> children;
  for (int p = 0; p < kProcesses; ++p) {
    const pid_t child = fork();
    if (child == 0) {
      _exit(addColumns(home(), std::string(1, static_cast<char>('a' + p)), kEach, pipes[1]));
    }
    children.push_back(child);
  }
  close(pipes[1]);
  int total = 0;
  for (const pid_t child : children) {
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  for (int p = 0; p < kProcesses; ++p) {
    int saved = 0;
    ASSERT_EQ(static_cast<ssize_t>(sizeof saved), read(pipes[0], &saved, sizeof saved));
    total += saved;
  }
  close(pipes[0]);
  EXPECT_EQ(kProcesses * kEach, total);
  loadStore(home());
  std::set<std::string> names;
  for (int i = 0; i < g_numberOfEncColumn; ++i) {
    names.insert(g_encColumnInfoArray[i].column);
  }
  EXPECT_EQ(static_cast<std::size_t>(total), names.size());
  EXPECT_EQ(total, g_numberOfEncColumn);
}

TEST_F(StoreKillTest, AHolderOfTheLockThatIsKilledGivesItUp) {
  int pipes[2] = {};
  ASSERT_EQ(0, pipe(pipes));
  const pid_t child = fork();
  if (child == 0) {
    auto lock = engine::store::FileLock::acquire(engine::store::machineFiles(), home() / ".lock");
    const char ready = lock.ok() ? 'y' : 'n';
    _exit(write(pipes[1], &ready, 1) == 1 ? pause() : 1);
  }
  char ready = 0;
  ASSERT_EQ(1, read(pipes[0], &ready, 1));
  ASSERT_EQ('y', ready);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  auto store = loadStore(home());
  addColumn("c");
  EXPECT_TRUE(store->save(TableId::column).ok());
}

// Threads of one process reload and save through the exported operations, while another process saves too.
TEST_F(StoreKillTest, ThreadsAndProcessesTogether) {
  EXPECT_EQ(0, inChild([&] {
              setenv("KEZU_HOME", home().c_str(), 1);
              std::atomic<int> started{0};
              std::vector<std::thread> threads;
              const pid_t other = fork();
              if (other == 0) {
                auto store = loadStore(home());
                for (int i = 0; i < 100; ++i) {
                  if (store->reloadChanged().ok()) {
                    g_logInfo.denyLog = i;
                    static_cast<void>(store->save(TableId::policy));
                  }
                }
                _exit(0);
              }
              for (int t = 0; t < 4; ++t) {
                threads.emplace_back([&started] {
                  started += kezuInitialize(1, nullptr, nullptr) == 0;
                  for (int i = 0; i < 100; ++i) {
                    EXPECT_EQ(0, Q7_ReloadAllInfoIfChanged());
                    Q7_SavePolicyInfo();
                    EXPECT_EQ(0, Q7_SaveAccessPrivInfo());
                    compareLocalAndKMSPolicy();
                  }
                });
              }
              for (std::thread& thread : threads) {
                thread.join();
              }
              int status = 0;
              waitpid(other, &status, 0);
              EXPECT_EQ(0, status);
              EXPECT_EQ(4, started.load());
              return 0;
            }));
  loadStore(home());
  EXPECT_EQ(1, g_numberOfUserInfo);
}

// Encrypts under the policy "keep" of whatever slot is active, until told to stop. Every value that came out must
// decrypt to what went in.
void encryptOn(const std::atomic<bool>& stop, std::atomic<int>& encrypted) {
  const unsigned char clear[] = "4111-1111-1111-1111";
  while (!stop.load()) {
    const int slot = kezu::observe(g_encPolicyArray_flag);
    const int count = kezu::observe(g_numberOfEncPolicy[slot]);
    for (int i = 0; i < count; ++i) {
      Q7EncPolicyInfo& policy = g_encPolicyArray[slot][i];
      if (!kezu::fieldEquals(policy.policyID, "keep")) {
        continue;
      }
      BCipherKey key = kezu::observe(g_makeKeyArray[slot][i]);
      unsigned char sealed[256];
      unsigned char opened[256];
      unsigned int sealedLength = sizeof sealed;
      unsigned int openedLength = sizeof opened;
      if (Q7_EncryptBinaryExt(sealed, &sealedLength, clear, sizeof clear, &policy, key) == 0 &&
          Q7_DecryptBinaryExt(opened, &openedLength, sealed, sealedLength, &policy, key) == 0) {
        EXPECT_EQ(std::string(clear, clear + sizeof clear), std::string(opened, opened + openedLength));
        ++encrypted;
      }
    }
  }
}

TEST_F(StoreKillTest, ValuesStayWholeWhilePoliciesAreReloaded) {
  auto store = loadStore(home());
  addPolicy("keep");
  ASSERT_TRUE(store->save(TableId::policy).ok());
  std::atomic<bool> stop{false};
  std::atomic<int> encrypted{0};
  std::vector<std::thread> readers;
  const pid_t other = fork();
  if (other == 0) {
    resetTables();
    auto theirs = loadStore(home());
    for (int i = 0; i < 60; ++i) {
      int& count = g_numberOfEncPolicy[g_encPolicyArray_flag];
      if (i % 2 == 0) {
        addPolicy("other" + std::to_string(i));
      } else {
        --count;
      }
      if (!theirs->save(TableId::policy).ok()) {
        _exit(1);
      }
      usleep(2000);
    }
    _exit(0);
  }
  for (int t = 0; t < 3; ++t) {
    readers.emplace_back([&] { encryptOn(stop, encrypted); });
  }
  int status = 0;
  while (waitpid(other, &status, WNOHANG) == 0) {
    EXPECT_TRUE(store->reloadChanged().ok());
  }
  EXPECT_EQ(0, status);
  stop = true;
  for (std::thread& reader : readers) {
    reader.join();
  }
  EXPECT_GT(encrypted.load(), 0);
}

}  // namespace
}  // namespace store_test
