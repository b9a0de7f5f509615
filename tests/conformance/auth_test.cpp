// SPDX-License-Identifier: Apache-2.0
//
// Login, refresh and lock: kezu_conf_get_auth.
#include <algorithm>
#include <atomic>
#include <thread>
#include <utility>

#include "fixture.h"

namespace conformance {
namespace {

// hex(SHA-256(hex(SHA-256(session id)) + password value)), computed with sha256sum.
constexpr std::string_view kSessionDigest = "1bfdb43545f0dcd7514ca7733399e3235fd99e99b50c08404b05f47d5600e983";
constexpr std::string_view kResponse = "d13f77484583fddde2d83943c4ce943f92198511c3123477641dc94521b7bb31";
constexpr std::string_view kOtherResponse = "08d69fc9abae088028586ca2bf650134a55a343f4aedd0e200feec4a75cc7208";
constexpr std::string_view kResponseToPasswordOf127 =
    "36cfcfb354df081de4f3c0df8031a6008ec7183ce0e5581c97265857e3f2b3bf";
constexpr std::string_view kResponseToUtf8Password = "4f641cf613e72953f705cab2a784aae8bd62e20ef14a27f64fe8b7e5ebee0c77";

// The id of the bytes 00 to 1f, which the recording generator draws, and the response to it: the SHA-256 of those
// digits, followed by "secret", digested again, computed with sha256sum.
constexpr std::string_view kFirstId = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";
constexpr std::string_view kResponseToFirstId = "021244df4e2c1f03a94e07681cc7c9e1c2ca5c20a565a435ce2c7e3d722b8c20";

constexpr const char* kSucceeded = "Brisolvane login successful";
constexpr const char* kFailed = "Brisolvane login failed";
constexpr const char* kLockedOut = "Brisolvane login failed 5 times and is locked";

auto isLoginEvent(int level, const char* message) {
  return IsEvent(level, "group", "status", "desc", message);
}

// An administrator with a challenge that is not proven yet.
class Login : public Conformance {
 protected:
  void SetUp() override {
    Conformance::SetUp();
    addUser("admin", "secret", kSession, -1);
  }

  static IntegerResult login(std::string_view session, std::string_view response) {
    return call(kezu_conf_get_auth, {session, response});
  }
  static StringResult request() { return call(kezu_conf_get_session_id, {"admin"}); }
  static IntegerResult refresh(std::string_view session) { return call(kezu_conf_get_auth, {session}); }

  void expectOnlyEvent(int level, const char* message) {
    EXPECT_THAT(engine.events(), ElementsAre(isLoginEvent(level, message)));
    engine.clearJournal();
  }

