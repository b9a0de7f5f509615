// SPDX-License-Identifier: Apache-2.0
//
// Issuing the challenge of a login: kezu_conf_get_session_id.
#include "fixture.h"

namespace conformance {
namespace {

// The hexadecimal digits of the bytes 0 to 31, and of 32 to 63, which the recording generator draws.
constexpr std::string_view kFirstDrawn = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";
constexpr std::string_view kSecondDrawn = "202122232425262728292a2b2c2d2e2f303132333435363738393a3b3c3d3e3f";

class SessionId : public Conformance {
 protected:
  void SetUp() override {
    Conformance::SetUp();
    addUser("admin", "secret", "", -1);
    engine.answerNext("RANDHASH_GetRandomNum.first", {0, 32});
  }

  static StringResult request(std::string_view id) { return call(kezu_conf_get_session_id, {id}); }

  Q7UserInfo& user = g_userInfo[0];
};

TEST_F(SessionId, IssuesThirtyTwoRandomBytesAsSixtyFourDigits) {
  const StringResult result = request("admin");
  EXPECT_EQ(result.text(), kFirstDrawn);
  EXPECT_EQ(result.length, 64U);
  EXPECT_FALSE(result.is_null);
  EXPECT_FALSE(result.error);
  EXPECT_THAT(engine.calls(), ElementsAre("Q7_ReloadAllInfoIfChanged()", "RANDHASH_Initialize()",
                                          "RANDHASH_GetRandomNum(32, prepared)", "bin2hex(32, 0)"));
}

TEST_F(SessionId, StoresTheIdInTheRecordNotYetValid) {
  user.authTime = 12345;
  request("admin");
  EXPECT_STREQ(user.sessionId, std::string(kFirstDrawn).c_str());
  EXPECT_EQ(user.authTime, -1);
}

TEST_F(SessionId, ReturnsTheRecordsOwnField) {
  const StringResult issued = request("admin");
  EXPECT_EQ(issued.pointer, user.sessionId);
  EXPECT_TRUE(issued.isGuardIntact(0)) << "the server's buffer was written to";
  user.authTime = kStart;
  EXPECT_EQ(request("admin").pointer, user.sessionId);
}

TEST_F(SessionId, EachChallengeIsANewOneWhileNoneIsProven) {
  EXPECT_EQ(request("admin").text(), kFirstDrawn);
  EXPECT_EQ(request("admin").text(), kSecondDrawn);
  EXPECT_EQ(user.authTime, -1);
}

TEST_F(SessionId, LiveSessionIsReturnedAgainAndRefreshed) {
  setField(user.sessionId, kSession);
  user.authTime = kStart;
  setTime(kStart + 299);
  const StringResult result = request("admin");
  EXPECT_EQ(result.text(), kSession);
  EXPECT_EQ(result.length, 64U);
  EXPECT_EQ(user.authTime, kStart + 299);
  EXPECT_THAT(engine.operations(), ElementsAre("Q7_ReloadAllInfoIfChanged"));
}

TEST_F(SessionId, SessionOf300SecondsIsReplaced) {
  for (const int age : {300, 301}) {
    setField(user.sessionId, kSession);
    user.authTime = kStart;
    setTime(kStart + age);
    EXPECT_NE(request("admin").text(), kSession) << age;
    EXPECT_EQ(user.authTime, -1) << age;
  }
}

TEST_F(SessionId, RecordWithoutAnIdGetsOneHoweverFreshItsTime) {
  user.authTime = kStart;
  EXPECT_EQ(request("admin").text(), kFirstDrawn);
  EXPECT_EQ(user.authTime, -1);
}

TEST_F(SessionId, NewIdReplacesALongerOneWhole) {
  setField(user.sessionId, std::string(127, 'x'));
  EXPECT_EQ(request("admin").text(), kFirstDrawn);
  EXPECT_EQ(std::strlen(user.sessionId), 64U);
}

TEST_F(SessionId, FailedReloadIsNullWithTheLengthUntouched) {
  for (const int answer : {-1, 1, 256}) {
    engine.answer("Q7_ReloadAllInfoIfChanged", answer);
    const StringResult result = request("admin");
    EXPECT_EQ(result.pointer, nullptr) << answer;
    EXPECT_EQ(result.length, StringResult::kLengthBefore) << answer;
    EXPECT_FALSE(result.is_null) << answer;
    EXPECT_FALSE(result.error) << answer;
    EXPECT_STREQ(user.sessionId, "") << answer;
  }
}

void expectNullOfLengthZero(const StringResult& result) {
  EXPECT_EQ(result.pointer, nullptr);
  EXPECT_EQ(result.length, 0U);
  EXPECT_FALSE(result.is_null) << "the null flag is left alone";
  EXPECT_FALSE(result.error);
}

TEST_F(SessionId, WithoutAdministratorsIsNullWithLengthZero) {
  for (const int count : {0, -1}) {
    g_numberOfUserInfo = count;
    expectNullOfLengthZero(request("admin"));
  }
}

TEST_F(SessionId, UnknownIdIsNullWithLengthZero) {
  for (const std::string_view id : {"other", "Admin", "admi", "admin ", " admin", "admin2", ""}) {
    SCOPED_TRACE(id);
    expectNullOfLengthZero(request(id));
  }
  expectNullOfLengthZero(call(kezu_conf_get_session_id, Arguments().null()));
  EXPECT_EQ(user.sessionId[0], '\0');
}

TEST_F(SessionId, IdIsComparedWithItsWholeLength) {
  expectNullOfLengthZero(request(bytes("admin\0")));
  expectNullOfLengthZero(request(bytes("admin\0x")));
  expectNullOfLengthZero(request(std::string(100000, 'a')));
}

TEST_F(SessionId, IdOf64BytesIsFound) {
  const std::string longest(64, 'a');
  addUser(longest, "secret", "", -1);
  EXPECT_EQ(request(longest).text(), kFirstDrawn);
  expectNullOfLengthZero(request(longest + "a"));
}

TEST_F(SessionId, IdsOfAnyBytesAreCompared) {
  addUser("\xC3\xA9t\xE9'\"", "secret", "", -1);
  EXPECT_EQ(request("\xC3\xA9t\xE9'\"").text(), kFirstDrawn);
}

TEST_F(SessionId, FirstRecordWithTheIdGetsTheSession) {
  addUser("second", "secret", kOtherSession, kStart);
  addUser("admin", "secret", "", -1);
  request("admin");
  EXPECT_STREQ(g_userInfo[0].sessionId, std::string(kFirstDrawn).c_str());
  EXPECT_STREQ(g_userInfo[1].sessionId, std::string(kOtherSession).c_str());
  EXPECT_EQ(g_userInfo[1].authTime, kStart);
  EXPECT_STREQ(g_userInfo[2].sessionId, "");
}

TEST_F(SessionId, EachAdministratorHasASessionOfTheirOwn) {
  addUser("second", "secret", "", -1);
  EXPECT_EQ(request("admin").text(), kFirstDrawn);
  EXPECT_EQ(request("second").text(), kSecondDrawn);
  EXPECT_STREQ(g_userInfo[0].sessionId, std::string(kFirstDrawn).c_str());
}

TEST_F(SessionId, ReloadsBeforeItLooksAtTheAdministrators) {
  g_numberOfUserInfo = 0;
  engine.onCall("Q7_ReloadAllInfoIfChanged", [] { g_numberOfUserInfo = 1; });
  EXPECT_EQ(request("admin").text(), kFirstDrawn);
}

TEST_F(SessionId, LeavesFailureCountLockAndPasswordAlone) {
  user.authFailCount = 4;
  user.authLockTime = 99;
  request("admin");
  EXPECT_EQ(user.authFailCount, 4);
  EXPECT_EQ(user.authLockTime, 99);
  EXPECT_STREQ(user.passwd, "secret");
}

TEST_F(SessionId, NoRandomNumbersNoSession) {
  for (const char* operation : {"RANDHASH_Initialize", "RANDHASH_GetRandomNum"}) {
    engine.reset();
    addUser("admin", "secret", "", -1);
    engine.answer(operation, 1);
    const StringResult result = request("admin");
    EXPECT_EQ(result.pointer, nullptr) << operation;
    EXPECT_STREQ(user.sessionId, "") << operation;
    EXPECT_EQ(user.authTime, -1) << operation;
  }
}

TEST_F(SessionId, ExceptionBecomesTheErrorFlag) {
  for (const char* operation : {"Q7_ReloadAllInfoIfChanged", "RANDHASH_GetRandomNum", "bin2hex"}) {
    engine.reset();
    addUser("admin", "secret", "", -1);
    engine.onCall(operation, [] { throw std::bad_alloc(); });
    const StringResult result = request("admin");
    EXPECT_EQ(result.pointer, nullptr) << operation;
    EXPECT_TRUE(result.error) << operation;
  }
}

}  // namespace
}  // namespace conformance
