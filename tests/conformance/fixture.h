// SPDX-License-Identifier: Apache-2.0
//
// What the tests share: a clean engine and clock, an administrator who is logged in, and matchers for audit events.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>

#include "recording_engine.h"
#include "recording_libraries.h"
#include "test_clock.h"
#include "udf_call.h"

namespace conformance {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Bytes from a literal, embedded zeros included.
template <std::size_t N>
std::string bytes(const char (&literal)[N]) {
  return std::string(literal, N - 1);
}

template <std::size_t N>
void setField(char (&field)[N], std::string_view text) {
  ASSERT_LT(text.size(), N);
  std::memset(field, 0, N);
  std::memcpy(field, text.data(), text.size());
}

// Everything starts empty, and the clock stands at kStart.
class Conformance : public ::testing::Test {
 protected:
  void SetUp() override {
    engine.reset();
    logLines().clear();
    setTime(kStart);
  }
  void TearDown() override { engine.reset(); }

  // Appends an administrator.
  static Q7UserInfo& addUser(std::string_view id, std::string_view passwd, std::string_view sessionId,
                             time_t authTime) {
    Q7UserInfo& user = g_userInfo[g_numberOfUserInfo++];
    setField(user.id, id);
    setField(user.passwd, passwd);
    setField(user.sessionId, sessionId);
    user.authTime = authTime;
    return user;
  }

  RecordingEngine& engine = RecordingEngine::get();
};

// Session ids as the login function issues them.
inline constexpr std::string_view kSession = "00112233445566778899aabbccddeeff0123456789abcdef0123456789abcdef";
inline constexpr std::string_view kOtherSession = "ffeeddccbbaa99887766554433221100fedcba9876543210fedcba9876543210";

// One administrator, logged in just now.
class LoggedIn : public Conformance {
 protected:
  void SetUp() override {
    Conformance::SetUp();
    addUser("admin", "secret", kSession, kStart);
  }
};

// An event that reached the log with this level and exactly these texts, followed by null pointers up to its end, under
// the audit log's category.
::testing::Matcher<const Event&> isEvent(int level, const std::vector<std::string>& texts);
template <typename... Texts>
::testing::Matcher<const Event&> IsEvent(int level, const Texts&... texts) {
  return isEvent(level, {std::string(texts)...});
}

// What failed in the running test so far, one failure a paragraph.
inline std::string failuresSoFar() {
  std::string all;
  const ::testing::TestResult& result = *::testing::UnitTest::GetInstance()->current_test_info()->result();
  for (int i = 0; i < result.total_part_count(); ++i) {
    const ::testing::TestPartResult& part = result.GetTestPartResult(i);
    if (part.failed()) {
      all += std::string(part.file_name() != nullptr ? part.file_name() : "") + ":" +
             std::to_string(part.line_number()) + ": " + part.message() + "\n";
    }
  }
  return all;
}

// Runs `body` in a new process, in which no start flag of the library is set yet, whatever ran before it here. Its
// failures fail the test. The code before it in the test runs in both processes.
inline void inNewProcess(const std::function<void()>& body) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        body();
        std::fputs(failuresSoFar().c_str(), stderr);
        std::exit(::testing::Test::HasFailure() ? 1 : 0);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace conformance
