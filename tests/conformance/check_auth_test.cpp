// SPDX-License-Identifier: Apache-2.0
//
// The session check that every configuration function starts with.
#include "conf/check_auth.h"

#include "fixture.h"

namespace conformance {
namespace {

bool check(Arguments& arguments) {
  return checkAuth(arguments.get());
}
bool check(Arguments&& arguments) {
  return checkAuth(arguments.get());
}

class CheckAuth : public LoggedIn {
 protected:
  Q7UserInfo& user = g_userInfo[0];
};

TEST_F(CheckAuth, AcceptsALiveSession) {
  EXPECT_TRUE(check({kSession}));
}

TEST_F(CheckAuth, RefusesACallWithoutArguments) {
  EXPECT_FALSE(check(Arguments()));
  EXPECT_THAT(engine.calls(), IsEmpty());
}

TEST_F(CheckAuth, RefusesANullArgumentInEachPositionBeforeItReloads) {
  for (std::size_t position = 0; position < 4; ++position) {
    EXPECT_FALSE(check(Arguments{kSession, "a", "b", "c"}.setNull(position))) << position;
  }
  EXPECT_FALSE(check(Arguments{kSession, "a"}.null(INT_RESULT))) << "an integer";
  EXPECT_FALSE(check(Arguments{kSession}.null(REAL_RESULT).text("a"))) << "a real number";
  EXPECT_THAT(engine.calls(), IsEmpty());
}

TEST_F(CheckAuth, RefusesAnEmptyTextInEachPositionBeforeItReloads) {
  for (std::size_t position = 0; position < 4; ++position) {
    EXPECT_FALSE(check(Arguments{kSession, "a", "b", "c"}.setText(position, ""))) << position;
  }
  EXPECT_THAT(engine.calls(), IsEmpty());
}

TEST_F(CheckAuth, RefusesATextThatStartsWithAZeroByteInEachPosition) {
  for (std::size_t position = 0; position < 4; ++position) {
    EXPECT_FALSE(check(Arguments{kSession, "a", "b", "c"}.setText(position, bytes("\0abc")))) << position;
  }
  EXPECT_THAT(engine.calls(), IsEmpty());
}

TEST_F(CheckAuth, AcceptsTextsWithAZeroByteFurtherOn) {
  EXPECT_TRUE(check({kSession, bytes("a\0b")}));
}

TEST_F(CheckAuth, DoesNotLookIntoIntegers) {
  EXPECT_TRUE(check(Arguments{kSession}.number(0).number(-1).setLength(1, 0)));
}

TEST_F(CheckAuth, RefusesWhenTheReloadFails) {
  for (const int result : {1, -1, 256}) {
    engine.answer("Q7_ReloadAllInfoIfChanged", result);
    EXPECT_FALSE(check({kSession})) << result;
  }
  EXPECT_EQ(user.authTime, kStart);
}

TEST_F(CheckAuth, ReloadsBeforeItLooksAtTheAdministrators) {
  g_numberOfUserInfo = 0;
  engine.onCall("Q7_ReloadAllInfoIfChanged", [] { g_numberOfUserInfo = 1; });
  EXPECT_TRUE(check({kSession}));
}

TEST_F(CheckAuth, ReloadsOnceAndCallsNothingElse) {
  check({kSession});
  EXPECT_THAT(engine.operations(), ElementsAre("Q7_ReloadAllInfoIfChanged"));
  engine.clearJournal();
  advanceTime(300);
  check({kSession});
  EXPECT_THAT(engine.operations(), ElementsAre("Q7_ReloadAllInfoIfChanged")) << "an invalidation is not saved";
}

TEST_F(CheckAuth, RefusesWithoutAdministrators) {
  g_numberOfUserInfo = 0;
  EXPECT_FALSE(check({kSession}));
  g_numberOfUserInfo = -1;
  EXPECT_FALSE(check({kSession}));
  EXPECT_EQ(user.authTime, kStart);
}

TEST_F(CheckAuth, ComparesTheSessionWholeAndCaseSensitively) {
  const std::string id(kSession);
  EXPECT_FALSE(check({kOtherSession}));
  EXPECT_FALSE(check({id.substr(0, 63)}));
  EXPECT_FALSE(check({id + "0"}));
  EXPECT_FALSE(check({" " + id}));
  std::string upper = id;
  upper.back() = 'F';
  EXPECT_FALSE(check({upper}));
  EXPECT_EQ(user.authTime, kStart) << "an unknown session ended one that is live";
}

TEST_F(CheckAuth, IgnoresWhatFollowsAZeroByteInTheSession) {
  EXPECT_TRUE(check({std::string(kSession) + bytes("\0whatever")}));
  EXPECT_FALSE(check({std::string(kSession.substr(0, 63)) + bytes("\0") + "f"}));
}

TEST_F(CheckAuth, FindsASessionThatFillsItsField) {
  const std::string longest(127, 'x');
  setField(user.sessionId, longest);
  EXPECT_TRUE(check({longest}));
  EXPECT_FALSE(check({longest + "x"}));
  EXPECT_FALSE(check({std::string(100000, 'x')}));
}

TEST_F(CheckAuth, AcceptsAt299SecondsAndRefusesAt300And301) {
  setTime(kStart + 299);
  EXPECT_TRUE(check({kSession}));
  EXPECT_EQ(user.authTime, kStart);
  setTime(kStart + 300);
  EXPECT_FALSE(check({kSession}));
  EXPECT_EQ(user.authTime, -1);
  user.authTime = kStart;
  setTime(kStart + 301);
  EXPECT_FALSE(check({kSession}));
  EXPECT_EQ(user.authTime, -1);
}

TEST_F(CheckAuth, DoesNotRefreshTheSession) {
  for (const int seconds : {100, 200, 299}) {
    setTime(kStart + seconds);
    EXPECT_TRUE(check({kSession}));
  }
  setTime(kStart + 300);
  EXPECT_FALSE(check({kSession}));
}

TEST_F(CheckAuth, RefusesAgainWhatItRefusedForAge) {
  setTime(kStart + 300);
  EXPECT_FALSE(check({kSession}));
  EXPECT_FALSE(check({kSession}));
  setTime(kStart + 1);
  EXPECT_FALSE(check({kSession}));
  EXPECT_EQ(user.authTime, -1);
}

TEST_F(CheckAuth, RefusesASessionThatWasNeverProven) {
  user.authTime = -1;
  EXPECT_FALSE(check({kSession}));
}

TEST_F(CheckAuth, FindsTheSessionOfAnyAdministrator) {
  addUser("second", "secret", kOtherSession, kStart);
  EXPECT_TRUE(check({kOtherSession}));
  EXPECT_TRUE(check({kSession}));
  g_numberOfUserInfo = 1;
  EXPECT_FALSE(check({kOtherSession})) << "a record behind the count";
}

TEST_F(CheckAuth, FindsTheSixteenthAdministrator) {
  while (g_numberOfUserInfo < kMaxUsers - 1) {
    addUser("other", "secret", "none", -1);
  }
  addUser("last", "secret", kOtherSession, kStart);
  EXPECT_TRUE(check({kOtherSession}));
}

TEST_F(CheckAuth, InvalidatesOnlyTheRecordItFound) {
  addUser("second", "secret", kOtherSession, kStart + 200);
  setTime(kStart + 400);
  EXPECT_FALSE(check({kSession}));
  EXPECT_EQ(g_userInfo[0].authTime, -1);
  EXPECT_EQ(g_userInfo[1].authTime, kStart + 200);
  EXPECT_TRUE(check({kOtherSession}));
}

TEST_F(CheckAuth, FirstRecordWithTheSessionDecides) {
  user.authTime = -1;
  addUser("second", "secret", kSession, kStart);
  EXPECT_FALSE(check({kSession}));
  EXPECT_EQ(g_userInfo[1].authTime, kStart);
}

TEST_F(CheckAuth, InvalidationLeavesTheRestOfTheRecordAlone) {
  user.authFailCount = 3;
  user.authLockTime = 5;
  Q7UserInfo expected = user;
  expected.authTime = -1;
  setTime(kStart + 300);
  EXPECT_FALSE(check({kSession}));
  EXPECT_EQ(std::memcmp(&user, &expected, sizeof user), 0);
}

// --- kezu_conf_check_session_auth ---

class CheckSession : public CheckAuth {
 protected:
  static IntegerResult check(std::string_view session) { return call(kezu_conf_check_session_auth, {session}); }
};

TEST_F(CheckSession, ValidSessionGivesZeroAndIsRefreshed) {
  setTime(kStart + 299);
  EXPECT_EQ(check(kSession), value(0));
  EXPECT_EQ(user.authTime, kStart + 299);
  setTime(kStart + 299 + 299);
  EXPECT_EQ(check(kSession), value(0));
}

TEST_F(CheckSession, RefreshedSessionRunsFor300SecondsFromTheCall) {
  setTime(kStart + 100);
  EXPECT_EQ(check(kSession), value(0));
  setTime(kStart + 100 + 300);
  EXPECT_EQ(check(kSession), value(1));
}

TEST_F(CheckSession, SessionOf300SecondsGivesOneAndIsInvalidated) {
  for (const int age : {300, 301}) {
    user.authTime = kStart;
    setTime(kStart + age);
    EXPECT_EQ(check(kSession), value(1)) << age;
    EXPECT_EQ(user.authTime, -1) << age;
  }
  EXPECT_EQ(check(kSession), value(1)) << "the second time";
}

TEST_F(CheckSession, SessionThatWasNeverProvenGivesOne) {
  user.authTime = -1;
  EXPECT_EQ(check(kSession), value(1));
}

TEST_F(CheckSession, UnknownSessionGivesTwo) {
  EXPECT_EQ(check(kOtherSession), value(2));
  EXPECT_EQ(check(kSession.substr(0, 63)), value(2));
  EXPECT_EQ(check(std::string(kSession) + "0"), value(2));
  EXPECT_EQ(user.authTime, kStart);
}

TEST_F(CheckSession, WithoutAdministratorsGivesTwo) {
  g_numberOfUserInfo = 0;
  EXPECT_EQ(check(kSession), value(2));
  g_numberOfUserInfo = -5;
  EXPECT_EQ(check(kSession), value(2));
}

TEST_F(CheckSession, FailedReloadGivesMinusOneWhateverTheSession) {
  for (const int answer : {1, -1, 256}) {
    engine.answer("Q7_ReloadAllInfoIfChanged", answer);
    EXPECT_EQ(check(kSession), value(-1)) << answer;
    EXPECT_EQ(check("unknown"), value(-1)) << answer;
  }
  EXPECT_EQ(user.authTime, kStart);
}

TEST_F(CheckSession, ReloadsBeforeItLooksAtTheAdministrators) {
  g_numberOfUserInfo = 0;
  engine.onCall("Q7_ReloadAllInfoIfChanged", [] { g_numberOfUserInfo = 1; });
  EXPECT_EQ(check(kSession), value(0));
}

TEST_F(CheckSession, EmptyOrMissingSessionGivesTwoWhereNoRecordHasAnEmptyOne) {
  EXPECT_EQ(check(""), value(2));
  EXPECT_EQ(call(kezu_conf_check_session_auth, Arguments().null()), value(2));
}

TEST_F(CheckSession, EmptySessionFindsTheRecordWhoseSessionIsEmpty) {
  addUser("second", "secret", "", -1);
  EXPECT_EQ(check(""), value(1));
}

TEST_F(CheckSession, IgnoresWhatFollowsAZeroByte) {
  EXPECT_EQ(check(std::string(kSession) + bytes("\0more")), value(0));
}

TEST_F(CheckSession, FirstRecordWithTheSessionDecides) {
  addUser("second", "secret", kSession, -1);
  EXPECT_EQ(check(kSession), value(0));
  EXPECT_EQ(g_userInfo[1].authTime, -1);
}

TEST_F(CheckSession, SavesNothingAndWritesNoEvent) {
  check(kSession);
  setTime(kStart + 1000);
  check(kSession);
  EXPECT_THAT(engine.operations(), ElementsAre("Q7_ReloadAllInfoIfChanged", "Q7_ReloadAllInfoIfChanged"));
}

TEST_F(CheckSession, ExceptionBecomesTheErrorFlag) {
  engine.onCall("Q7_ReloadAllInfoIfChanged", [] { throw std::bad_alloc(); });
  EXPECT_EQ(check(kSession), failure());
}

}  // namespace
}  // namespace conformance
