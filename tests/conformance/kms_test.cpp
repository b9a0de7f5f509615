// SPDX-License-Identifier: Apache-2.0
//
// Where policies come from: kezu_conf_set_kms_mode, kezu_conf_get_kms_mode and kezu_conf_get_policy_for_kms.
#include <algorithm>

#include "listing_checks.h"

namespace conformance {
namespace {

constexpr const char* kInUse = "You cannot use VX-KMS unless the number of local policies and columns is none.";
constexpr const char* kColumnsInUse = "You cannot change to KMS Disable mode unless the number of columns is none.";

class Kms : public LoggedIn {
 protected:
  static IntegerResult set(long long mode) { return call(kezu_conf_set_kms_mode, arguments({kSession}, {mode})); }
  static IntegerResult load() { return call(kezu_conf_get_policy_for_kms, {kSession}); }

  BCipherKey addPolicy(int slot, int index, const std::string& name) {
    setField(g_encPolicyArray[slot][index].policyID, name);
    g_makeKeyArray[slot][index] = engine.makeKey(name);
    g_numberOfEncPolicy[slot] = std::max(g_numberOfEncPolicy[slot], index + 1);
    return g_makeKeyArray[slot][index];
  }

  // Operations behind the session check.
  std::vector<std::string> done() const {
    std::vector<std::string> all = engine.operations();
    EXPECT_FALSE(all.empty());
    EXPECT_EQ(all.front(), "Q7_ReloadAllInfoIfChanged");
    all.erase(all.begin());
    return all;
  }

