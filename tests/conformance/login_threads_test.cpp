// SPDX-License-Identifier: Apache-2.0
//
// Logins of one administrator on several connections at once.
#include <atomic>
#include <thread>

#include "fixture.h"

namespace conformance {
namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 50;

class LoginThreads : public LoggedIn {
 protected:
  template <typename Body>
  static void atOnce(const Body& body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back(body);
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  }

  Q7UserInfo& user = g_userInfo[0];
};

TEST_F(LoginThreads, FiveWrongResponsesAreCheckedAndNoMore) {
  for (int round = 0; round < kRounds; ++round) {
    user.authFailCount = 0;
    user.authLockTime = 0;
    std::atomic<int> checked = 0;
    std::atomic<int> locked = 0;
    atOnce([&] {
      for (int i = 0; i < 4; ++i) {
        const long long result = call(kezu_conf_get_auth, {kSession, "wrong"}).value;
        ++(result == -2 ? checked : locked);
      }
    });
    EXPECT_EQ(checked, 5);
    EXPECT_EQ(locked, 4 * kThreads - 5);
    EXPECT_EQ(user.authFailCount, 5);
  }
}

// The recording generator counts up from the number that it is told: an id of two draws would show.
TEST_F(LoginThreads, ChallengeIsOfOneDraw) {
  for (int round = 0; round < kRounds; ++round) {
    user.authTime = -1;
    engine.answerNext("RANDHASH_GetRandomNum.first", {0, 32, 64, 96, 128, 160, 192, 224});
    atOnce([] {
      call(kezu_conf_get_session_id, {"admin"});
      call(kezu_conf_get_session_id, {"admin"});
    });
    const std::string id = user.sessionId;
    ASSERT_EQ(id.size(), 64U);
    const int first = std::stoi(id.substr(0, 2), nullptr, 16);
    for (int i = 0; i < 32; ++i) {
      EXPECT_EQ(std::stoi(id.substr(static_cast<std::size_t>(2 * i), 2), nullptr, 16), first + i) << id;
    }
  }
}

}  // namespace
}  // namespace conformance