  Q7UserInfo& user = g_userInfo[0];
};

// --- Two arguments ---

TEST_F(Login, CorrectResponseGivesTheTimeOfTheLogin) {
  EXPECT_EQ(login(kSession, kResponse), value(kStart));
  EXPECT_EQ(user.authTime, kStart);
  expectOnlyEvent(2, kSucceeded);
}

TEST_F(Login, ResultIsTheStoredTimeEvenWhenTheClockMovesOn) {
  tickOnEachReading(1);
  const IntegerResult result = login(kSession, kResponse);
  EXPECT_EQ(result.value, user.authTime);
  const IntegerResult refreshed = refresh(kSession);
  EXPECT_GT(refreshed.value, result.value);
  EXPECT_EQ(refreshed.value, user.authTime);
}

TEST_F(Login, HashesTheSessionIdThenItsDigestWithThePassword) {
  login(kSession, kResponse);
  EXPECT_THAT(engine.calls("Q7_HashBinary"),
              ElementsAre("Q7_HashBinary(\"" + std::string(kSession) + "\", 2)",
                          "Q7_HashBinary(\"" + std::string(kSessionDigest) + "secret\", 2)"));
  EXPECT_THAT(engine.calls("bin2hex"), ElementsAre("bin2hex(32, 0)", "bin2hex(32, 0)"));
}

TEST_F(Login, NeitherReloadsNorSaves) {
  login(kSession, kResponse);
  login(kSession, "wrong");
  EXPECT_THAT(engine.operations(), ::testing::Not(::testing::Contains(::testing::StartsWith("Q7_Reload"))));
  EXPECT_THAT(engine.operations(), ::testing::Not(::testing::Contains(::testing::StartsWith("Q7_Save"))));
}

TEST_F(Login, PasswordValueThatFillsItsFieldCounts) {
  setField(user.passwd, std::string(127, 'p'));
  EXPECT_EQ(login(kSession, kResponseToPasswordOf127), value(kStart));
}

TEST_F(Login, PasswordValueMayHoldAnyBytes) {
  setField(user.passwd, "p\xC3\xA4ssw\xC3\xB6rd'\"\\");
  EXPECT_EQ(login(kSession, kResponseToUtf8Password), value(kStart));
}

TEST_F(Login, SuccessIsLoggedBeforeTheSessionBecomesValid) {
  time_t seen = 0;
  engine.onCall("lw_log", [&] { seen = g_userInfo[0].authTime; });
  login(kSession, kResponse);
  EXPECT_EQ(seen, -1);
}

TEST_F(Login, SuccessClearsFailuresAndLock) {
  user.authFailCount = 4;
  user.authLockTime = kStart + 500;
  EXPECT_EQ(login(kSession, kResponse), value(kStart));
  EXPECT_EQ(user.authFailCount, 0);
  EXPECT_EQ(user.authLockTime, 0);
}

TEST_F(Login, WrongResponseCountsAFailureAndEndsTheSession) {
  user.authTime = kStart - 10;
  EXPECT_EQ(login(kSession, kOtherResponse), value(-2));
  EXPECT_EQ(user.authFailCount, 1);
  EXPECT_EQ(user.authLockTime, kStart + 600);
  EXPECT_EQ(user.authTime, -1);
  EXPECT_STREQ(user.sessionId, std::string(kSession).c_str());
  expectOnlyEvent(4, kFailed);
}

TEST_F(Login, FailureIsLoggedAfterItWasCounted) {
  user.authTime = kStart;
  Q7UserInfo seen = {};
  engine.onCall("lw_log", [&] { seen = g_userInfo[0]; });
  login(kSession, "wrong");
  EXPECT_EQ(seen.authFailCount, 1);
  EXPECT_EQ(seen.authLockTime, kStart + 600);
  EXPECT_EQ(seen.authTime, -1);
}

TEST_F(Login, ResponseIsComparedWholeAndCaseSensitively) {
  const std::string right(kResponse);
  std::string upper = right;
  upper[0] = 'D';
  const std::vector<std::string> wrong = {upper,
                                          right.substr(0, 63),
                                          right.substr(1),
                                          right + "0",
                                          right + "\n",
                                          right + bytes("\0"),
                                          " " + right,
                                          "",
                                          bytes("\0"),
                                          std::string(64, '0'),
                                          std::string(100000, 'd')};
  for (const std::string& response : wrong) {
    user.authFailCount = 0;
    EXPECT_EQ(login(kSession, response), value(-2)) << conformance::inQuotes(response).substr(0, 80);
    EXPECT_EQ(user.authFailCount, 1);
  }
}

TEST_F(Login, ResponseToAnotherChallengeIsWrong) {
  setField(user.sessionId, kOtherSession);
  EXPECT_EQ(login(kOtherSession, kResponse), value(-2));
}

TEST_F(Login, UnknownSessionGivesMinusFour) {
  const std::string id(kSession);
  for (const std::string& session : {std::string(kOtherSession), id.substr(0, 63), id + "0", id + bytes("\0"),
                                     id + bytes("\0x"), std::string(), std::string(1000, '0')}) {
    EXPECT_EQ(login(session, kResponse), value(-4)) << conformance::inQuotes(session).substr(0, 80);
    EXPECT_THAT(engine.operations(), ElementsAre("logwCategory", "lw_get_category", "lw_log"));
    expectOnlyEvent(4, kFailed);
    EXPECT_EQ(refresh(session), value(-4));
    expectOnlyEvent(4, kFailed);
  }
  EXPECT_EQ(user.authFailCount, 0);
}

TEST_F(Login, WithoutAdministratorsGivesMinusFour) {
  g_numberOfUserInfo = 0;
  EXPECT_EQ(login(kSession, kResponse), value(-4));
  expectOnlyEvent(4, kFailed);
}

TEST_F(Login, MissingSessionIsAnErrorWithoutAnEvent) {
  EXPECT_EQ(call(kezu_conf_get_auth, Arguments().null()), failure(-1));
  EXPECT_EQ(call(kezu_conf_get_auth, Arguments().null().text(kResponse)), failure(-1));
  EXPECT_EQ(call(kezu_conf_get_auth, Arguments().null().null()), failure(-1));
  EXPECT_THAT(engine.calls(), IsEmpty());
}

TEST_F(Login, MissingResponseIsAnErrorWithTheFailureEvent) {
  user.authTime = kStart;
  EXPECT_EQ(call(kezu_conf_get_auth, Arguments{kSession}.null()), failure(0));
  expectOnlyEvent(4, kFailed);
  EXPECT_EQ(user.authFailCount, 0);
  EXPECT_EQ(user.authTime, kStart);
}

TEST_F(Login, MissingResponseToAnUnknownSessionGivesMinusFour) {
  EXPECT_EQ(call(kezu_conf_get_auth, Arguments{kOtherSession}.null()), value(-4));
}

TEST_F(Login, FailingDigestIsAnErrorThatCountsNothing) {
  for (const auto& results : {std::initializer_list<int>{1}, std::initializer_list<int>{0, -1}}) {
    engine.answerNext("Q7_HashBinary", results);
    EXPECT_EQ(login(kSession, kResponse), failure(0));
    EXPECT_EQ(engine.count("Q7_HashBinary"), results.size());
    expectOnlyEvent(4, kFailed);
    EXPECT_EQ(user.authFailCount, 0);
    EXPECT_EQ(user.authLockTime, 0);
    EXPECT_EQ(user.authTime, -1);
  }
}

// --- The lock ---

class Lock : public Login {
 protected:
  void SetUp() override {
    Login::SetUp();
    user.authFailCount = 5;
    user.authLockTime = kStart + 600;
  }
};

TEST_F(Lock, RefusesEvenTheCorrectResponseWithoutLookingAtIt) {
  EXPECT_EQ(login(kSession, kResponse), value(-3));
  EXPECT_EQ(engine.count("Q7_HashBinary"), 0U);
  EXPECT_EQ(user.authTime, -1);
  expectOnlyEvent(4, kLockedOut);
}

TEST_F(Lock, RefusedAttemptsDoNotMoveIt) {
  setTime(kStart + 300);
  EXPECT_EQ(login(kSession, "wrong"), value(-3));
  EXPECT_EQ(login(kSession, kResponse), value(-3));
  EXPECT_EQ(user.authFailCount, 5);
  EXPECT_EQ(user.authLockTime, kStart + 600);
}

TEST_F(Lock, LeavesTheRecordAsItIs) {
  user.authTime = kStart - 10;
  const Q7UserInfo before = user;
  EXPECT_EQ(login(kSession, kResponse), value(-3));
  EXPECT_EQ(login(kSession, "wrong"), value(-3));
  EXPECT_EQ(std::memcmp(&user, &before, sizeof user), 0);
}

TEST_F(Lock, HoldsAt599SecondsAndHasRunOutAt600) {
  setTime(kStart + 599);
  EXPECT_EQ(login(kSession, kResponse), value(-3));
  setTime(kStart + 600);
  EXPECT_EQ(login(kSession, kResponse), value(kStart + 600));
  EXPECT_EQ(user.authFailCount, 0);
  EXPECT_EQ(user.authLockTime, 0);
}

TEST_F(Lock, HasRunOutAt601) {
  setTime(kStart + 601);
  EXPECT_EQ(login(kSession, kResponse), value(kStart + 601));
}

TEST_F(Lock, CountsFromOneAgainAfterItHasRunOut) {
  setTime(kStart + 600);
  EXPECT_EQ(login(kSession, "wrong"), value(-2));
  EXPECT_EQ(user.authFailCount, 1);
  EXPECT_EQ(user.authLockTime, kStart + 1200);
  expectOnlyEvent(4, kFailed);
}

TEST_F(Lock, IsClearedBeforeTheResponseIsChecked) {
  setTime(kStart + 600);
  engine.answer("Q7_HashBinary", 1);
  EXPECT_EQ(login(kSession, kResponse), failure(0));
  EXPECT_EQ(user.authFailCount, 0);
  EXPECT_EQ(user.authLockTime, 0);
}

TEST_F(Lock, FourFailuresDoNotLock) {
  user.authFailCount = 4;
  EXPECT_EQ(login(kSession, kResponse), value(kStart));
}

TEST_F(Lock, AnyCountAboveFourLocks) {
  user.authFailCount = 1000;
  EXPECT_EQ(login(kSession, kResponse), value(-3));
  EXPECT_EQ(user.authFailCount, 1000);
}

TEST_F(Lock, MissingResponseIsAnErrorBeforeTheLockIsTested) {
  EXPECT_EQ(call(kezu_conf_get_auth, Arguments{kSession}.null()), failure(0));
  expectOnlyEvent(4, kFailed);
}

TEST_F(Lock, DoesNotStopTheRefreshOfALiveSession) {
  user.authTime = kStart;
  EXPECT_EQ(refresh(kSession), value(kStart));
  EXPECT_EQ(user.authFailCount, 5);
}

TEST_F(Lock, StandsForOneAdministratorOnly) {
  addUser("second", "other secret", kOtherSession, -1);
  EXPECT_EQ(login(kSession, kResponse), value(-3));
  EXPECT_EQ(login(kOtherSession, kOtherResponse), value(kStart));
}

TEST_F(Login, FiveWrongResponsesLockTheSixthAttemptFor600SecondsFromTheFifth) {
  for (int i = 0; i < 5; ++i) {
    setTime(kStart + 60 * i);
    EXPECT_EQ(login(kSession, "wrong"), value(-2)) << i;
  }
  EXPECT_EQ(user.authFailCount, 5);
  EXPECT_EQ(login(kSession, kResponse), value(-3));
  setTime(kStart + 240 + 599);
  EXPECT_EQ(login(kSession, kResponse), value(-3));
  setTime(kStart + 240 + 600);
  EXPECT_EQ(login(kSession, kResponse), value(kStart + 840));
  EXPECT_THAT(engine.events(),
              ElementsAre(isLoginEvent(4, kFailed), isLoginEvent(4, kFailed), isLoginEvent(4, kFailed),
                          isLoginEvent(4, kFailed), isLoginEvent(4, kFailed), isLoginEvent(4, kLockedOut),
                          isLoginEvent(4, kLockedOut), isLoginEvent(2, kSucceeded)));
}

TEST_F(Login, SuccessInBetweenStartsTheCountAgain) {
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(login(kSession, "wrong"), value(-2));
  }
  EXPECT_EQ(login(kSession, kResponse), value(kStart));
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(login(kSession, "wrong"), value(-2));
  }
  EXPECT_EQ(login(kSession, kResponse), value(-3));
}

