// SPDX-License-Identifier: Apache-2.0
//
// Replacing the administrator's password value: kezu_conf_set_passwd.
#include "conf/passwd.h"

#include "listing_checks.h"

namespace conformance {
namespace {

class Passwd : public LoggedIn {
 protected:
  static IntegerResult set(std::string_view passwd) { return call(kezu_conf_set_passwd, {kSession, passwd}); }

  // Puts administrators user0, user1, ... behind those that are there until there are so many.
  static void fillUsersTo(int count) {
    for (int i = g_numberOfUserInfo; i < count; ++i) {
      addUser("user" + std::to_string(i), "value" + std::to_string(i), "", -1);
    }
  }

  // All records, byte for byte.
  static std::string allRecords() { return {reinterpret_cast<const char*>(g_userInfo), sizeof g_userInfo}; }

  void expectNothingDone(const std::string& records_before, int count_before) {
    EXPECT_EQ(allRecords(), records_before);
    EXPECT_EQ(g_numberOfUserInfo, count_before);
    EXPECT_EQ(engine.count("Q7_SaveUserInfo"), 0U);
    EXPECT_THAT(engine.events(), IsEmpty());
  }

  Q7UserInfo& admin = g_userInfo[0];
};

TEST_F(Passwd, StoresTheValueAsGiven) {
  for (const std::string& passwd :
       {std::string("p"), std::string("new value"), std::string("\xC3\xA9\x80\xFF \t\n'")}) {
    EXPECT_EQ(set(passwd), value(2));
    EXPECT_STREQ(admin.passwd, passwd.c_str());
  }
}

TEST_F(Passwd, ShorterValueLeavesNothingOfTheOld) {
  EXPECT_EQ(set(std::string(100, 'x')), value(2));
  EXPECT_EQ(set("y"), value(2));
  EXPECT_EQ(std::string(admin.passwd, sizeof admin.passwd), "y" + std::string(127, '\0'));
}

TEST_F(Passwd, ReloadsThenLogsThenSaves) {
  set("new");
  EXPECT_THAT(engine.operations(),
              ElementsAre("Q7_ReloadAllInfoIfChanged", "logwCategory", "lw_get_category", "lw_log", "Q7_SaveUserInfo"));
}

TEST_F(Passwd, WritesItsEventWithoutTheValue) {
  set("new");
  EXPECT_THAT(engine.events(), ElementsAre(IsEvent(2, "group", "policy", "SET", "user admin", "result", "success")));
}

TEST_F(Passwd, SessionAndFailureFieldsStay) {
  admin.authTime = kStart - 299;
  admin.authFailCount = 3;
  admin.authLockTime = 77;
  EXPECT_EQ(set("new"), value(2));
  EXPECT_EQ(admin.sessionId, kSession);
  EXPECT_EQ(admin.authTime, kStart - 299);
  EXPECT_EQ(admin.authFailCount, 3);
  EXPECT_EQ(admin.authLockTime, 77);
  EXPECT_STREQ(admin.id, "admin");
  EXPECT_EQ(set("newer"), value(2)) << "the caller stays logged in";
}

TEST_F(Passwd, SaveIsNotLookedAt) {
  for (const int save : {-1, 1, -3, 5}) {
    engine.answer("Q7_SaveUserInfo", save);
    engine.clearJournal();
    EXPECT_EQ(set("value " + std::to_string(save)), value(2)) << save;
    EXPECT_EQ(admin.passwd, "value " + std::to_string(save));
    EXPECT_EQ(engine.events().size(), 1U);
    EXPECT_EQ(engine.count("Q7_SaveUserInfo"), 1U);
  }
}

// --- Lengths ---

TEST_F(Passwd, ValueOf127BytesFitsAndTheSessionStays) {
  const std::string passwd(127, 'p');
  EXPECT_EQ(set(passwd), value(2));
  EXPECT_EQ(admin.passwd, passwd);
  EXPECT_EQ(admin.sessionId, kSession);
}

TEST_F(Passwd, ValueOf128BytesFillsTheFieldAndEndsTheSession) {
  const std::string passwd(128, 'p');
  EXPECT_EQ(set(passwd), value(2));
  EXPECT_EQ(std::string_view(admin.passwd, 128), passwd);
  EXPECT_EQ(admin.sessionId[0], '\0');
  EXPECT_EQ(std::string_view(admin.sessionId + 1), kSession.substr(1)) << "only its first byte is touched";
  EXPECT_EQ(admin.authTime, kStart);
  EXPECT_EQ(engine.events().size(), 1U);
  EXPECT_EQ(engine.count("Q7_SaveUserInfo"), 1U);
  EXPECT_EQ(set("again"), sqlNull());
}

TEST_F(Passwd, ValueOf128BytesDoesNotEndTheSessionOfAnother) {
  addUser("other", "o", kOtherSession, kStart);
  EXPECT_EQ(call(kezu_conf_set_passwd, {kOtherSession, std::string(128, 'p')}), value(2));
  EXPECT_STREQ(g_userInfo[0].sessionId, "");
  EXPECT_EQ(g_userInfo[1].sessionId, kOtherSession);
}

TEST_F(Passwd, LongerValueGivesMinusOneAndChangesNothing) {
  const std::string before = allRecords();
  for (const std::size_t length : {129U, 130U, 256U, 100000U}) {
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(set(std::string(length, 'p')), value(-1)) << length;
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    expectNothingDone(before, 1);
  }
}

TEST_F(Passwd, ValueWithAZeroByteGivesMinusOneAndChangesNothing) {
  const std::string before = allRecords();
  EXPECT_EQ(set(bytes("a\0b")), value(-1));
  EXPECT_EQ(set(bytes("a\0")), value(-1));
  expectNothingDone(before, 1);
}

// --- Which record ---

TEST_F(Passwd, IsThatOfAdminWhoeverTheSessionBelongsTo) {
  addUser("other", "o", kOtherSession, kStart);
  EXPECT_EQ(call(kezu_conf_set_passwd, {kOtherSession, "new"}), value(2));
  EXPECT_STREQ(g_userInfo[0].passwd, "new");
  EXPECT_STREQ(g_userInfo[1].passwd, "o");
  EXPECT_EQ(g_numberOfUserInfo, 2);
}

TEST_F(Passwd, FirstRecordNamedAdminIsWritten) {
  setField(admin.id, "Admin");
  addUser("admin2", "b", "", -1);
  addUser("admi", "c", "", -1);
  addUser("admin", "d", "", -1);
  addUser("admin", "e", "", -1);
  EXPECT_EQ(set("new"), value(2));
  EXPECT_STREQ(g_userInfo[0].passwd, "secret");
  EXPECT_STREQ(g_userInfo[1].passwd, "b");
  EXPECT_STREQ(g_userInfo[2].passwd, "c");
  EXPECT_STREQ(g_userInfo[3].passwd, "new");
  EXPECT_STREQ(g_userInfo[4].passwd, "e");
  EXPECT_EQ(g_numberOfUserInfo, 5);
}

TEST_F(Passwd, WithoutARecordNamedAdminOneIsAppended) {
  setField(admin.id, "other");
  EXPECT_EQ(set("new"), value(2));
  EXPECT_EQ(g_numberOfUserInfo, 2);
  EXPECT_STREQ(g_userInfo[1].id, "admin");
  EXPECT_STREQ(g_userInfo[1].passwd, "new");
  EXPECT_STREQ(g_userInfo[0].passwd, "secret");
}

TEST_F(Passwd, OtherFieldsOfANewRecordStayAsTheyWere) {
  setField(admin.id, "other");
  setField(g_userInfo[1].sessionId, "stale");
  g_userInfo[1].authTime = 12;
  g_userInfo[1].authFailCount = 34;
  g_userInfo[1].authLockTime = 56;
  EXPECT_EQ(set("new"), value(2));
  EXPECT_STREQ(g_userInfo[1].sessionId, "stale");
  EXPECT_EQ(g_userInfo[1].authTime, 12);
  EXPECT_EQ(g_userInfo[1].authFailCount, 34);
  EXPECT_EQ(g_userInfo[1].authLockTime, 56);
}

TEST_F(Passwd, NewRecordIsLoggedBeforeItIsCountedAndCountedBeforeTheSave) {
  setField(admin.id, "other");
  int count_at_log = -1;
  std::string passwd_at_log;
  int count_at_save = -1;
  engine.onCall("lw_log", [&] {
    count_at_log = g_numberOfUserInfo;
    passwd_at_log = g_userInfo[1].passwd;
  });
  engine.onCall("Q7_SaveUserInfo", [&] { count_at_save = g_numberOfUserInfo; });
  EXPECT_EQ(set("new"), value(2));
  EXPECT_EQ(count_at_log, 1);
  EXPECT_EQ(passwd_at_log, "new");
  EXPECT_EQ(count_at_save, 2);
}

TEST_F(Passwd, FifteenthRecordCanBeTaken) {
  setField(admin.id, "other");
  fillUsersTo(14);
  EXPECT_EQ(set("new"), value(2));
  EXPECT_EQ(g_numberOfUserInfo, 15);
  EXPECT_STREQ(g_userInfo[14].id, "admin");
}

TEST_F(Passwd, SixteenthRecordCanNot) {
  setField(admin.id, "other");
  for (const int count : {15, 16}) {
    fillUsersTo(count);
    const std::string before = allRecords();
    for (const std::string& passwd : {std::string("new"), std::string(129, 'p')}) {
      ::testing::internal::CaptureStdout();
      EXPECT_EQ(set(passwd), value(-1)) << count;
      EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Too many users.\n");
      expectNothingDone(before, count);
    }
  }
}

TEST_F(Passwd, AdminInTheSixteenthRecordCanNotBeChanged) {
  setField(admin.id, "other");
  fillUsersTo(15);
  addUser("admin", "old", "", -1);
  const std::string before = allRecords();
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(set("new"), value(-1));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Too many users.\n");
  expectNothingDone(before, 16);
}

TEST_F(Passwd, AdminInAFullTableCanBeChanged) {
  setField(admin.id, "other");
  fillUsersTo(14);
  addUser("admin", "old", "", -1);
  fillUsersTo(16);
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(set("new"), value(2));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_STREQ(g_userInfo[14].passwd, "new");
  EXPECT_EQ(g_numberOfUserInfo, 16);
}

class SetPasswd : public Conformance {};

TEST_F(SetPasswd, WithNoRecordsAdminBecomesTheFirst) {
  EXPECT_EQ(setPasswd("admin", "first"), 0);
  EXPECT_EQ(g_numberOfUserInfo, 1);
  EXPECT_STREQ(g_userInfo[0].id, "admin");
  EXPECT_STREQ(g_userInfo[0].passwd, "first");
  EXPECT_EQ(engine.events().size(), 1U);
  EXPECT_EQ(engine.count("Q7_SaveUserInfo"), 0U) << "the caller saves";
}

TEST_F(SetPasswd, WithANegativeCountTheFirstRecordIsWritten) {
  addUser("other", "o", "", -1);
  g_numberOfUserInfo = -1;
  EXPECT_EQ(setPasswd("admin", "first"), 0);
  EXPECT_STREQ(g_userInfo[0].id, "admin");
  EXPECT_STREQ(g_userInfo[0].passwd, "first");
  EXPECT_EQ(g_numberOfUserInfo, -1);
}

TEST_F(SetPasswd, ReturnsTheIndexThatWasWritten) {
  addUser("a", "", "", -1);
  addUser("b", "", "", -1);
  EXPECT_EQ(setPasswd("b", "one"), 1);
  EXPECT_EQ(setPasswd("c", "two"), 2);
  EXPECT_STREQ(g_userInfo[1].passwd, "one");
  EXPECT_STREQ(g_userInfo[2].passwd, "two");
  EXPECT_EQ(g_numberOfUserInfo, 3);
}

TEST_F(SetPasswd, IdPastItsFieldIsRefused) {
  EXPECT_EQ(setPasswd(std::string(64, 'i'), "p"), 0);
  EXPECT_EQ(setPasswd(std::string(65, 'i'), "p"), -1);
  EXPECT_EQ(g_numberOfUserInfo, 1);
}

// --- Refusals ---

TEST_F(Passwd, WithoutALiveSessionIsNullAndNothingIsDone) {
  const std::string passwd = admin.passwd;
  expectNullFlagUnderEachRefusal(kezu_conf_set_passwd, [] { return arguments({kSession, "new"}); });
  EXPECT_EQ(admin.passwd, passwd);
  EXPECT_THAT(engine.events(), IsEmpty());
  EXPECT_EQ(engine.count("Q7_SaveUserInfo"), 0U);
}

TEST_F(Passwd, WithoutAValueIsNullAndNothingIsDone) {
  const std::string before = allRecords();
  EXPECT_EQ(call(kezu_conf_set_passwd, {kSession}), sqlNull());
  EXPECT_EQ(call(kezu_conf_set_passwd, Arguments()), sqlNull());
  expectNothingDone(before, 1);
}

TEST_F(Passwd, ExceptionBecomesTheErrorFlag) {
  expectErrorWhenThrown(
      {"Q7_ReloadAllInfoIfChanged", "logwCategory", "lw_log", "Q7_SaveUserInfo"}, [] {},
      [] { return set("new") == failure(); });
}

}  // namespace
}  // namespace conformance
