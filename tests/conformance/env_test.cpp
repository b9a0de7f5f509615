// SPDX-License-Identifier: Apache-2.0
//
// The engine-wide modes: kezu_conf_set_env and kezu_conf_get_env.
#include "listing_checks.h"

namespace conformance {
namespace {

constexpr int kSmallest = std::numeric_limits<int>::min();
constexpr int kLargest = std::numeric_limits<int>::max();

class Env : public LoggedIn {
 protected:
  static IntegerResult set(long long col, long long val) {
    return call(kezu_conf_set_env, arguments({kSession}, {col, val}));
  }
  static StringResult get(long long col) { return call(kezu_conf_get_env, arguments({kSession}, {col})); }

  static std::vector<int> modes() { return {g_accessControlMode, g_decryptDenyMode, g_doubleEncryptMode}; }

  void expectNothingDone() {
    EXPECT_THAT(modes(), ElementsAre(0, 0, 0));
    EXPECT_THAT(engine.events(), IsEmpty());
    EXPECT_THAT(engine.operations(), ::testing::Each(std::string("Q7_ReloadAllInfoIfChanged")));
  }
};

struct Change {
  int col;
  int val;
  const char* description;
  const char* save;

  std::string name() const {
    const std::string number = std::to_string(val);
    return "Mode" + std::to_string(col) + "To" + (val < 0 ? "Minus" + number.substr(1) : number);
  }
};
void PrintTo(const Change& change, std::ostream* out) {
  *out << change.name();
}

class EnvChange : public Env, public ::testing::WithParamInterface<Change> {};

TEST_P(EnvChange, IsStoredLoggedAndThenSavedWithItsTable) {
  const Change& change = GetParam();
  std::vector<int> at_log;
  engine.onCall("lw_log", [&] { at_log = modes(); });
  EXPECT_EQ(set(change.col, change.val), value(1));
  std::vector<int> expected = {0, 0, 0};
  expected[static_cast<std::size_t>(change.col)] = change.val;
  EXPECT_EQ(modes(), expected);
  EXPECT_EQ(at_log, expected);
  EXPECT_THAT(engine.events(), ElementsAre(IsEvent(2, "group", "policy", "desc", change.description)));
  EXPECT_THAT(engine.operations(),
              ElementsAre("Q7_ReloadAllInfoIfChanged", "logwCategory", "lw_get_category", "lw_log", change.save));
}

TEST_P(EnvChange, ReadsBackAsGiven) {
  const Change& change = GetParam();
  set(change.col, change.val);
  const StringResult result = get(change.col);
  EXPECT_THAT(result, IsText(std::to_string(change.val)));
  EXPECT_TRUE(result.isInServerBuffer());
  EXPECT_TRUE(isTerminated(result));
  EXPECT_TRUE(result.isGuardIntact(17));
}

TEST_P(EnvChange, FailedSaveGivesMinusTwoAndTheValueAndTheEventStay) {
  const Change& change = GetParam();
  engine.answer(change.save, -1);
  EXPECT_EQ(set(change.col, change.val), value(-2));
  EXPECT_EQ(modes()[static_cast<std::size_t>(change.col)], change.val);
  EXPECT_THAT(engine.events(), ElementsAre(IsEvent(2, "group", "policy", "desc", change.description)));
  EXPECT_THAT(get(change.col), IsText(std::to_string(change.val)));
}

TEST_P(EnvChange, OtherSaveResultsAreSuccess) {
  const Change& change = GetParam();
  for (const int save : {1, 2, -2, -3, 255}) {
    engine.answer(change.save, save);
    EXPECT_EQ(set(change.col, change.val), value(1)) << save;
  }
}

INSTANTIATE_TEST_SUITE_P(EachMode, EnvChange,
                         ::testing::Values(Change{0, 0, "SET ENV ACCESS ALLOW PRIOR", "Q7_SaveAccessPrivInfo"},
                                           Change{0, 1, "SET ENV ACCESS DENY PRIOR", "Q7_SaveAccessPrivInfo"},
                                           Change{0, 7, "SET ENV ACCESS DENY PRIOR", "Q7_SaveAccessPrivInfo"},
                                           Change{0, -1, "SET ENV ACCESS DENY PRIOR", "Q7_SaveAccessPrivInfo"},
                                           Change{0, kSmallest, "SET ENV ACCESS DENY PRIOR", "Q7_SaveAccessPrivInfo"},
                                           Change{1, 0, "SET ENV DECRYPT DENY deny zero", "Q7_SaveEncPrivInfo"},
                                           Change{1, 1, "SET ENV DECRYPT DENY deny one", "Q7_SaveEncPrivInfo"},
                                           Change{1, 2, "SET ENV DECRYPT DENY deny two", "Q7_SaveEncPrivInfo"},
                                           Change{1, 3, "SET ENV DECRYPT DENY deny three", "Q7_SaveEncPrivInfo"},
                                           Change{1, 4, "SET ENV DECRYPT DENY deny four", "Q7_SaveEncPrivInfo"},
                                           Change{2, 0, "SET ENV DOUBLE ENCRYPT ERROR", "Q7_SaveQueryPrivInfo"},
                                           Change{2, 1, "SET ENV DOUBLE ENCRYPT PASS", "Q7_SaveQueryPrivInfo"},
                                           Change{2, -5, "SET ENV DOUBLE ENCRYPT PASS", "Q7_SaveQueryPrivInfo"},
                                           Change{2, kLargest, "SET ENV DOUBLE ENCRYPT PASS", "Q7_SaveQueryPrivInfo"}),
                         [](const auto& info) { return info.param.name(); });

TEST_F(Env, ValueOutsideTheTableOfDenyModesIsNullAndNothingIsDone) {
  for (const long long val : {5LL, 6LL, -1LL, 0x7FFFFFFFLL, 0xFFFFFFFFLL}) {
    EXPECT_EQ(set(1, val), sqlNull()) << val;
    expectNothingDone();
  }
}

TEST_F(Env, UnknownColumnIsNullForTheSetterAndNothingIsDone) {
  for (const long long col : {3LL, 4LL, -1LL, 0x7FFFFFFFLL, 0xFFFFFFFFLL}) {
    EXPECT_EQ(set(col, 1), sqlNull()) << col;
    expectNothingDone();
  }
}

TEST_F(Env, UnknownColumnIsAnErrorForTheGetter) {
  for (const long long col : {3LL, -1LL, 0x7FFFFFFFLL}) {
    EXPECT_THAT(get(col), IsNullWithErrorAndLength()) << col;
  }
}

TEST_F(Env, ArgumentsAreReadAsTheirLow32Bits) {
  EXPECT_EQ(set(0x100000002LL, 0x7FFFFFFF00000003LL), value(1));
  EXPECT_EQ(g_doubleEncryptMode, 3);
  EXPECT_EQ(set(0, 0x100000000LL), value(1));
  EXPECT_EQ(g_accessControlMode, 0);
  EXPECT_THAT(get(0x500000002LL), IsText("3"));
}

TEST_F(Env, EachModeIsReadFromItsOwnGlobal) {
  g_accessControlMode = static_cast<Q7AccessControlMode>(11);
  g_decryptDenyMode = static_cast<Q7DecryptDenyMode>(-22);
  g_doubleEncryptMode = kSmallest;
  EXPECT_THAT(get(0), IsText("11"));
  EXPECT_THAT(get(1), IsText("-22"));
  EXPECT_THAT(get(2), IsText("-2147483648"));
}

TEST_F(Env, ReadingReloadsOnceAndChangesNothing) {
  get(0);
  EXPECT_THAT(engine.operations(), ElementsAre("Q7_ReloadAllInfoIfChanged"));
}

TEST_F(Env, ReadingSeesWhatTheReloadBrought) {
  engine.onCall("Q7_ReloadAllInfoIfChanged", [] { g_doubleEncryptMode = 1; });
  EXPECT_THAT(get(2), IsText("1"));
}

TEST_F(Env, OtherArgumentCountsAreAnErrorBeforeTheSessionCheck) {
  for (const auto numbers : {0, 1, 3}) {
    Arguments wrong{kSession};
    for (int i = 0; i < numbers; ++i) {
      wrong.number(1);
    }
    EXPECT_EQ(call(kezu_conf_set_env, wrong), failure()) << numbers;
  }
  EXPECT_EQ(call(kezu_conf_set_env, Arguments()), failure());
  EXPECT_THAT(call(kezu_conf_get_env, {kSession}), IsNullWithError());
  EXPECT_THAT(call(kezu_conf_get_env, arguments({kSession}, {0, 0})), IsNullWithError());
  EXPECT_THAT(call(kezu_conf_get_env, Arguments()), IsNullWithError());
  EXPECT_THAT(engine.calls(), IsEmpty());
}

TEST_F(Env, WithoutALiveSessionIsNullAndNothingIsDone) {
  expectNullFlagUnderEachRefusal(kezu_conf_set_env, [] { return arguments({kSession}, {0, 1}); });
  expectNothingDone();
  expectNullFlagUnderEachRefusal(kezu_conf_set_env, [] { return arguments({kSession}, {3, 1}); });
  expectNullUnderEachRefusal(kezu_conf_get_env, [] { return arguments({kSession}, {0}); });
  expectNullUnderEachRefusal(kezu_conf_get_env, [] { return arguments({kSession}, {3}); });
}

TEST_F(Env, ExceptionBecomesTheErrorFlag) {
  expectErrorWhenThrown(
      {"Q7_ReloadAllInfoIfChanged", "lw_get_category", "lw_log", "Q7_SaveAccessPrivInfo"}, [] {},
      [] { return set(0, 1) == failure(); });
  expectErrorWhenThrown(
      {"Q7_SaveEncPrivInfo"}, [] {}, [] { return set(1, 1) == failure(); });
  expectErrorWhenThrown(
      {"Q7_SaveQueryPrivInfo"}, [] {}, [] { return set(2, 1) == failure(); });
  engine.onCall("Q7_ReloadAllInfoIfChanged", [] { throw std::bad_alloc(); });
  EXPECT_THAT(get(0), IsNullWithError());
}

}  // namespace
}  // namespace conformance