// --- Several administrators ---

TEST_F(Login, AdministratorsLogInIndependently) {
  addUser("second", "other secret", kOtherSession, -1);
  EXPECT_EQ(login(kOtherSession, kOtherResponse), value(kStart));
  EXPECT_EQ(g_userInfo[0].authTime, -1);
  EXPECT_EQ(g_userInfo[1].authTime, kStart);
  EXPECT_EQ(login(kSession, "wrong"), value(-2));
  EXPECT_EQ(g_userInfo[0].authFailCount, 1);
  EXPECT_EQ(g_userInfo[1].authFailCount, 0);
  EXPECT_EQ(g_userInfo[1].authTime, kStart);
}

TEST_F(Login, ResponseOfOneAdministratorDoesNotServeAnother) {
  addUser("second", "other secret", kOtherSession, -1);
  EXPECT_EQ(login(kSession, kOtherResponse), value(-2));
  EXPECT_EQ(login(kOtherSession, kResponse), value(-2));
}

TEST_F(Login, FirstRecordWithTheSessionIsLoggedIn) {
  addUser("second", "other secret", kSession, -1);
  EXPECT_EQ(login(kSession, kResponse), value(kStart));
  EXPECT_EQ(g_userInfo[1].authTime, -1);
}

// --- One argument ---

