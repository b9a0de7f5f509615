// SPDX-License-Identifier: Apache-2.0
//
// Making, removing and saving policies: kezu_conf_set_policy.
#include <limits>

#include "policy_fixture.h"
#include "write_watch.h"

namespace conformance {
namespace {

using ::testing::Contains;
using ::testing::Not;

// The values of a create that a test does not care about are these.
struct Parameters {
  long long algorithm = 2;
  long long iv_mode = 1;
  long long position = 3;
  long long length = 4;
  long long block_mode = 5;
  long long str_mode = 2;
  std::string flag = "ENC:";
};

class Policy : public LoggedIn {
 protected:
  static Arguments createArguments(std::string_view name, const Parameters& with = {}) {
    Arguments arguments{kSession, name};
    arguments.number(with.algorithm).number(with.iv_mode).number(with.position).number(with.length);
    arguments.number(with.block_mode).number(with.str_mode).text(with.flag);
    return arguments;
  }
  static IntegerResult create(std::string_view name, const Parameters& with = {}) {
    return call(kezu_conf_set_policy, createArguments(name, with));
  }
  static IntegerResult remove(std::string_view name) { return call(kezu_conf_set_policy, {kSession, name}); }
  static IntegerResult save() { return call(kezu_conf_set_policy, {kSession}); }

  static void registerColumn(std::string_view policy) {
    setField(g_encColumnInfoArray[g_numberOfEncColumn++].policyID, policy);
  }

  // The policy table as it stands.
  struct Tables {
    std::vector<Q7EncPolicyInfo> records[kPolicySlots];
    std::vector<BCipherKey> keys[kPolicySlots];
    std::vector<int> counts;
    int flag = 0;

    bool sameSlot(int slot, const Tables& other) const {
      return counts[static_cast<std::size_t>(slot)] == other.counts[static_cast<std::size_t>(slot)] &&
             keys[slot] == other.keys[slot] &&
             std::memcmp(records[slot].data(), other.records[slot].data(),
                         records[slot].size() * sizeof(Q7EncPolicyInfo)) == 0;
    }
  };
  static Tables tables() {
    Tables now;
    for (int slot = 0; slot < kPolicySlots; ++slot) {
      now.records[slot].assign(std::begin(g_encPolicyArray[slot]), std::end(g_encPolicyArray[slot]));
      now.keys[slot].assign(std::begin(g_makeKeyArray[slot]), std::end(g_makeKeyArray[slot]));
    }
    now.counts.assign(std::begin(g_numberOfEncPolicy), std::end(g_numberOfEncPolicy));
    now.flag = g_encPolicyArray_flag;
    return now;
  }
  static void expectUntouched(const Tables& before) {
    const Tables now = tables();
    EXPECT_EQ(now.flag, before.flag);
    for (int slot = 0; slot < kPolicySlots; ++slot) {
      EXPECT_TRUE(now.sameSlot(slot, before)) << "slot " << slot;
    }
  }

  // What every refusal before staging has in common.
  void expectRefusedBeforeStaging(const Tables& before) {
    expectUntouched(before);
    EXPECT_EQ(engine.count("BCIPHER_WipeKey"), 0U);
    EXPECT_EQ(engine.count("Q7_AddPolicyInfo"), 0U);
    EXPECT_EQ(engine.count("Q7_SavePolicyInfo"), 0U);
    EXPECT_THAT(engine.events(), IsEmpty());
  }

  // What a refusal after staging leaves: nothing published, logged or saved, every slot but the next as it was.
  void expectStagedOnly(const Tables& before) {
    const Tables now = tables();
    EXPECT_EQ(now.flag, before.flag);
    EXPECT_EQ(now.counts[static_cast<std::size_t>(now.flag)], before.counts[static_cast<std::size_t>(now.flag)]);
    for (int slot = 0; slot < kPolicySlots; ++slot) {
      if (slot != (before.flag + 1) % kPolicySlots) {
        EXPECT_TRUE(now.sameSlot(slot, before)) << "slot " << slot;
      }
    }
    EXPECT_EQ(engine.count("Q7_SavePolicyInfo"), 0U);
  }

  // The calls that clear a slot whose handles are these, nulls behind them.
  static std::vector<std::string> clearingCalls(const std::vector<std::string>& keys) {
    std::vector<std::string> calls;
    for (std::size_t i = 0; i < static_cast<std::size_t>(kMaxPolicies); ++i) {
      const std::string key = i < keys.size() ? keys[i] : "null";
      calls.push_back("BCIPHER_WipeKey(" + key + ")");
      calls.push_back("BCIPHER_DelKey(" + key + ")");
    }
    return calls;
  }

