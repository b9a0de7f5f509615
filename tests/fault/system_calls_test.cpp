// SPDX-License-Identifier: Apache-2.0
//
// What the SQL functions ask of the kernel, counted by a process that traces them: of every way into it there is, not
// only of the store's own interface to files. Not under the sanitizers, which call the kernel themselves.
#include <sys/ptrace.h>
#include <sys/syscall.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <map>

#include "fault/engine_fixture.h"

namespace fault {
namespace {

constexpr int kTimes = 500;
constexpr int kTables = 7;
constexpr int kCbc = 1;
constexpr int kGcm = 5;

// The system calls of a process, by their numbers: how often each was made between the two stops of the process.
using Calls = std::map<unsigned long, int>;

// Lets a traced process go on to its next stop by a SIGSTOP, and counts its calls on the way, but for the one that
// sends the signal.
Calls callsUntilStop(pid_t process) {
  Calls calls;
  for (int status = 0;;) {
    EXPECT_EQ(0, ptrace(PTRACE_SYSCALL, process, nullptr, nullptr));
    EXPECT_EQ(process, waitpid(process, &status, 0));
    if (!WIFSTOPPED(status)) {
      ADD_FAILURE() << "the process ended with status " << status;
      return calls;
    }
    if (WSTOPSIG(status) == SIGSTOP) {
      return calls;
    }
    __ptrace_syscall_info info = {};
    EXPECT_LT(0, ptrace(PTRACE_GET_SYSCALL_INFO, process, sizeof info, &info));
    if (info.op == PTRACE_SYSCALL_INFO_ENTRY && info.entry.nr != SYS_kill) {
      ++calls[info.entry.nr];
    }
  }
}

class SystemCallsTest : public store_test::StoreTest {
 protected:
  // Runs `prepare`, then `work`, in a process of their own; the calls of `work`.
  Calls callsOf(const std::function<void()>& prepare, const std::function<void()>& work) {
    const pid_t process = fork();
    if (process == 0) {
      if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) {
        std::perror("this machine lets no process be traced");
        _exit(1);
      }
      const pid_t self = getpid();
      startWithSession(home());
      prepare();
      work();  // what is done once is done
      kill(self, SIGSTOP);
      work();
      kill(self, SIGSTOP);
      _exit(HasFailure() ? 1 : 0);
    }
    int status = 0;
    EXPECT_EQ(process, waitpid(process, &status, 0));
    if (!WIFSTOPPED(status)) {
      ADD_FAILURE() << "the process ended with status " << status;
      return {};
    }
    EXPECT_EQ(0, ptrace(PTRACE_SETOPTIONS, process, nullptr, long{PTRACE_O_EXITKILL | PTRACE_O_TRACESYSGOOD}));
    const Calls calls = callsUntilStop(process);
    EXPECT_EQ(0, ptrace(PTRACE_CONT, process, nullptr, nullptr));
    EXPECT_EQ(process, waitpid(process, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    return calls;
  }
};

TEST_F(SystemCallsTest, AReloadWithNothingChangedStatsEachFileOnceAndDoesNothingElse) {
  const auto calls = callsOf([] {},
                             [] {
                               for (int i = 0; i < kTimes; ++i) {
                                 SqlArguments none;
                                 EXPECT_EQ("", prepare(reload_kezu_init, none));
                               }
                             });
  EXPECT_EQ((Calls{{SYS_newfstatat, kTables * kTimes}}), calls);
}

TEST_F(SystemCallsTest, ARowThatNeedsNothingRandomMakesNone) {
  const auto calls = callsOf(
      [] {
        SqlArguments create = createPolicy("det", 2, 0, kGcm);
        ASSERT_EQ(1, row(kezu_conf_set_policy, create));
      },
      [] {
        for (int i = 1; i <= kTimes; ++i) {
          const std::string text(static_cast<std::size_t>(i), 'x');
          SqlArguments encrypt;
          const auto encrypted = row(data_process_po_ed, encrypt.text("det").number(0).text(text)).value_or("");
          EXPECT_EQ(text, row(data_process_po_ed, SqlArguments().text("det").number(1).text(encrypted)));
          EXPECT_EQ(1, row(data_process_ed_check_int, SqlArguments().text("det").text(encrypted)).value_or(0));
          EXPECT_EQ(text, row(data_process_ed_check_str, SqlArguments().text("det").text(encrypted)));
          EXPECT_EQ(32U, row(hash_raw_data, SqlArguments().text(text)).value_or("").size());
          EXPECT_EQ(44U, row(hash_b64_data, SqlArguments().text(text)).value_or("").size());
          EXPECT_EQ(44U, row(hmac_b64_data, SqlArguments().text(text).text("det")).value_or("").size());
        }
      });
  EXPECT_EQ(Calls(), calls);
}

// OpenSSL's generator asks for the process's number, to notice a fork, and now and then for new randomness. Vectors are
// drawn a block of 4096 bytes at a time, so that is once in hundreds of rows.
TEST_F(SystemCallsTest, RandomVectorsAreDrawnForManyRowsAtOnce) {
  const auto calls = callsOf(
      [] {
        SqlArguments create = createPolicy("random", 2, 1, kCbc);
        ASSERT_EQ(1, row(kezu_conf_set_policy, create));
      },
      [] {
        for (int i = 0; i < kTimes; ++i) {
          EXPECT_NE("", row(data_process_po_ed, SqlArguments().text("random").number(0).text("x")));
        }
      });
  constexpr int kDraws = 1 + kTimes * 16 / 4096;
  int made = 0;
  for (const auto& [number, times] : calls) {
    EXPECT_TRUE(number == SYS_getrandom || number == SYS_getpid) << "system call " << number;
    made += times;
  }
  EXPECT_GT(made, 0);
  EXPECT_LE(made, 2 * kDraws);
}

}  // namespace
}  // namespace fault