class Refresh : public Login {
 protected:
  void SetUp() override {
    Login::SetUp();
    user.authTime = kStart;
  }
};

TEST_F(Refresh, LiveSessionGivesTheNewTime) {
  setTime(kStart + 299);
  EXPECT_EQ(refresh(kSession), value(kStart + 299));
  EXPECT_EQ(user.authTime, kStart + 299);
  EXPECT_EQ(engine.count("Q7_ReloadAllInfoIfChanged"), 1U);
  expectOnlyEvent(2, kSucceeded);
}

TEST_F(Refresh, IsLoggedAfterTheSessionWasRefreshed) {
  setTime(kStart + 100);
  time_t seen = 0;
  engine.onCall("lw_log", [&] { seen = g_userInfo[0].authTime; });
  refresh(kSession);
  EXPECT_EQ(seen, kStart + 100);
}

TEST_F(Refresh, SessionOf300SecondsIsRefusedAndInvalidated) {
  for (const int age : {300, 301}) {
    user.authTime = kStart;
    setTime(kStart + age);
    EXPECT_EQ(refresh(kSession), value(-1)) << age;
    EXPECT_EQ(user.authTime, -1) << age;
    expectOnlyEvent(4, kFailed);
  }
}

TEST_F(Refresh, SessionThatWasNeverProvenIsRefused) {
  user.authTime = -1;
  EXPECT_EQ(refresh(kSession), value(-1));
  expectOnlyEvent(4, kFailed);
}

