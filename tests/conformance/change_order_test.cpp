// SPDX-License-Identifier: Apache-2.0
//
// Two connections that change the same table: whatever a function decides by, it looks up in the change in which it
// acts on it. Each test lets another connection's change come in at the last moment before the function's own.
#include <functional>

#include "kezu/shared.h"
#include "listing_checks.h"
#include "policy_fixture.h"

namespace conformance {
namespace {

class ChangeOrder : public LoggedIn {
 protected:
  void TearDown() override {
    beforeChanges(nullptr);
    EXPECT_FALSE(awaited) << "the function began no change";
    LoggedIn::TearDown();
  }

  // Makes `other` come before the function's change, the second that it begins: the session check is one as well. It
  // must do with `all` of them: what is found in one and changed in another may have become something else between.
  void comesFirst(std::function<void()> other, int change = 2, int all = 2) {
    EXPECT_FALSE(awaited) << "the function before began no change";
    awaited = true;
    beforeChanges([this, change, all, other = std::move(other)](int number) {
      EXPECT_LE(number, all) << "the function began one change more";
      if (number == change) {
        awaited = false;
        other();
      }
    });
  }

  // Another connection's reload: what is in the table is something else, and what the function stored before its change
  // is gone.
  template <typename T>
  static std::function<void()> reloads(T& shared, T value) {
    return [&shared, value] { kezu::publish(shared, value); };
  }

  static Arguments policy(std::string_view name) {
    Arguments made{kSession, name};
    made.number(2).number(1).number(0).number(0).number(5).number(0).text("NULL");
    return made;
  }
  static void addColumn(std::string_view column, std::string_view policy = "p") {
    Q7EncColumnInfo& record = g_encColumnInfoArray[g_numberOfEncColumn++];
    setField(record.owner, "db");
    setField(record.table, "t");
    setField(record.column, column);
    setField(record.policyID, policy);
  }
  // One field of the records of a table.
  template <typename Record, std::size_t Capacity, std::size_t Size>
  static std::vector<std::string> fieldOf(const Record (&records)[Capacity], int count, char (Record::*field)[Size]) {
    std::vector<std::string> texts;
    for (int i = 0; i < count; ++i) {
      texts.emplace_back(records[i].*field);
    }
    return texts;
  }
  static std::vector<std::string> columns() {
    return fieldOf(g_encColumnInfoArray, g_numberOfEncColumn, &Q7EncColumnInfo::column);
  }
  static std::vector<std::string> accessUsers() {
    return fieldOf(g_accessPrivArray, g_numberOfAccessPriv, &Q7AccessPriv::user);
  }
  static std::vector<std::string> encUsers() { return fieldOf(g_encPrivArray, g_numberOfEncPriv, &Q7EncPriv::user); }
  static void addRow(std::string_view user) {
    Q7AccessPriv& access = g_accessPrivArray[g_numberOfAccessPriv++];
    setField(access.ip, "ip");
    setField(access.user, user);
    setField(access.owner, "db");
    setField(access.table, "t");
    setField(access.column, "c");
    Q7EncPriv& row = g_encPrivArray[g_numberOfEncPriv++];
    setField(row.user, user);
    setField(row.owner, "db");
    setField(row.table, "t");
    setField(row.column, "c");
  }
  static void addCommand(std::string_view table) {
    Q7TableInfo& record = g_tableInfo[g_numberOftableInfo++];
    setField(record.owner, "db");
    setField(record.table, table);
    setField(record.demigrationCmd, "before");
  }

  // The administrators stand the other way round, as after a reload of what kezu-admin saved.
  static void swapAdministrators() { std::swap(g_userInfo[0], g_userInfo[1]); }

