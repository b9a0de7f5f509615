// SPDX-License-Identifier: Apache-2.0
//
// The audit flags: kezu_conf_set_log_flag and kezu_conf_get_log_flag.
#include "listing_checks.h"

namespace conformance {
namespace {

class LogFlag : public LoggedIn {
 protected:
  static IntegerResult set(long long col, long long val) {
    return call(kezu_conf_set_log_flag, arguments({kSession}, {col, val}));
  }
  static StringResult get(long long col) { return call(kezu_conf_get_log_flag, arguments({kSession}, {col})); }

  static std::vector<int> flags() {
    return {g_logInfo.encLogFlag, g_logInfo.decLogFlag, g_logInfo.denyLog, g_logInfo.accessLog, g_logInfo.queryLog};
  }

  void expectNothingDone() {
    EXPECT_THAT(flags(), ElementsAre(0, 0, 0, 0, 0));
    EXPECT_THAT(engine.events(), IsEmpty());
    EXPECT_THAT(engine.operations(), ::testing::Each(std::string("Q7_ReloadAllInfoIfChanged")));
  }
};

struct FlagName {
  int col;
  const char* name;
};
constexpr FlagName kFlags[] = {{0, "DENY"}, {1, "ACCESS"}, {2, "QUERY"}};
constexpr int kValues[] = {0, 1, 2, -1, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()};

TEST_F(LogFlag, EachIsStoredInItsFieldAlone) {
  EXPECT_EQ(set(0, 11), value(1));
  EXPECT_THAT(flags(), ElementsAre(0, 0, 11, 0, 0));
  EXPECT_EQ(set(1, 22), value(1));
  EXPECT_THAT(flags(), ElementsAre(0, 0, 11, 22, 0));
  EXPECT_EQ(set(2, 33), value(1));
  EXPECT_THAT(flags(), ElementsAre(0, 0, 11, 22, 33));
}

TEST_F(LogFlag, ChangeWritesItsEvent) {
  for (const FlagName& flag : kFlags) {
    for (const int val : kValues) {
      engine.clearJournal();
      EXPECT_EQ(set(flag.col, val), value(1));
      EXPECT_THAT(engine.events(),
                  ElementsAre(IsEvent(2, "group", "policy", "desc",
                                      std::string("SET LOG FLAG ") + flag.name + " = " + std::to_string(val))));
    }
  }
}

TEST_F(LogFlag, ValueReadsBackAsGiven) {
  for (const FlagName& flag : kFlags) {
    for (const int val : kValues) {
      set(flag.col, val);
      const StringResult result = get(flag.col);
      EXPECT_THAT(result, IsText(std::to_string(val)));
      EXPECT_TRUE(result.isInServerBuffer());
      EXPECT_TRUE(isTerminated(result));
      EXPECT_TRUE(result.isGuardIntact(17));
    }
  }
}

TEST_F(LogFlag, IsStoredThenLoggedThenSavedWithThePolicies) {
  std::vector<int> at_log;
  engine.onCall("lw_log", [&] { at_log = flags(); });
  set(1, 1);
  EXPECT_THAT(at_log, ElementsAre(0, 0, 0, 1, 0));
  EXPECT_THAT(engine.operations(), ElementsAre("Q7_ReloadAllInfoIfChanged", "logwCategory", "lw_get_category", "lw_log",
                                               "Q7_SavePolicyInfo"));
}

TEST_F(LogFlag, SaveResultsAreToldApartAndTheValueAndTheEventStay) {
  const std::vector<std::pair<int, long long>> results = {{0, 1}, {-1, -2}, {-3, -5}, {1, 1}, {-2, 1}, {-5, 1}, {3, 1}};
  int val = 0;
  for (const auto& [save, expected] : results) {
    ++val;
    engine.clearJournal();
    engine.answer("Q7_SavePolicyInfo", save);
    EXPECT_EQ(set(2, val), value(expected)) << save;
    EXPECT_EQ(g_logInfo.queryLog, val);
    EXPECT_EQ(engine.events().size(), 1U);
    EXPECT_THAT(get(2), IsText(std::to_string(val)));
  }
}

TEST_F(LogFlag, UnknownColumnIsAnErrorAndNothingIsDone) {
  for (const long long col : {3LL, 5LL, -1LL, -2LL, 0x7FFFFFFFLL, 0xFFFFFFFFLL}) {
    EXPECT_EQ(set(col, 1), failure()) << col;
    EXPECT_THAT(get(col), IsNullWithErrorAndLength()) << col;
    expectNothingDone();
  }
}

TEST_F(LogFlag, ArgumentsAreReadAsTheirLow32Bits) {
  EXPECT_EQ(set(0x100000001LL, 0x100000005LL), value(1));
  EXPECT_EQ(g_logInfo.accessLog, 5);
  EXPECT_THAT(get(0x300000001LL), IsText("5"));
}

TEST_F(LogFlag, OtherArgumentCountsAreAnErrorBeforeTheSessionCheck) {
  EXPECT_EQ(call(kezu_conf_set_log_flag, Arguments()), failure());
  EXPECT_EQ(call(kezu_conf_set_log_flag, {kSession}), failure());
  EXPECT_EQ(call(kezu_conf_set_log_flag, arguments({kSession}, {1})), failure());
  EXPECT_EQ(call(kezu_conf_set_log_flag, arguments({kSession}, {1, 1, 1})), failure());
  EXPECT_THAT(call(kezu_conf_get_log_flag, Arguments()), IsNullWithError());
  EXPECT_THAT(call(kezu_conf_get_log_flag, {kSession}), IsNullWithError());
  EXPECT_THAT(call(kezu_conf_get_log_flag, arguments({kSession}, {1, 1})), IsNullWithError());
  EXPECT_THAT(engine.calls(), IsEmpty());
}

TEST_F(LogFlag, WithoutALiveSessionIsNullAndNothingIsDone) {
  for (const long long col : {0LL, 5LL}) {
    expectNullFlagUnderEachRefusal(kezu_conf_set_log_flag, [col] { return arguments({kSession}, {col, 1}); });
    expectNullUnderEachRefusal(kezu_conf_get_log_flag, [col] { return arguments({kSession}, {col}); });
  }
  expectNothingDone();
}

TEST_F(LogFlag, ExceptionBecomesTheErrorFlag) {
  expectErrorWhenThrown(
      {"Q7_ReloadAllInfoIfChanged", "lw_log", "Q7_SavePolicyInfo"}, [] {}, [] { return set(0, 1) == failure(); });
  engine.onCall("Q7_ReloadAllInfoIfChanged", [] { throw std::bad_alloc(); });
  EXPECT_THAT(get(0), IsNullWithError());
}

}  // namespace
}  // namespace conformance