TEST_F(Refresh, FailedReloadRefuses) {
  engine.answer("Q7_ReloadAllInfoIfChanged", 1);
  EXPECT_EQ(refresh(kSession), value(-1));
  EXPECT_EQ(user.authTime, kStart);
  expectOnlyEvent(4, kFailed);
}

TEST_F(Refresh, RefusalCountsNoFailure) {
  setTime(kStart + 300);
  refresh(kSession);
  EXPECT_EQ(user.authFailCount, 0);
  EXPECT_EQ(user.authLockTime, 0);
}

TEST_F(Refresh, KeepsFailuresThatWereCounted) {
  user.authFailCount = 3;
  user.authLockTime = kStart + 5;
  refresh(kSession);
  EXPECT_EQ(user.authFailCount, 3);
  EXPECT_EQ(user.authLockTime, kStart + 5);
}

// A reload can put another administrator where this one was, whose challenge must not become valid unproven.
TEST_F(Refresh, FollowsTheSessionThatAReloadMoves) {
  addUser("second", "other secret", kOtherSession, -1);
  engine.onCall("Q7_ReloadAllInfoIfChanged", [] { std::swap(g_userInfo[0], g_userInfo[1]); });
  setTime(kStart + 100);
  EXPECT_EQ(refresh(kSession), value(kStart + 100));
  EXPECT_STREQ(g_userInfo[1].id, "admin");
  EXPECT_EQ(g_userInfo[1].authTime, kStart + 100);
  EXPECT_EQ(g_userInfo[0].authTime, -1);
  expectOnlyEvent(2, kSucceeded);
}