  Q7UserInfo& user = g_userInfo[0];
  bool awaited = false;  // the other change is still to come
};

// --- Policies ---

TEST_F(ChangeOrder, PolicyIsMadeBesideTheOneThatCameFirst) {
  comesFirst([] { addPolicy(0, "other"); });
  EXPECT_EQ(call(kezu_conf_set_policy, policy("p")), value(1));
  EXPECT_THAT(activePolicyNames(), ElementsAre("other", "p"));
}

TEST_F(ChangeOrder, PolicyThatCameFirstIsNotMadeTwice) {
  comesFirst([] { addPolicy(0, "p"); });
  EXPECT_EQ(call(kezu_conf_set_policy, policy("p")), value(0));
  EXPECT_THAT(activePolicyNames(), ElementsAre("p"));
}

TEST_F(ChangeOrder, PolicyIsMadeInTheSlotBehindTheActiveOne) {
  addPolicy(0, "old");
  comesFirst([] {
    addPolicy(1, "old");
    addPolicy(1, "other");
    g_encPolicyArray_flag = 1;
  });
  EXPECT_EQ(call(kezu_conf_set_policy, policy("p")), value(1));
  EXPECT_EQ(g_encPolicyArray_flag, 2);
  EXPECT_THAT(activePolicyNames(), ElementsAre("old", "other", "p"));
}

TEST_F(ChangeOrder, PolicyIsRefusedInTheModeThatCameFirst) {
  comesFirst(reloads(g_kmsMode, Q7_ONLY_KMS_MODE));
  EXPECT_EQ(call(kezu_conf_set_policy, policy("p")), value(-4));
  EXPECT_THAT(activePolicyNames(), IsEmpty());
}

TEST_F(ChangeOrder, PolicyIsDeletedWhereItStandsNow) {
  for (const char* name : {"one", "two", "three"}) {
    addPolicy(0, name);
  }
  comesFirst([] {
    addPolicy(1, "two");
    addPolicy(1, "three");
    g_encPolicyArray_flag = 1;
  });
  EXPECT_EQ(call(kezu_conf_set_policy, {kSession, "two"}), value(3));
  EXPECT_THAT(activePolicyNames(), ElementsAre("three"));
}

TEST_F(ChangeOrder, PolicyOfAColumnThatCameFirstIsNotDeleted) {
  addPolicy(0, "p");
  comesFirst([] { addColumn("c"); });
  EXPECT_EQ(call(kezu_conf_set_policy, {kSession, "p"}), value(0));
  EXPECT_THAT(activePolicyNames(), ElementsAre("p"));
}

TEST_F(ChangeOrder, CachedPoliciesAreSavedInTheModeThatCameFirst) {
  comesFirst(reloads(g_kmsMode, Q7_CACHED_KMS_MODE));
  EXPECT_EQ(call(kezu_conf_set_policy, {kSession}), value(1));
  EXPECT_EQ(engine.count("Q7_SavePolicyInfo"), 1U);
}

// --- Columns, privileges, commands, rules ---

TEST_F(ChangeOrder, ColumnIsAddedBehindTheOneThatCameFirst) {
  comesFirst([] { addColumn("other"); });
  EXPECT_EQ(call(kezu_conf_set_column, {kSession, "db", "t", "c", "p"}), value(1));
  EXPECT_THAT(columns(), ElementsAre("other", "c"));
}

TEST_F(ChangeOrder, ColumnThatCameFirstIsNotAddedTwice) {
  comesFirst([] { addColumn("c"); });
  EXPECT_EQ(call(kezu_conf_set_column, {kSession, "db", "t", "c", "p"}), sqlNull());
  EXPECT_THAT(columns(), ElementsAre("c"));
}

TEST_F(ChangeOrder, ColumnIsRemovedWhereItStandsNow) {
  addColumn("c");
  addColumn("other");
  comesFirst([] { std::swap(g_encColumnInfoArray[0], g_encColumnInfoArray[1]); });
  EXPECT_EQ(call(kezu_conf_set_column, {kSession, "db", "t", "c"}), value(3));
  EXPECT_THAT(columns(), ElementsAre("other"));
}

TEST_F(ChangeOrder, PrivilegeIsAddedBehindTheOneThatCameFirst) {
  comesFirst([] { addRow("other"); });
  EXPECT_EQ(call(kezu_conf_set_accepriv, arguments({kSession, "ip", "u", "db", "t", "c"}, {1})), value(1));
  EXPECT_THAT(accessUsers(), ElementsAre("other", "u"));
  comesFirst([] { addRow("another"); });
  EXPECT_EQ(call(kezu_conf_set_encpriv, arguments({kSession, "u", "db", "t", "c"}, {1, 1})), value(1));
  EXPECT_THAT(encUsers(), ElementsAre("other", "another", "u"));
}

TEST_F(ChangeOrder, PrivilegeThatCameFirstIsChangedInstead) {
  comesFirst([] { addRow("u"); });
  EXPECT_EQ(call(kezu_conf_set_accepriv, arguments({kSession, "ip", "u", "db", "t", "c"}, {1})), value(2));
  EXPECT_THAT(accessUsers(), ElementsAre("u"));
  EXPECT_EQ(g_accessPrivArray[0].priv, 1);
  g_numberOfEncPriv = 0;
  comesFirst([] { addRow("u"); });
  EXPECT_EQ(call(kezu_conf_set_encpriv, arguments({kSession, "u", "db", "t", "c"}, {0, 1})), value(2));
  EXPECT_THAT(encUsers(), ElementsAre("u"));
  EXPECT_EQ(g_encPrivArray[0].dec_priv, 1);
}

TEST_F(ChangeOrder, PrivilegeIsDeletedWhereItStandsNow) {
  addRow("u");
  addRow("other");
  comesFirst([] { std::swap(g_accessPrivArray[0], g_accessPrivArray[1]); });
  EXPECT_EQ(call(kezu_conf_set_accepriv, {kSession, "ip", "u", "db", "t", "c"}), value(3));
  EXPECT_THAT(accessUsers(), ElementsAre("other"));
  comesFirst([] { std::swap(g_encPrivArray[0], g_encPrivArray[1]); });
  EXPECT_EQ(call(kezu_conf_set_encpriv, {kSession, "u", "db", "t", "c"}), value(3));
  EXPECT_THAT(encUsers(), ElementsAre("other"));
}

// These functions take no session: their change is the first that they begin.
TEST_F(ChangeOrder, CommandThatCameFirstIsChangedInstead) {
  comesFirst([] { addCommand("t"); }, 1, 1);
  EXPECT_EQ(call(kezu_conf_set_tableinfo, {"db", "t", "after"}), value(2));
  EXPECT_EQ(g_numberOftableInfo, 1);
  EXPECT_STREQ(g_tableInfo[0].demigrationCmd, "after");
}

TEST_F(ChangeOrder, CommandIsDeletedWhereItStandsNow) {
  addCommand("t");
  addCommand("other");
  comesFirst([] { std::swap(g_tableInfo[0], g_tableInfo[1]); }, 1, 1);
  EXPECT_EQ(call(kezu_conf_set_tableinfo, {"db", "t"}), value(3));
  EXPECT_EQ(g_numberOftableInfo, 1);
  EXPECT_STREQ(g_tableInfo[0].table, "other");
}

TEST_F(ChangeOrder, RuleIsStoredInTheRulesThatAReloadLeft) {
  comesFirst([] { g_numberOfQueryPriv = 0; });
  EXPECT_EQ(call(kezu_conf_set_querypriv, arguments({kSession, "SELECT", "x", "NULL", "NULL"}, {1})), value(1));
  EXPECT_EQ(g_numberOfQueryPriv, 1);
}

TEST_F(ChangeOrder, RuleThatAReloadBroughtIsDeleted) {
  call(kezu_conf_set_querypriv, arguments({kSession, "SELECT", "x", "NULL", "NULL"}, {1}));
  g_numberOfQueryPriv = 0;
  comesFirst([] { g_numberOfQueryPriv = 1; });
  EXPECT_EQ(call(kezu_conf_set_querypriv, {kSession, "SELECT", "x", "NULL", "NULL"}), value(3));
  EXPECT_EQ(g_numberOfQueryPriv, 0);
}

// --- Modes and flags ---

TEST_F(ChangeOrder, ModeIsWhatWasSetLast) {
  comesFirst(reloads(g_accessControlMode, Q7_ACCESS_ALLOW_PRIOR));
  EXPECT_EQ(call(kezu_conf_set_env, arguments({kSession}, {0, 1})), value(1));
  EXPECT_EQ(g_accessControlMode, Q7_ACCESS_DENY_PRIOR);
  comesFirst(reloads(g_decryptDenyMode, Q7_DECRYPT_DENY_ERROR));
  EXPECT_EQ(call(kezu_conf_set_env, arguments({kSession}, {1, 2})), value(1));
  EXPECT_EQ(g_decryptDenyMode, Q7_DECRYPT_DENY_EMPTY_DATA);
  comesFirst(reloads(g_doubleEncryptMode, 0));
  EXPECT_EQ(call(kezu_conf_set_env, arguments({kSession}, {2, 1})), value(1));
  EXPECT_EQ(g_doubleEncryptMode, 1);
}

TEST_F(ChangeOrder, LogFlagIsWhatWasSetLast) {
  comesFirst(reloads(g_logInfo.queryLog, 0));
  EXPECT_EQ(call(kezu_conf_set_log_flag, arguments({kSession}, {2, 1})), value(1));
  EXPECT_EQ(g_logInfo.queryLog, 1);
}

TEST_F(ChangeOrder, KeyServerModeIsNotSetPastTheOneThatCameFirst) {
  comesFirst(reloads(g_kmsMode, Q7_CACHED_KMS_MODE));
  EXPECT_EQ(call(kezu_conf_set_kms_mode, arguments({kSession}, {Q7_ONLY_KMS_MODE})), value(-6));
  EXPECT_EQ(g_kmsMode, Q7_CACHED_KMS_MODE);
}

TEST_F(ChangeOrder, KeyServerModeIsNotSetOverAPolicyThatCameFirst) {
  comesFirst([] { addPolicy(0, "p"); });
  EXPECT_EQ(call(kezu_conf_set_kms_mode, arguments({kSession}, {Q7_ONLY_KMS_MODE})), value(-3));
  EXPECT_EQ(g_kmsMode, Q7_NO_KMS_MODE);
}

TEST_F(ChangeOrder, PoliciesThatCameFirstAreDiscardedWithTheMode) {
  comesFirst([] {
    addPolicy(1, "p");
    g_encPolicyArray_flag = 1;
  });
  EXPECT_EQ(call(kezu_conf_set_kms_mode, arguments({kSession}, {Q7_NO_KMS_MODE})), value(1));
  EXPECT_THAT(activePolicyNames(), IsEmpty());
  EXPECT_EQ(g_makeKeyArray[1][0], nullptr);
}

// --- Administrators ---

TEST_F(ChangeOrder, PasswordGoesToTheAdministratorWhoStandsElsewhereNow) {
  addUser("other", "theirs", "none", -1);
  comesFirst(swapAdministrators);
  EXPECT_EQ(call(kezu_conf_set_passwd, {kSession, "new"}), value(2));
  EXPECT_STREQ(g_userInfo[0].passwd, "theirs");
  EXPECT_STREQ(g_userInfo[1].passwd, "new");
}

TEST_F(ChangeOrder, SessionIsRefreshedWhereItStandsNow) {
  addUser("other", "theirs", kOtherSession, -1);
  int admin = 0;
  const auto expectRefreshed = [&] {
    admin = 1 - admin;
    EXPECT_STREQ(g_userInfo[admin].id, "admin");
    EXPECT_EQ(g_userInfo[admin].authTime, kStart + 10);
    EXPECT_EQ(g_userInfo[1 - admin].authTime, -1) << "a session that nobody proved";
    g_userInfo[admin].authTime = kStart;
  };
  setTime(kStart + 10);
  for (const int change : {1, 2}) {
    comesFirst(swapAdministrators, change);
    EXPECT_EQ(call(kezu_conf_get_auth, {kSession}), value(kStart + 10)) << change;
    expectRefreshed();
  }
  comesFirst(swapAdministrators, 1, 1);
  EXPECT_EQ(call(kezu_conf_check_session_auth, {kSession}), value(0));
  expectRefreshed();
}

TEST_F(ChangeOrder, SessionThatExpiredElsewhereIsEndedThere) {
  addUser("other", "theirs", kOtherSession, kStart + 300);
  setTime(kStart + 300);
  comesFirst(swapAdministrators, 1, 1);
  EXPECT_EQ(call(kezu_conf_get_column, {kSession}).pointer, nullptr);
  EXPECT_EQ(g_userInfo[0].authTime, kStart + 300);
  EXPECT_EQ(g_userInfo[1].authTime, -1);
}

TEST_F(ChangeOrder, ChallengeThatWasReplacedProvesNothing) {
  comesFirst([this] { setField(user.sessionId, kOtherSession); }, 1, 1);
  EXPECT_EQ(call(kezu_conf_get_auth, {kSession, "wrong"}), value(-4));
  EXPECT_EQ(user.authFailCount, 0);
}

TEST_F(ChangeOrder, ResponseIsNotCheckedPastTheFailuresThatCameFirst) {
  comesFirst(
      [this] {
        user.authFailCount = 5;
        user.authLockTime = kStart + 600;
      },
      1, 1);
  EXPECT_EQ(call(kezu_conf_get_auth, {kSession, "wrong"}), value(-3));
  EXPECT_EQ(user.authFailCount, 5);
}

TEST_F(ChangeOrder, LoginThatCameFirstIsGivenItsSession) {
  user.authTime = -1;
  comesFirst(
      [this] {
        setField(user.sessionId, kOtherSession);
        user.authTime = kStart;
      },
      1, 1);
  EXPECT_EQ(call(kezu_conf_get_session_id, {"admin"}).text(), kOtherSession);
}

}  // namespace
}  // namespace conformance