  static auto notice(const char* description) { return IsEvent(3, "group", "policy", "desc", description); }
  static auto change(const char* description) { return IsEvent(2, "group", "policy", "desc", description); }
};

// --- Modes 1 and 2 ---

struct KeyServerMode {
  int mode;
  int other;
  const char* description;
};
void PrintTo(const KeyServerMode& change, std::ostream* out) {
  *out << change.mode;
}

class ToKeyServer : public Kms, public ::testing::WithParamInterface<KeyServerMode> {};

TEST_P(ToKeyServer, FromLocalPoliciesIsStoredLoggedAndSaved) {
  int at_log = -1;
  engine.onCall("lw_log", [&] { at_log = g_kmsMode; });
  EXPECT_EQ(set(GetParam().mode), value(1));
  EXPECT_EQ(g_kmsMode, GetParam().mode);
  EXPECT_EQ(at_log, GetParam().mode);
  EXPECT_THAT(engine.events(), ElementsAre(change(GetParam().description)));
  EXPECT_THAT(done(), ElementsAre("logwCategory", "lw_get_category", "lw_log", "Q7_SavePolicyInfo"));
}

TEST_P(ToKeyServer, CanBeSetAgain) {
  g_kmsMode = static_cast<Q7KmsMode>(GetParam().mode);
  EXPECT_EQ(set(GetParam().mode), value(1));
  EXPECT_EQ(g_kmsMode, GetParam().mode);
  EXPECT_THAT(engine.events(), ElementsAre(change(GetParam().description)));
}

TEST_P(ToKeyServer, FromTheOtherOneIsRefusedWithoutAnEvent) {
  g_kmsMode = static_cast<Q7KmsMode>(GetParam().other);
  EXPECT_EQ(set(GetParam().mode), value(-6));
  g_numberOfEncColumn = 1;
  g_numberOfEncPolicy[0] = 1;
  EXPECT_EQ(set(GetParam().mode), value(-6)) << "before the tables are looked at";
  EXPECT_EQ(g_kmsMode, GetParam().other);
  EXPECT_THAT(engine.operations(), ElementsAre("Q7_ReloadAllInfoIfChanged", "Q7_ReloadAllInfoIfChanged"));
}

TEST_P(ToKeyServer, PolicyInTheActiveSlotIsInTheWay) {
  g_encPolicyArray_flag = 3;
  addPolicy(3, 0, "p");
  for (const int mode : {0, GetParam().mode}) {
    g_kmsMode = static_cast<Q7KmsMode>(mode);
    engine.clearJournal();
    EXPECT_EQ(set(GetParam().mode), value(-3));
    EXPECT_EQ(g_kmsMode, mode);
    EXPECT_THAT(engine.events(), ElementsAre(notice(kInUse)));
    EXPECT_EQ(engine.count("Q7_SavePolicyInfo"), 0U);
    EXPECT_EQ(g_numberOfEncPolicy[3], 1);
  }
}

TEST_P(ToKeyServer, PolicyInAnotherSlotIsNot) {
  g_encPolicyArray_flag = 3;
  addPolicy(2, 0, "p");
  EXPECT_EQ(set(GetParam().mode), value(1));
}

TEST_P(ToKeyServer, ColumnIsInTheWay) {
  g_numberOfEncColumn = 1;
  EXPECT_EQ(set(GetParam().mode), value(-3));
  EXPECT_EQ(g_kmsMode, Q7_NO_KMS_MODE);
  EXPECT_THAT(engine.events(), ElementsAre(notice(kInUse)));
  EXPECT_EQ(engine.count("Q7_SavePolicyInfo"), 0U);
}

INSTANTIATE_TEST_SUITE_P(EachMode, ToKeyServer,
                         ::testing::Values(KeyServerMode{1, 2, "SET ENV KMS ONLY"},
                                           KeyServerMode{2, 1, "SET ENV KMS CACHED"}),
                         [](const auto& info) { return "Mode" + std::to_string(info.param.mode); });

// --- Mode 0 ---

TEST_F(Kms, DisablingDiscardsThePoliciesOfTheActiveSlotWhateverTheModeWas) {
  for (const int mode : {0, 1, 2, 7}) {
    g_kmsMode = static_cast<Q7KmsMode>(mode);
    g_encPolicyArray_flag = 2;
    BCipherKey first = addPolicy(2, 0, "first");
    BCipherKey last = addPolicy(2, kMaxPolicies - 1, "last");
    engine.clearJournal();
    EXPECT_EQ(set(0), value(1)) << mode;
    EXPECT_EQ(g_kmsMode, Q7_NO_KMS_MODE);
    EXPECT_EQ(g_encPolicyArray_flag, 2) << "the slot stays";
    EXPECT_EQ(g_numberOfEncPolicy[2], 0);
    EXPECT_TRUE(engine.keyState(first).wiped && engine.keyState(first).deleted);
    EXPECT_TRUE(engine.keyState(last).wiped && engine.keyState(last).deleted);
    EXPECT_TRUE(std::all_of(std::begin(g_makeKeyArray[2]), std::end(g_makeKeyArray[2]),
                            [](BCipherKey key) { return key == nullptr; }));
    const auto* records = reinterpret_cast<const char*>(g_encPolicyArray[2]);
    EXPECT_TRUE(std::all_of(records, records + sizeof g_encPolicyArray[2], [](char c) { return c == 0; }));
    EXPECT_THAT(engine.events(), ElementsAre(change("SET ENV KMS DISABLE")));
  }
}

TEST_F(Kms, DisablingWipesThenDeletesEachOfThe2000Handles) {
  addPolicy(0, 1, "one");
  set(0);
  EXPECT_EQ(engine.count("BCIPHER_WipeKey"), 2000U);
  EXPECT_EQ(engine.count("BCIPHER_DelKey"), 2000U);
  const std::vector<std::string> calls = engine.calls();
  const auto wiped = std::find(calls.begin(), calls.end(), "BCIPHER_WipeKey(one)");
  ASSERT_NE(wiped, calls.end());
  EXPECT_EQ(*(wiped + 1), "BCIPHER_DelKey(one)");
}

TEST_F(Kms, DisablingDiscardsThenLogsThenSaves) {
  addPolicy(0, 0, "p");
  g_kmsMode = Q7_CACHED_KMS_MODE;
  int mode_at_wipe = -1;
  int count_at_log = -1;
  engine.onCall("BCIPHER_WipeKey", [&] { mode_at_wipe = g_kmsMode; });
  engine.onCall("lw_log", [&] { count_at_log = g_numberOfEncPolicy[0]; });
  set(0);
  EXPECT_EQ(mode_at_wipe, 0);
  EXPECT_EQ(count_at_log, 0);
  std::vector<std::string> operations = done();
  ASSERT_EQ(operations.size(), 4004U);
  operations.erase(operations.begin(), operations.begin() + 4000);
  EXPECT_THAT(operations, ElementsAre("logwCategory", "lw_get_category", "lw_log", "Q7_SavePolicyInfo"));
}

TEST_F(Kms, DisablingLeavesTheOtherSlotsAlone) {
  g_encPolicyArray_flag = 1;
  for (int slot = 0; slot < kPolicySlots; ++slot) {
    addPolicy(slot, 0, "slot" + std::to_string(slot));
  }
  EXPECT_EQ(set(0), value(1));
  for (const int slot : {0, 2, 3, 4}) {
    EXPECT_EQ(g_numberOfEncPolicy[slot], 1);
    EXPECT_EQ(g_encPolicyArray[slot][0].policyID, "slot" + std::to_string(slot));
    EXPECT_FALSE(engine.keyState(g_makeKeyArray[slot][0]).wiped);
  }
}

TEST_F(Kms, DisablingIsRefusedWhileThereAreColumns) {
  addPolicy(0, 0, "p");
  for (const int mode : {0, 1, 2}) {
    g_kmsMode = static_cast<Q7KmsMode>(mode);
    for (const int columns : {1, 2, 2000}) {
      g_numberOfEncColumn = columns;
      engine.clearJournal();
      EXPECT_EQ(set(0), value(-3));
      EXPECT_EQ(g_kmsMode, mode);
      EXPECT_EQ(g_numberOfEncPolicy[0], 1);
      EXPECT_THAT(engine.events(), ElementsAre(notice(kColumnsInUse)));
      EXPECT_THAT(done(), ElementsAre("logwCategory", "lw_get_category", "lw_log"));
    }
  }
}

// --- Other modes, the save ---

TEST_F(Kms, AnotherModeOnlySaves) {
  addPolicy(0, 0, "p");
  g_numberOfEncColumn = 1;
  for (const int mode : {0, 1, 2}) {
    g_kmsMode = static_cast<Q7KmsMode>(mode);
    for (const long long requested : {3LL, 7LL, -1LL, 0x7FFFFFFFLL, 0x80000000LL}) {
      engine.clearJournal();
      EXPECT_EQ(set(requested), value(1)) << requested;
      EXPECT_EQ(g_kmsMode, mode);
      EXPECT_EQ(g_numberOfEncPolicy[0], 1);
      EXPECT_THAT(done(), ElementsAre("Q7_SavePolicyInfo"));
    }
  }
}

TEST_F(Kms, SaveResultsAreToldApartAndTheModeIsChangedAnyway) {
  const std::vector<std::pair<int, long long>> results = {{0, 1},  {-1, -2}, {-3, -5}, {1, 0},
                                                          {-2, 0}, {-5, 0},  {3, 0},   {256, 0}};
  for (const auto& [save, expected] : results) {
    engine.answer("Q7_SavePolicyInfo", save);
    for (const int mode : {1, 0, 2, 0}) {
      EXPECT_EQ(set(mode), value(expected)) << save;
      EXPECT_EQ(g_kmsMode, mode);
    }
    EXPECT_EQ(set(7), value(expected)) << save;
  }
}

TEST_F(Kms, FailedSaveLeavesTheEvent) {
  engine.answer("Q7_SavePolicyInfo", -1);
  set(1);
  EXPECT_THAT(engine.events(), ElementsAre(change("SET ENV KMS ONLY")));
}

TEST_F(Kms, ModeIsReadAsItsLow32Bits) {
  EXPECT_EQ(set(0x100000002LL), value(1));
  EXPECT_EQ(g_kmsMode, Q7_CACHED_KMS_MODE);
}

// --- Reading the mode ---

TEST_F(Kms, GetterReturnsTheMode) {
  for (const int mode : {0, 1, 2, -9}) {
    g_kmsMode = static_cast<Q7KmsMode>(mode);
    EXPECT_EQ(call(kezu_conf_get_kms_mode, {kSession}), value(mode));
  }
  EXPECT_EQ(engine.operations(), std::vector<std::string>(4, "Q7_ReloadAllInfoIfChanged"));
}

// --- Loading ---

TEST_F(Kms, LoadWithoutASessionLoadsTheCopyInCachedModeOnly) {
  g_numberOfUserInfo = 0;
  for (const int mode : {0, 1, 7}) {
    g_kmsMode = static_cast<Q7KmsMode>(mode);
    EXPECT_EQ(call(kezu_conf_get_policy_for_kms, Arguments()), value(1));
  }
  EXPECT_THAT(engine.calls(), IsEmpty());
  g_kmsMode = Q7_CACHED_KMS_MODE;
  for (const int result : {0, -1, 5}) {
    engine.answer("Q7_LoadPolicyInfo", result);
    engine.clearJournal();
    EXPECT_EQ(call(kezu_conf_get_policy_for_kms, Arguments()), value(1)) << result;
    EXPECT_THAT(engine.calls(), ElementsAre("Q7_LoadPolicyInfo(\"\")"));
  }
}

TEST_F(Kms, LoadInLocalModeDoesNothing) {
  for (const int mode : {0, 3, -1}) {
    g_kmsMode = static_cast<Q7KmsMode>(mode);
    engine.clearJournal();
    EXPECT_EQ(load(), value(1));
    EXPECT_THAT(done(), IsEmpty());
  }
}

TEST_F(Kms, LoadInOnlyModeFetches) {
  g_kmsMode = Q7_ONLY_KMS_MODE;
  EXPECT_EQ(load(), value(1));
  EXPECT_THAT(done(), ElementsAre("Q7_GetPolicyInfoFromKMS"));
}

TEST_F(Kms, FailedFetchInOnlyModeIsReported) {
  g_kmsMode = Q7_ONLY_KMS_MODE;
  for (const int result : {1, -1, 99}) {
    engine.answer("Q7_GetPolicyInfoFromKMS", result);
    engine.clearJournal();
    EXPECT_EQ(load(), value(-1)) << result;
    EXPECT_THAT(engine.events(),
                ElementsAre(IsEvent(4, "group", "policy", "desc", "Failed to get Policies from VX-KMS.")));
    EXPECT_THAT(done(), ElementsAre("Q7_GetPolicyInfoFromKMS", "logwCategory", "lw_get_category", "lw_log"));
  }
}

TEST_F(Kms, LoadInCachedModeLoadsFetchesAndCompares) {
  g_kmsMode = Q7_CACHED_KMS_MODE;
  for (const int compared : {0, 2, -2, -3, 99}) {
    engine.answer("compareLocalAndKMSPolicy", compared);
    engine.clearJournal();
    EXPECT_EQ(load(), value(1)) << compared;
    EXPECT_THAT(engine.calls(), ElementsAre("Q7_ReloadAllInfoIfChanged()", "Q7_LoadPolicyInfo(\"\")",
                                            "Q7_GetPolicyInfoFromKMS()", "compareLocalAndKMSPolicy()"));
  }
}

TEST_F(Kms, FailedLoadOfTheCopyIsNotLookedAt) {
  g_kmsMode = Q7_CACHED_KMS_MODE;
  engine.answer("Q7_LoadPolicyInfo", -1);
  EXPECT_EQ(load(), value(1));
  EXPECT_EQ(engine.count("Q7_GetPolicyInfoFromKMS"), 1U);
}

TEST_F(Kms, FailedFetchInCachedModeIsReportedAndNothingIsCompared) {
  g_kmsMode = Q7_CACHED_KMS_MODE;
  for (const int result : {1, -1}) {
    engine.answer("Q7_GetPolicyInfoFromKMS", result);
    engine.clearJournal();
    EXPECT_EQ(load(), value(-2)) << result;
    EXPECT_THAT(engine.events(), ElementsAre(notice("Failed to get Policies from VX-KMS. Local policy info loaded.")));
    EXPECT_THAT(done(), ElementsAre("Q7_LoadPolicyInfo", "Q7_GetPolicyInfoFromKMS", "logwCategory", "lw_get_category",
                                    "lw_log"));
  }
}

TEST_F(Kms, DifferenceFromTheCopyIsReported) {
  g_kmsMode = Q7_CACHED_KMS_MODE;
  engine.answer("compareLocalAndKMSPolicy", 1);
  EXPECT_EQ(load(), value(-3));
  EXPECT_THAT(engine.events(), ElementsAre(notice("Cached local Policy info and VX-KMS policy info mismatched.")));
}

TEST_F(Kms, MissingCopyIsReported) {
  g_kmsMode = Q7_CACHED_KMS_MODE;
  engine.answer("compareLocalAndKMSPolicy", -1);
  EXPECT_EQ(load(), value(-4));
  EXPECT_THAT(engine.events(), ElementsAre(notice("Local policy info does not exist. You should use Sync with KMS.")));
}

// --- Refusals ---

TEST_F(Kms, OtherArgumentCountsAreAnErrorBeforeTheSessionCheck) {
  EXPECT_EQ(call(kezu_conf_set_kms_mode, Arguments()), failure());
  EXPECT_EQ(call(kezu_conf_set_kms_mode, {kSession}), failure());
  EXPECT_EQ(call(kezu_conf_set_kms_mode, arguments({kSession}, {1, 1})), failure());
  EXPECT_EQ(call(kezu_conf_get_kms_mode, Arguments()), failure());
  EXPECT_EQ(call(kezu_conf_get_kms_mode, arguments({kSession}, {1})), failure());
  EXPECT_THAT(engine.calls(), IsEmpty());
}

TEST_F(Kms, WithoutALiveSessionIsNullAndNothingIsDone) {
  g_kmsMode = Q7_CACHED_KMS_MODE;
  expectNullFlagUnderEachRefusal(kezu_conf_set_kms_mode, [] { return arguments({kSession}, {0}); });
  expectNullFlagUnderEachRefusal(kezu_conf_set_kms_mode, [] { return arguments({kSession}, {7}); });
  expectNullFlagUnderEachRefusal(kezu_conf_get_kms_mode, [] { return arguments({kSession}); });
  expectNullFlagUnderEachRefusal(kezu_conf_get_policy_for_kms, [] { return arguments({kSession}); });
  EXPECT_EQ(g_kmsMode, Q7_CACHED_KMS_MODE);
  EXPECT_THAT(engine.operations(), ::testing::Each(std::string("Q7_ReloadAllInfoIfChanged")));
}

TEST_F(Kms, ExceptionBecomesTheErrorFlag) {
  expectErrorWhenThrown(
      {"Q7_ReloadAllInfoIfChanged", "BCIPHER_WipeKey", "lw_log", "Q7_SavePolicyInfo"}, [] {},
      [] { return set(0) == failure(); });
  g_kmsMode = Q7_CACHED_KMS_MODE;
  expectErrorWhenThrown(
      {"Q7_LoadPolicyInfo", "Q7_GetPolicyInfoFromKMS", "compareLocalAndKMSPolicy"}, [] {},
      [] { return load() == failure(); });
  engine.onCall("Q7_LoadPolicyInfo", [] { throw 1; });
  EXPECT_EQ(call(kezu_conf_get_policy_for_kms, Arguments()), failure());
  engine.onCall("Q7_ReloadAllInfoIfChanged", [] { throw 1; });
  EXPECT_EQ(call(kezu_conf_get_kms_mode, {kSession}), failure());
}

}  // namespace
}  // namespace conformance