  static bool isZero(const Q7EncPolicyInfo& record) {
    const Q7EncPolicyInfo zero = {};
    return std::memcmp(&record, &zero, sizeof zero) == 0;
  }
};

// --- Creating ---

TEST_F(Policy, CreatingAddsThePolicyBehindTheOthersOfTheNextSlot) {
  addPolicy(0, "first");
  addPolicy(0, "second");
  EXPECT_EQ(create("third"), value(1));
  EXPECT_EQ(g_encPolicyArray_flag, 1);
  EXPECT_THAT(activePolicyNames(), ElementsAre("first", "second", "third"));
  EXPECT_THAT(keyNames(1, 4), ElementsAre("copy of key of first", "copy of key of second", "new key of third", "null"));
}

TEST_F(Policy, CreatingCallsTheEngineInThisOrder) {
  addPolicy(0, "first");
  addPolicy(0, "second");
  g_makeKeyArray[1][0] = engine.makeKey("stale");
  g_makeKeyArray[1][1999] = engine.makeKey("stale last");
  EXPECT_EQ(create("third"), value(1));
  std::vector<std::string> stale(2000, "null");
  stale.front() = "stale";
  stale.back() = "stale last";
  std::vector<std::string> expected = {"Q7_ReloadAllInfoIfChanged()"};
  const std::vector<std::string> clearing = clearingCalls(stale);
  expected.insert(expected.end(), clearing.begin(), clearing.end());
  expected.insert(
      expected.end(),
      {"BCIPHER_DupKey(key of first)", "BCIPHER_DupKey(key of second)",
       "Q7_AddPolicyInfo(null, \"third\", 2, 1, null, 4294967295, 3, 4, 5, 2, \"ENC:\")", "logwCategory()",
       "lw_get_category(73)",
       "lw_log(2, \"group\", \"policy\", \"policy\", \"third\", \"algorithm\", \"alg two\", \"iv mode\", "
       "\"iv one\", \"partial enc pos\", \"3\", \"partial enc off\", \"4\", \"block mode\", \"block five\", "
       "\"encode mode\", \"str two\", \"enc flag\", \"ENC:\", \"desc\", \"CREATE POLICY\")",
       "Q7_SavePolicyInfo()"});
  EXPECT_EQ(engine.calls(), expected);
}

TEST_F(Policy, CreatingWritesItsEvent) {
  create("p");
  EXPECT_THAT(engine.events(),
              ElementsAre(IsEvent(2, "group", "policy", "policy", "p", "algorithm", "alg two", "iv mode", "iv one",
                                  "partial enc pos", "3", "partial enc off", "4", "block mode", "block five",
                                  "encode mode", "str two", "enc flag", "ENC:", "desc", "CREATE POLICY")));
}

TEST_F(Policy, CreateEventIsReadFromTheFilledRecord) {
  engine.onPolicyFilled([](Q7EncPolicyInfo& policy) {
    setField(policy.policyID, "renamed");
    policy.algID = 20;
    policy.ivMode = 0;
    policy.encPos = -5;
    policy.encLen = std::numeric_limits<int>::min();
    policy.blockMode = 11;
    policy.strMode = 0;
    std::memset(policy.encFlag, 'x', sizeof policy.encFlag);
  });
  EXPECT_EQ(create("p"), value(1));
  EXPECT_THAT(engine.events(), ElementsAre(IsEvent(2, "group", "policy", "policy", "renamed", "algorithm", "alg twenty",
                                                   "iv mode", "iv zero", "partial enc pos", "-5", "partial enc off",
                                                   "-2147483648", "block mode", "block eleven", "encode mode",
                                                   "str zero", "enc flag", "ENC:", "desc", "CREATE POLICY")));
}

TEST_F(Policy, CreateIsLoggedBeforeItIsPublished) {
  addPolicy(0, "first");
  g_numberOfEncPolicy[1] = 77;
  int flag = -1;
  int count = -1;
  engine.onCall("lw_log", [&] {
    flag = g_encPolicyArray_flag;
    count = g_numberOfEncPolicy[1];
  });
  create("p");
  EXPECT_EQ(flag, 0);
  EXPECT_EQ(count, 77);
}

TEST_F(Policy, CreateIsPublishedBeforeItIsSaved) {
  addPolicy(0, "first");
  int flag = -1;
  int count = -1;
  engine.onCall("Q7_SavePolicyInfo", [&] {
    flag = g_encPolicyArray_flag;
    count = g_numberOfEncPolicy[1];
  });
  create("p");
  EXPECT_EQ(flag, 1);
  EXPECT_EQ(count, 2);
}

TEST_F(Policy, CountIsStoredBeforeTheFlag) {
  addPolicy(0, "first");
  for (const bool creating : {true, false}) {
    std::unique_ptr<WriteWatch> watch;
    engine.onCall("lw_log", [&] {
      watch = std::make_unique<WriteWatch>(std::vector<WatchedVariable>{
          {"count", &g_numberOfEncPolicy[(g_encPolicyArray_flag + 1) % kPolicySlots], sizeof(int)},
          {"flag", &g_encPolicyArray_flag, sizeof g_encPolicyArray_flag}});
    });
    EXPECT_EQ(creating ? create("p") : remove("p"), value(creating ? 1 : 3));
    ASSERT_NE(watch, nullptr);
    EXPECT_THAT(watch->order(), ElementsAre("count", "flag"));
  }
}

TEST_F(Policy, EngineFillsTheRecordBehindTheCopies) {
  addPolicy(0, "first");
  const Q7EncPolicyInfo* filled = nullptr;
  engine.onPolicyFilled([&](Q7EncPolicyInfo& policy) { filled = &policy; });
  create("p");
  EXPECT_EQ(filled, &g_encPolicyArray[1][1]);
}

TEST_F(Policy, IntegersAreReadAsTheirLow32Bits) {
  Parameters with;
  with.algorithm = (1LL << 32) + 6;
  with.iv_mode = (7LL << 32) + 1;
  with.position = -1;
  with.length = 0x80000000LL;
  with.block_mode = std::numeric_limits<long long>::max();
  with.str_mode = std::numeric_limits<long long>::min();
  engine.answer("Q7_AddPolicyInfo", 0);
  create("p", with);
  EXPECT_THAT(engine.calls("Q7_AddPolicyInfo"),
              ElementsAre("Q7_AddPolicyInfo(null, \"p\", 6, 1, null, 4294967295, -1, -2147483648, -1, 0, \"ENC:\")"));
}

TEST_F(Policy, FlagNullStandsForNoFlag) {
  Parameters with;
  with.flag = "NULL";
  EXPECT_EQ(create("p", with), value(1));
  EXPECT_THAT(engine.calls("Q7_AddPolicyInfo"),
              ElementsAre("Q7_AddPolicyInfo(null, \"p\", 2, 1, null, 4294967295, 3, 4, 5, 2, \"\")"));
  ASSERT_EQ(engine.events().size(), 1U);
  EXPECT_EQ(engine.events()[0].texts[17], "");
}

TEST_F(Policy, OnlyTheExactTextNullStandsForNoFlag) {
  int number = 0;
  for (const char* flag : {"null", "Null", "NULL ", " NULL", "NUL", "NULLNULL", "0"}) {
    engine.clearJournal();
    Parameters with;
    with.flag = flag;
    EXPECT_EQ(create("p" + std::to_string(number++), with), value(1));
    ASSERT_EQ(engine.events().size(), 1U);
    EXPECT_EQ(engine.events()[0].texts[17], flag);
  }
}

TEST_F(Policy, FlagOf16BytesOfAnyValueIsHandedOn) {
  Parameters with;
  with.flag = "\xFF\x80\xC3\xA9'\"\\ {}[]12\t\n";
  ASSERT_EQ(with.flag.size(), 16U);
  EXPECT_EQ(create("p", with), value(1));
  EXPECT_EQ(std::string(g_encPolicyArray[1][0].encFlag, 16), with.flag);
}

TEST_F(Policy, FlagOf17BytesIsRefused) {
  const Tables before = tables();
  for (const std::size_t length : {17U, 18U, 1000U, 100000U}) {
    Parameters with;
    with.flag = std::string(length, 'f');
    EXPECT_EQ(create("p", with), value(0)) << length;
    expectStagedOnly(before);
    EXPECT_EQ(engine.count("Q7_AddPolicyInfo"), 0U);
    EXPECT_THAT(engine.events(), IsEmpty());
  }
}

TEST_F(Policy, FlagWithAZeroByteIsRefused) {
  const Tables before = tables();
  for (const std::string& flag : {bytes("a\0"), bytes("a\0b")}) {
    Parameters with;
    with.flag = flag;
    EXPECT_EQ(create("p", with), value(0));
    expectStagedOnly(before);
    EXPECT_EQ(engine.count("Q7_AddPolicyInfo"), 0U);
    EXPECT_THAT(engine.events(), IsEmpty());
  }
}

TEST_F(Policy, NameOf16BytesIsAccepted17AreRefused) {
  EXPECT_EQ(create("Abcdefgh01234567"), value(1));
  EXPECT_THAT(activePolicyNames(), ElementsAre("Abcdefgh01234567"));
  engine.clearJournal();
  const Tables before = tables();
  EXPECT_EQ(create("Abcdefgh012345678"), value(0));
  expectRefusedBeforeStaging(before);
}

TEST_F(Policy, NamesOfOtherBytesAreRefused) {
  const Tables before = tables();
  for (const std::string& name :
       {std::string("Pol_1"), std::string("pol-1"), std::string("pol 1"), std::string("p\xC3\xA9"), std::string("\x80"),
        std::string("\xFF"), std::string("p'"), bytes("p\0"), bytes("p\0q"), std::string("p\n")}) {
    EXPECT_EQ(create(name), value(0)) << conformance::inQuotes(name);
    EXPECT_EQ(remove(name), value(0)) << conformance::inQuotes(name);
  }
  expectRefusedBeforeStaging(before);
}

TEST_F(Policy, NamesAreCaseSensitive) {
  EXPECT_EQ(create("pol1"), value(1));
  EXPECT_EQ(create("POL1"), value(1));
  EXPECT_EQ(create("Pol1"), value(1));
  EXPECT_THAT(activePolicyNames(), ElementsAre("pol1", "POL1", "Pol1"));
}

TEST_F(Policy, NameThatExistsIsRefused) {
  addPolicy(0, "first");
  addPolicy(0, "second");
  const Tables before = tables();
  EXPECT_EQ(create("first"), value(0));
  EXPECT_EQ(create("second"), value(0));
  expectRefusedBeforeStaging(before);
}

TEST_F(Policy, NameInAnotherSlotDoesNotExist) {
  addPolicy(4, "p");
  EXPECT_EQ(create("p"), value(1));
}

TEST_F(Policy, EngineThatRefusesTheParametersGivesZeroAndPublishesNothing) {
  addPolicy(0, "first");
  const Tables before = tables();
  engine.answer("Q7_AddPolicyInfo", 0);
  EXPECT_EQ(create("p"), value(0));
  expectStagedOnly(before);
  EXPECT_THAT(engine.events(), IsEmpty());
  EXPECT_EQ(g_encPolicyArray_flag, 0);
  engine.answer("Q7_AddPolicyInfo", 1);
  EXPECT_EQ(create("p"), value(1)) << "the staged slot is rebuilt by the next change";
  EXPECT_THAT(activePolicyNames(), ElementsAre("first", "p"));
}

TEST_F(Policy, EngineMayCreateNoHandle) {
  g_makeKeyArray[1][0] = engine.makeKey("stale");
  engine.answer("Q7_AddPolicyInfo", 2);
  EXPECT_EQ(create("p"), value(1));
  EXPECT_EQ(g_makeKeyArray[1][0], nullptr);
}

// --- Processor without AES instructions ---

TEST_F(Policy, AlgorithmsThatNeedAesInstructionsAskTheProcessor) {
  int number = 0;
  for (const long long algorithm : {19LL, 20LL, (1LL << 32) + 19}) {
    engine.clearJournal();
    Parameters with;
    with.algorithm = algorithm;
    EXPECT_EQ(create("p" + std::to_string(number++), with), value(1)) << algorithm;
    EXPECT_EQ(engine.count("Check_CPU_support_AES"), 1U) << algorithm;
  }
}

TEST_F(Policy, OtherAlgorithmsDoNotAskTheProcessor) {
  engine.answer("Check_CPU_support_AES", 0);
  for (int algorithm = 0; algorithm < 19; ++algorithm) {
    Parameters with;
    with.algorithm = algorithm;
    EXPECT_EQ(create("p" + std::to_string(algorithm), with), value(1)) << algorithm;
  }
  EXPECT_EQ(engine.count("Check_CPU_support_AES"), 0U);
}

TEST_F(Policy, ProcessorWithoutAesGivesMinusSevenAndTheFiveStringEvent) {
  addPolicy(0, "first");
  engine.answer("Check_CPU_support_AES", 0);
  const Tables before = tables();
  for (const long long algorithm : {19LL, 20LL}) {
    engine.clearJournal();
    Parameters with;
    with.algorithm = algorithm;
    EXPECT_EQ(create("p", with), value(-7)) << algorithm;
    expectStagedOnly(before);
    EXPECT_EQ(engine.count("Q7_AddPolicyInfo"), 0U);
    EXPECT_THAT(engine.events(),
                ElementsAre(IsEvent(4, "group", "policy", "policy", "desc", "The CPUs do NOT support AESNI.")));
  }
}

TEST_F(Policy, ProcessorIsAskedAfterTheTableWasStaged) {
  addPolicy(0, "first");
  engine.answer("Check_CPU_support_AES", 0);
  Parameters with;
  with.algorithm = 19;
  create("p", with);
  EXPECT_THAT(policyNames(1), IsEmpty()) << "not published";
  EXPECT_STREQ(g_encPolicyArray[1][0].policyID, "first") << "the staged slot is left as built";
  EXPECT_EQ(engine.keyName(g_makeKeyArray[1][0]), "copy of key of first");
  EXPECT_EQ(engine.count("BCIPHER_WipeKey"), 2000U);
}

TEST_F(Policy, NameThatExistsIsRefusedBeforeTheProcessorIsAsked) {
  addPolicy(0, "p");
  engine.answer("Check_CPU_support_AES", 0);
  Parameters with;
  with.algorithm = 19;
  EXPECT_EQ(create("p", with), value(0));
  EXPECT_EQ(engine.count("Check_CPU_support_AES"), 0U);
}

// --- The slots ---

TEST_F(Policy, NextSlotIsClearedWholeBeforeItIsFilled) {
  for (int i = 0; i < kMaxPolicies; ++i) {
    addPolicy(1, "stale" + std::to_string(i));
  }
  const std::vector<BCipherKey> stale(std::begin(g_makeKeyArray[1]), std::end(g_makeKeyArray[1]));
  addPolicy(0, "first");
  EXPECT_EQ(create("p"), value(1));
  for (int i = 0; i < kMaxPolicies; ++i) {
    const KeyState state = engine.keyState(stale[static_cast<std::size_t>(i)]);
    ASSERT_TRUE(state.wiped && state.deleted) << i;
    ASSERT_TRUE(i < 2 || isZero(g_encPolicyArray[1][i])) << i;
    ASSERT_TRUE(i < 2 || g_makeKeyArray[1][i] == nullptr) << i;
  }
  EXPECT_THAT(activePolicyNames(), ElementsAre("first", "p"));
}

TEST_F(Policy, RecordsAreCopiedWhole) {
  for (const char* name : {"a", "b", "c"}) {
    addPolicy(0, name);
  }
  create("d");
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(std::memcmp(&g_encPolicyArray[1][i], &g_encPolicyArray[0][i], sizeof(Q7EncPolicyInfo)), 0) << i;
  }
}

TEST_F(Policy, EverySlotButTheNextStaysAsItIs) {
  for (int slot = 0; slot < kPolicySlots; ++slot) {
    addPolicy(slot, "a" + std::to_string(slot));
    addPolicy(slot, "b" + std::to_string(slot));
  }
  g_encPolicyArray_flag = 2;
  const Tables before = tables();
  EXPECT_EQ(create("p"), value(1));
  EXPECT_EQ(remove("a2"), value(3));
  const Tables now = tables();
  for (const int slot : {0, 1, 2}) {
    EXPECT_TRUE(now.sameSlot(slot, before)) << slot;
    for (int i = 0; i < 2; ++i) {
      const KeyState state = engine.keyState(g_makeKeyArray[slot][i]);
      EXPECT_FALSE(state.wiped || state.deleted) << slot;
    }
  }
}

TEST_F(Policy, HandlesAreDuplicatedNeverShared) {
  addPolicy(0, "a");
  addPolicy(0, "b");
  create("c");
  EXPECT_NE(g_makeKeyArray[1][0], g_makeKeyArray[0][0]);
  EXPECT_NE(g_makeKeyArray[1][1], g_makeKeyArray[0][1]);
}

TEST_F(Policy, MissingHandleIsNotDuplicated) {
  addPolicy(0, "a");
  addPolicy(0, "without", false);
  addPolicy(0, "c");
  create("d");
  EXPECT_THAT(engine.calls("BCIPHER_DupKey"), ElementsAre("BCIPHER_DupKey(key of a)", "BCIPHER_DupKey(key of c)"));
  EXPECT_THAT(keyNames(1, 4), ElementsAre("copy of key of a", "null", "copy of key of c", "new key of d"));
}

TEST_F(Policy, HandleThatCannotBeDuplicatedIsMissing) {
  addPolicy(0, "a");
  engine.answer("BCIPHER_DupKey", 1);
  EXPECT_EQ(create("b"), value(1));
  EXPECT_THAT(keyNames(1, 2), ElementsAre("null", "new key of b"));
}

TEST_F(Policy, ChangesGoRoundTheFiveSlots) {
  for (const int expected : {1, 2, 3, 4, 0, 1, 2}) {
    EXPECT_EQ(create("p" + std::to_string(g_numberOfEncPolicy[g_encPolicyArray_flag])), value(1));
    EXPECT_EQ(g_encPolicyArray_flag, expected);
  }
  EXPECT_THAT(activePolicyNames(), ElementsAre("p0", "p1", "p2", "p3", "p4", "p5", "p6"));
}

TEST_F(Policy, AfterSlotFourComesSlotZero) {
  g_encPolicyArray_flag = 4;
  addPolicy(4, "a");
  addPolicy(0, "stale");
  EXPECT_EQ(create("b"), value(1));
  EXPECT_EQ(g_encPolicyArray_flag, 0);
  EXPECT_THAT(policyNames(0), ElementsAre("a", "b"));
}

TEST_F(Policy, KeysOfASlotLiveThroughThreeMoreChangesAndGoWithTheFourth) {
  addPolicy(0, "a");
  BCipherKey key = g_makeKeyArray[0][0];
  for (int change = 0; change < 4; ++change) {
    EXPECT_EQ(create("p" + std::to_string(change)), value(1));
    EXPECT_FALSE(engine.keyState(key).wiped) << change;
  }
  EXPECT_EQ(create("p4"), value(1));
  EXPECT_TRUE(engine.keyState(key).wiped);
  EXPECT_TRUE(engine.keyState(key).deleted);
}

class FullPolicyTable : public Policy {
 protected:
  void SetUp() override {
    Policy::SetUp();
    for (int i = 0; i < kMaxPolicies; ++i) {
      addPolicy(0, "p" + std::to_string(i), false);
    }
  }
};

TEST_F(FullPolicyTable, CreatingIsRefused) {
  const Tables before = tables();
  EXPECT_EQ(create("onemore"), value(0));
  expectStagedOnly(before);
  EXPECT_EQ(engine.count("Q7_AddPolicyInfo"), 0U);
  EXPECT_THAT(engine.events(), IsEmpty());
}

TEST_F(FullPolicyTable, CreatingInTheLastSlotWritesNothingBehindIt) {
  const Tables full = tables();
  std::copy(full.records[0].begin(), full.records[0].end(), g_encPolicyArray[3]);
  g_numberOfEncPolicy[3] = kMaxPolicies;
  g_encPolicyArray_flag = 3;
  const Tables before = tables();
  EXPECT_EQ(create("onemore"), value(0));
  expectStagedOnly(before);
}

TEST_F(FullPolicyTable, LastPlaceCanBeTaken) {
  g_numberOfEncPolicy[0] = kMaxPolicies - 1;
  EXPECT_EQ(create("thelast"), value(1));
  EXPECT_EQ(g_numberOfEncPolicy[1], kMaxPolicies);
  EXPECT_STREQ(g_encPolicyArray[1][kMaxPolicies - 1].policyID, "thelast");
  EXPECT_EQ(g_numberOfEncPolicy[2], 0);
}

TEST_F(FullPolicyTable, DeletingMakesRoom) {
  EXPECT_EQ(remove("p0"), value(3));
  EXPECT_EQ(g_numberOfEncPolicy[1], kMaxPolicies - 1);
  EXPECT_EQ(create("onemore"), value(1));
  EXPECT_EQ(g_numberOfEncPolicy[2], kMaxPolicies);
}

// --- Deleting ---

class FourPolicies : public Policy {
 protected:
  void SetUp() override {
    Policy::SetUp();
    for (const char* name : {"a", "b", "c", "d"}) {
      addPolicy(0, name);
    }
  }
};

TEST_F(FourPolicies, DeletingClosesTheGapAndKeepsTheOrder) {
  EXPECT_EQ(remove("b"), value(3));
  EXPECT_EQ(g_encPolicyArray_flag, 1);
  EXPECT_THAT(activePolicyNames(), ElementsAre("a", "c", "d"));
  EXPECT_THAT(keyNames(1, 4), ElementsAre("copy of key of a", "copy of key of c", "copy of key of d", "null"));
  EXPECT_EQ(std::memcmp(&g_encPolicyArray[1][1], &g_encPolicyArray[0][2], sizeof(Q7EncPolicyInfo)), 0);
  EXPECT_TRUE(isZero(g_encPolicyArray[1][3]));
}

TEST_F(FourPolicies, FirstAndLastCanBeDeleted) {
  EXPECT_EQ(remove("a"), value(3));
  EXPECT_THAT(activePolicyNames(), ElementsAre("b", "c", "d"));
  EXPECT_EQ(remove("d"), value(3));
  EXPECT_THAT(activePolicyNames(), ElementsAre("b", "c"));
}

TEST_F(FourPolicies, OnlyOneCanBeDeleted) {
  g_numberOfEncPolicy[0] = 1;
  EXPECT_EQ(remove("a"), value(3));
  EXPECT_EQ(g_numberOfEncPolicy[1], 0);
  EXPECT_EQ(g_encPolicyArray_flag, 1);
}

TEST_F(FourPolicies, DeletingCallsTheEngineInThisOrder) {
  EXPECT_EQ(remove("c"), value(3));
  std::vector<std::string> expected = {"Q7_ReloadAllInfoIfChanged()"};
  const std::vector<std::string> clearing = clearingCalls({});
  expected.insert(expected.end(), clearing.begin(), clearing.end());
  expected.insert(expected.end(), {"BCIPHER_DupKey(key of a)", "BCIPHER_DupKey(key of b)", "BCIPHER_DupKey(key of d)",
                                   "logwCategory()", "lw_get_category(73)",
                                   "lw_log(2, \"group\", \"policy\", \"policy\", \"c\", \"desc\", \"DELETE POLICY\")",
                                   "Q7_SavePolicyInfo()"});
  EXPECT_EQ(engine.calls(), expected);
}

TEST_F(FourPolicies, DeletingWritesItsEvent) {
  remove("b");
  EXPECT_THAT(engine.events(), ElementsAre(IsEvent(2, "group", "policy", "policy", "b", "desc", "DELETE POLICY")));
}

TEST_F(FourPolicies, DeleteIsLoggedBeforeItIsPublishedAndPublishedBeforeItIsSaved) {
  int logged_flag = -1;
  int saved_flag = -1;
  int saved_count = -1;
  engine.onCall("lw_log", [&] { logged_flag = g_encPolicyArray_flag; });
  engine.onCall("Q7_SavePolicyInfo", [&] {
    saved_flag = g_encPolicyArray_flag;
    saved_count = g_numberOfEncPolicy[1];
  });
  remove("b");
  EXPECT_EQ(logged_flag, 0);
  EXPECT_EQ(saved_flag, 1);
  EXPECT_EQ(saved_count, 3);
}

TEST_F(FourPolicies, UnknownPolicyIsRefused) {
  addPolicy(3, "other");
  const Tables before = tables();
  for (const char* name : {"e", "A", "aa", "other"}) {
    EXPECT_EQ(remove(name), value(0)) << name;
  }
  expectRefusedBeforeStaging(before);
}

TEST_F(FourPolicies, PolicyThatAColumnUsesIsNotDeleted) {
  for (const char* policy : {"a", "d", "b"}) {
    registerColumn(policy);
  }
  const Tables before = tables();
  for (const char* name : {"a", "b", "d"}) {
    EXPECT_EQ(remove(name), value(0)) << name;
  }
  expectRefusedBeforeStaging(before);
  EXPECT_EQ(remove("c"), value(3));
}

TEST_F(FourPolicies, ColumnsOfOtherPoliciesDoNotKeepOne) {
  for (const char* policy : {"A", "aa", "", "x"}) {
    registerColumn(policy);
  }
  EXPECT_EQ(remove("a"), value(3));
}

TEST_F(FourPolicies, ColumnsBehindTheCountDoNotKeepOne) {
  registerColumn("a");
  g_numberOfEncColumn = 0;
  EXPECT_EQ(remove("a"), value(3));
  g_numberOfEncColumn = -1;
  EXPECT_EQ(remove("b"), value(3));
}

TEST_F(FourPolicies, LastOf2000ColumnsKeepsItsPolicy) {
  for (int i = 1; i < kMaxColumns; ++i) {
    registerColumn("b");
  }
  registerColumn("a");
  EXPECT_EQ(remove("a"), value(0));
}

TEST_F(FourPolicies, DeletedPolicyCanBeMadeAgainAtTheEnd) {
  EXPECT_EQ(remove("a"), value(3));
  EXPECT_EQ(create("a"), value(1));
  EXPECT_THAT(activePolicyNames(), ElementsAre("b", "c", "d", "a"));
}

TEST_F(FourPolicies, FirstOfTwoEqualNamesIsDeleted) {
  addPolicy(0, "a");
  EXPECT_EQ(remove("a"), value(3));
  EXPECT_THAT(activePolicyNames(), ElementsAre("b", "c", "d", "a"));
  EXPECT_EQ(g_encPolicyArray[1][3].encPos, 1004) << "the second one stays";
}

// --- The save ---

TEST_F(FourPolicies, SaveResultsAreMapped) {
  const std::vector<std::tuple<int, long long, long long>> results = {{0, 1, 3}, {-1, -2, -2}, {-3, -5, -5},
                                                                      {1, 1, 3}, {-2, 1, 3},   {255, 1, 3}};
  for (const auto& [save_result, created, deleted] : results) {
    engine.answer("Q7_SavePolicyInfo", save_result);
    EXPECT_EQ(create("new"), value(created)) << save_result;
    EXPECT_THAT(activePolicyNames(), ElementsAre("a", "b", "c", "d", "new")) << save_result;
    EXPECT_EQ(remove("new"), value(deleted)) << save_result;
    EXPECT_THAT(activePolicyNames(), ElementsAre("a", "b", "c", "d")) << save_result;
  }
}

TEST_F(FourPolicies, FailedSaveLeavesTheEventAndTheNewTable) {
  engine.answer("Q7_SavePolicyInfo", -1);
  EXPECT_EQ(create("new"), value(-2));
  EXPECT_EQ(engine.events().size(), 1U);
  EXPECT_EQ(g_encPolicyArray_flag, 1);
  EXPECT_EQ(create("new"), value(0)) << "the next call sees it";
}

// --- Key server modes ---

TEST_F(FourPolicies, PoliciesOfAKeyServerAreNotChanged) {
  registerColumn("a");
  const Tables before = tables();
  for (const Q7KmsMode mode : {Q7_ONLY_KMS_MODE, Q7_CACHED_KMS_MODE}) {
    g_kmsMode = mode;
    for (const char* name : {"new", "a", "b"}) {
      EXPECT_EQ(create(name), value(-4)) << mode << name;
      EXPECT_EQ(remove(name), value(-4)) << mode << name;
    }
  }
  expectRefusedBeforeStaging(before);
}

TEST_F(FourPolicies, BadNamesAreRefusedBeforeTheModeIsLookedAt) {
  g_kmsMode = Q7_ONLY_KMS_MODE;
  EXPECT_EQ(create("Pol_1"), value(0));
  EXPECT_EQ(remove(std::string(17, 'a')), value(0));
}

TEST_F(FourPolicies, SaveFormWritesTheCachedPolicies) {
  g_kmsMode = Q7_CACHED_KMS_MODE;
  const std::vector<std::pair<int, long long>> results = {{0, 1}, {-1, -2}, {-3, -5}, {1, 0}, {-2, 0}, {2, 0}};
  const Tables before = tables();
  for (const auto& [save_result, expected] : results) {
    engine.clearJournal();
    engine.answer("Q7_SavePolicyInfo", save_result);
    EXPECT_EQ(save(), value(expected)) << save_result;
    EXPECT_THAT(engine.operations(), ElementsAre("Q7_ReloadAllInfoIfChanged", "Q7_SavePolicyInfo"));
  }
  expectUntouched(before);
}

TEST_F(FourPolicies, SaveFormDoesNothingInOtherModes) {
  const Tables before = tables();
  for (const Q7KmsMode mode : {Q7_NO_KMS_MODE, Q7_ONLY_KMS_MODE}) {
    g_kmsMode = mode;
    EXPECT_EQ(save(), value(0)) << mode;
  }
  expectRefusedBeforeStaging(before);
}

TEST_F(FourPolicies, SaveFormNeedsALiveSession) {
  g_kmsMode = Q7_CACHED_KMS_MODE;
  setTime(kStart + 300);
  EXPECT_EQ(save(), value(0));
  EXPECT_EQ(engine.count("Q7_SavePolicyInfo"), 0U);
}

// --- Refusals ---

TEST_F(FourPolicies, WithoutALiveSessionIsZeroWithoutAnyFlag) {
  const Tables before = tables();
  EXPECT_EQ(call(kezu_conf_set_policy, createArguments("new").setText(0, kOtherSession)), value(0));
  EXPECT_EQ(call(kezu_conf_set_policy, {kOtherSession, "a"}), value(0));
  setTime(kStart + 300);
  EXPECT_EQ(create("new"), value(0));
  EXPECT_EQ(remove("a"), value(0));
  EXPECT_EQ(g_userInfo[0].authTime, -1);
  expectRefusedBeforeStaging(before);
}

TEST_F(FourPolicies, FailedReloadIsZero) {
  engine.answer("Q7_ReloadAllInfoIfChanged", 1);
  const Tables before = tables();
  EXPECT_EQ(create("new"), value(0));
  EXPECT_EQ(remove("a"), value(0));
  expectRefusedBeforeStaging(before);
}

TEST_F(FourPolicies, MissingArgumentInAnyPositionIsZero) {
  const Tables before = tables();
  for (std::size_t position = 0; position < 9; ++position) {
    EXPECT_EQ(call(kezu_conf_set_policy, createArguments("new").setNull(position)), value(0)) << position;
  }
  for (std::size_t position = 0; position < 2; ++position) {
    EXPECT_EQ(call(kezu_conf_set_policy, Arguments{kSession, "a"}.setNull(position)), value(0)) << position;
  }
  expectRefusedBeforeStaging(before);
}

TEST_F(FourPolicies, EmptyTextInAnyPositionIsZero) {
  addPolicy(0, "");
  const Tables before = tables();
  for (const std::size_t position : {0U, 1U, 8U}) {
    EXPECT_EQ(call(kezu_conf_set_policy, createArguments("new").setText(position, "")), value(0)) << position;
    EXPECT_EQ(call(kezu_conf_set_policy, createArguments("new").setText(position, bytes("\0x"))), value(0)) << position;
  }
  EXPECT_EQ(remove(""), value(0));
  expectRefusedBeforeStaging(before);
}

TEST_F(FourPolicies, OtherArgumentCountsAreZeroInEveryMode) {
  const Tables before = tables();
  for (const Q7KmsMode mode : {Q7_NO_KMS_MODE, Q7_ONLY_KMS_MODE, Q7_CACHED_KMS_MODE}) {
    g_kmsMode = mode;
    EXPECT_EQ(call(kezu_conf_set_policy, Arguments()), value(0));
    EXPECT_EQ(call(kezu_conf_set_policy, {kSession, "a", "x"}), value(0));
    EXPECT_EQ(call(kezu_conf_set_policy, createArguments("new").text("more")), value(0));
  }
  expectRefusedBeforeStaging(before);
}

TEST_F(FourPolicies, ReloadedTableIsTheOneThatIsChanged) {
  engine.onCall("Q7_ReloadAllInfoIfChanged", [] {
    if (g_encPolicyArray_flag == 0) {
      addPolicy(2, "reloaded");
      g_encPolicyArray_flag = 2;
    }
  });
  EXPECT_EQ(create("new"), value(1));
  EXPECT_EQ(g_encPolicyArray_flag, 3);
  EXPECT_THAT(activePolicyNames(), ElementsAre("reloaded", "new"));
}

TEST_F(FourPolicies, ExceptionBecomesTheErrorFlagAndPublishesNothingBeforeTheSave) {
  for (const char* operation : {"Q7_ReloadAllInfoIfChanged", "BCIPHER_DupKey", "Q7_AddPolicyInfo", "lw_log"}) {
    engine.onCall(operation, [] { throw std::bad_alloc(); });
    EXPECT_EQ(create("new"), failure()) << operation;
    EXPECT_EQ(g_encPolicyArray_flag, 0) << operation;
    EXPECT_THAT(activePolicyNames(), ElementsAre("a", "b", "c", "d")) << operation;
    engine.onCall(operation, nullptr);
  }
  engine.onCall("Q7_SavePolicyInfo", [] { throw std::bad_alloc(); });
  EXPECT_EQ(remove("a"), failure());
  EXPECT_EQ(create("new"), failure());
}

}  // namespace
}  // namespace conformance