TEST_F(Refresh, SessionThatAReloadRemovesIsRefused) {
  addUser("second", "other secret", kOtherSession, kStart);
  engine.onCall("Q7_ReloadAllInfoIfChanged", [] {
    g_userInfo[0] = g_userInfo[1];
    g_numberOfUserInfo = 1;
  });
  setTime(kStart + 100);
  EXPECT_EQ(refresh(kSession), value(-1));
  EXPECT_EQ(g_userInfo[0].authTime, kStart);
  expectOnlyEvent(4, kFailed);
}

TEST_F(Refresh, EmptySessionIsRefusedEvenWhereARecordHasNone) {
  addUser("second", "secret", "", kStart);
  EXPECT_EQ(refresh(""), value(-1));
  expectOnlyEvent(4, kFailed);
}

// --- The whole way ---

TEST_F(Conformance, ChallengeLoginUseAndExpiry) {
  addUser("admin", "secret", "", -1);
  engine.answer("RANDHASH_GetRandomNum.first", 0);
  const std::string session = call(kezu_conf_get_session_id, {"admin"}).text();
  ASSERT_EQ(session.size(), 64U);
  EXPECT_EQ(call(kezu_conf_check_session_auth, {session}), value(1)) << "not proven yet";
  EXPECT_EQ(call(kezu_conf_get_auth, {session, kResponseToFirstId}), value(kStart));
  EXPECT_EQ(call(kezu_conf_get_session_id, {"admin"}).text(), session);
  EXPECT_EQ(call(kezu_conf_check_session_auth, {session}), value(0));
  setTime(kStart + 299);
  EXPECT_EQ(call(kezu_conf_get_auth, {session}), value(kStart + 299));
  setTime(kStart + 299 + 300);
  EXPECT_EQ(call(kezu_conf_check_session_auth, {session}), value(1));
  EXPECT_EQ(call(kezu_conf_get_auth, {session}), value(-1));
}

// --- Several threads ---

TEST_F(Login, ThreadsShareTheRecordsWithoutTearingThem) {
  constexpr int kRounds = 300;
  engine.onCall("RANDHASH_GetRandomNum", [] { std::this_thread::yield(); });
  const auto repeat = [](auto work) {
    return std::thread([work] {
      for (int i = 0; i < kRounds; ++i) {
        work();
      }
    });
  };
  std::atomic<int> unexpected = 0;
  const auto oneOf = [&unexpected](const IntegerResult& result, std::initializer_list<long long> values) {
    if (result.is_null || result.error || std::find(values.begin(), values.end(), result.value) == values.end()) {
      ++unexpected;
    }
  };
  // Wrong responses end the session that right ones open, and each request after that draws a new id.
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.push_back(repeat([&] {
      const StringResult id = request();
      unexpected += id.pointer == user.sessionId && id.length == 64 ? 0 : 1;
    }));
    threads.push_back(repeat([&] { oneOf(login(kFirstId, kResponseToFirstId), {kStart, -2, -3, -4}); }));
    threads.push_back(repeat([&] { oneOf(login(kFirstId, "wrong"), {-2, -3, -4}); }));
    threads.push_back(repeat([&] { oneOf(refresh(kFirstId), {kStart, -1, -4}); }));
    threads.push_back(repeat([&] { oneOf(call(kezu_conf_check_session_auth, {kFirstId}), {0, 1, 2}); }));
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(unexpected, 0);
  EXPECT_EQ(std::strspn(user.sessionId, "0123456789abcdef"), 64U);
  EXPECT_STREQ(user.passwd, "secret");
}

// --- Failures inside ---

TEST_F(Login, ExceptionBecomesTheErrorFlag) {
  for (const char* operation : {"Q7_HashBinary", "bin2hex", "lw_log", "logwCategory", "lw_get_category"}) {
    engine.reset();
    addUser("admin", "secret", kSession, -1);
    engine.onCall(operation, [] { throw std::bad_alloc(); });
    EXPECT_EQ(login(kSession, kResponse), failure()) << operation;
  }
}

}  // namespace
}  // namespace conformance
