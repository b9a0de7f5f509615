// SPDX-License-Identifier: Apache-2.0
//
// Reading the policy table back: kezu_conf_get_policy.
#include "listing_checks.h"

namespace conformance {
namespace {

class PolicyListing : public LoggedIn {
 protected:
  // Appends a policy whose numbers are all different.
  static Q7EncPolicyInfo& add(int slot, std::string_view name, int base) {
    Q7EncPolicyInfo& policy = g_encPolicyArray[slot][g_numberOfEncPolicy[slot]++];
    setField(policy.policyID, name);
    policy.algID = base + 1;
    policy.ivMode = base + 2;
    setField(policy.columnKey, "key material");
    policy.keyLength = 12;
    policy.encPos = base + 3;
    policy.encLen = base + 4;
    policy.blockMode = base + 5;
    policy.strMode = base + 6;
    return policy;
  }
  static void setFlag(Q7EncPolicyInfo& policy, std::string_view flag) {
    std::memcpy(policy.encFlag, flag.data(), flag.size());
    policy.encFlagLen = static_cast<int>(flag.size());
  }

  static StringResult count() { return call(kezu_conf_get_policy, {kSession}); }
  static StringResult named(std::string_view name, long long field) {
    return call(kezu_conf_get_policy, arguments({kSession, name}, {field}));
  }
  static StringResult at(long long index, long long field) {
    return call(kezu_conf_get_policy, arguments({kSession}, {index, field}));
  }
};

class TwoListedPolicies : public PolicyListing {
 protected:
  void SetUp() override {
    PolicyListing::SetUp();
    setFlag(add(0, "first", 100), "\x01\xAB");
    setFlag(add(0, "second", -200), std::string(16, '\xF7'));
  }
};

TEST_F(PolicyListing, WithoutArgumentsGivesTheFileCheckString) {
  expectFileCheckString(kezu_conf_get_policy, g_last_policy_KezuFileChkStr);
}

TEST_F(PolicyListing, FileCheckStringFollowsTheReload) {
  expectFileCheckStringFollowsTheReload(kezu_conf_get_policy, g_last_policy_KezuFileChkStr);
}

TEST_F(PolicyListing, EmptyTableHasTheCountZeroAndNoFields) {
  EXPECT_THAT(count(), IsText("0"));
  EXPECT_THAT(named("first", 0), IsNull());
  EXPECT_THAT(at(0, 0), IsNull());
}

TEST_F(TwoListedPolicies, CountIsThatOfTheActiveSlot) {
  EXPECT_THAT(count(), IsText("2"));
  for (int slot = 1; slot < kPolicySlots; ++slot) {
    g_encPolicyArray_flag = slot;
    g_numberOfEncPolicy[slot] = 10 * slot;
    EXPECT_THAT(count(), IsText(std::to_string(10 * slot)));
  }
  g_numberOfEncPolicy[4] = kMaxPolicies;
  EXPECT_THAT(count(), IsText("2000"));
}

TEST_F(TwoListedPolicies, EveryFormWithASessionReloadsOnceAndChangesNothing) {
  count();
  named("first", 0);
  at(0, 1);
  EXPECT_THAT(engine.operations(),
              ElementsAre("Q7_ReloadAllInfoIfChanged", "Q7_ReloadAllInfoIfChanged", "Q7_ReloadAllInfoIfChanged"));
}

TEST_F(TwoListedPolicies, FieldsByName) {
  const std::vector<std::string> first = {"101", "102", "103", "104", "105", "106"};
  const std::vector<std::string> second = {"-199", "-198", "-197", "-196", "-195", "-194"};
  for (int field = 0; field < 6; ++field) {
    EXPECT_THAT(named("first", field), IsText(first[static_cast<std::size_t>(field)])) << field;
    EXPECT_THAT(named("second", field), IsText(second[static_cast<std::size_t>(field)])) << field;
  }
}

TEST_F(TwoListedPolicies, FieldsByPositionAreShiftedByOne) {
  const std::vector<std::string> first = {"first", "101", "102", "103", "104", "105", "106", "01ab"};
  const std::vector<std::string> second = {"second", "-199", "-198", "-197",
                                           "-196",   "-195", "-194", "f7f7f7f7f7f7f7f7f7f7f7f7f7f7f7f7"};
  for (int field = 0; field < 8; ++field) {
    EXPECT_THAT(at(0, field), IsText(first[static_cast<std::size_t>(field)])) << field;
    EXPECT_THAT(at(1, field), IsText(second[static_cast<std::size_t>(field)])) << field;
  }
}

TEST_F(TwoListedPolicies, ResultsAreTerminatedTexts) {
  for (int field = 0; field < 8; ++field) {
    EXPECT_TRUE(isTerminated(at(1, field))) << field;
  }
  EXPECT_TRUE(isTerminated(named("first", 0)));
  EXPECT_TRUE(isTerminated(count()));
}

TEST_F(TwoListedPolicies, UnknownFieldIsNull) {
  for (const long long field : {6LL, 7LL, 8LL}) {
    EXPECT_THAT(named("first", field), IsNull()) << field;
  }
  EXPECT_THAT(at(0, 8), IsNull());
  EXPECT_THAT(at(0, 9), IsNull());
  for (const long long field : kNever) {
    EXPECT_THAT(named("first", field), IsNull()) << field;
    EXPECT_THAT(at(0, field), IsNull()) << field;
  }
}

TEST_F(TwoListedPolicies, IndexOutsideTheTableIsNull) {
  for (int field = 0; field < 8; ++field) {
    EXPECT_THAT(at(2, field), IsNull());
    for (const long long index : kNever) {
      EXPECT_THAT(at(index, field), IsNull()) << index;
    }
  }
}

TEST_F(TwoListedPolicies, NamesAreComparedCaseSensitivelyAndWhole) {
  for (const std::string& name :
       {std::string("First"), std::string("firs"), std::string("first "), std::string("third"), bytes("first\0"),
        bytes("first\0x"), std::string(17, 'x'), std::string(5000, 'f')}) {
    EXPECT_THAT(named(name, 0), IsNull()) << name.substr(0, 20);
  }
}

TEST_F(TwoListedPolicies, FirstOfTwoEqualNamesIsRead) {
  add(0, "first", 900);
  EXPECT_THAT(named("first", 0), IsText("101"));
}

TEST_F(TwoListedPolicies, RecordsBehindTheCountAreNotRead) {
  g_numberOfEncPolicy[0] = 1;
  EXPECT_THAT(named("second", 0), IsNull());
  EXPECT_THAT(at(1, 0), IsNull());
}

TEST_F(TwoListedPolicies, OnlyTheActiveSlotIsRead) {
  g_encPolicyArray_flag = 4;
  EXPECT_THAT(named("first", 0), IsNull());
  EXPECT_THAT(at(0, 0), IsNull());
  add(4, "other", 300);
  EXPECT_THAT(at(0, 0), IsText("other"));
  EXPECT_THAT(named("other", 5), IsText("306"));
}

TEST_F(PolicyListing, LastOfAFullSlotIsRead) {
  g_encPolicyArray_flag = 2;
  for (int i = 0; i < kMaxPolicies; ++i) {
    add(2, "p" + std::to_string(i), i);
  }
  EXPECT_THAT(at(1999, 0), IsText("p1999"));
  EXPECT_THAT(named("p1999", 0), IsText("2000"));
  EXPECT_THAT(at(2000, 0), IsNull());
}

TEST_F(PolicyListing, LongestNameIsReturnedWhole) {
  add(0, std::string(16, 'n'), 0);
  EXPECT_THAT(at(0, 0), IsText(std::string(16, 'n')));
  EXPECT_THAT(named(std::string(16, 'n'), 0), IsText("1"));
}

TEST_F(PolicyListing, ExtremeNumbersAreWrittenWhole) {
  Q7EncPolicyInfo& policy = add(0, "p", 0);
  policy.encPos = std::numeric_limits<int>::min();
  policy.encLen = std::numeric_limits<int>::max();
  EXPECT_THAT(named("p", 2), IsText("-2147483648"));
  EXPECT_THAT(at(0, 4), IsText("2147483647"));
}

TEST_F(PolicyListing, EncryptionFlagIsHexOfItsLength) {
  Q7EncPolicyInfo& policy = add(0, "p", 0);
  setFlag(policy, bytes("\0\x0F\xA0\xFF"));
  EXPECT_THAT(at(0, 7), IsText("000fa0ff"));
  policy.encFlagLen = 1;
  EXPECT_THAT(at(0, 7), IsText("00"));
  EXPECT_THAT(engine.calls("bin2hex"), ElementsAre("bin2hex(4, 0)", "bin2hex(1, 0)"));
}

TEST_F(PolicyListing, EmptyEncryptionFlagIsTheEmptyText) {
  add(0, "p", 0);
  EXPECT_TRUE(at(0, 7).isEmptyText());
}

TEST_F(PolicyListing, LengthOfAFlagThatItsFieldCanNotHaveStaysInside) {
  Q7EncPolicyInfo& policy = add(0, "p", 0);
  setFlag(policy, "flag");
  policy.encFlagLen = -1;
  EXPECT_TRUE(at(0, 7).isEmptyText());
  policy.encFlagLen = 17;
  EXPECT_THAT(at(0, 7), IsText("666c6167" + std::string(24, '0')));
}

TEST_F(TwoListedPolicies, KeyIsInNoResult) {
  for (int field = -10; field < 30; ++field) {
    EXPECT_THAT(at(0, field).text(), ::testing::Not(::testing::HasSubstr("key material")));
    EXPECT_THAT(at(0, field).text(), ::testing::Not(::testing::HasSubstr("6b6579"))) << "in hexadecimal";
    EXPECT_NE(at(0, field).text(), "12");
  }
}

TEST_F(TwoListedPolicies, ArgumentsAreReadAsTheirLow32Bits) {
  EXPECT_THAT(at(0x100000001LL, 0x100000000LL), IsText("second"));
  EXPECT_THAT(named("first", 0x100000005LL), IsText("106"));
}

TEST_F(TwoListedPolicies, TwoResultsCanBeAliveAtOnce) {
  const StringResult name1 = at(0, 0);
  const StringResult name2 = at(1, 0);
  const StringResult flag1 = at(0, 7);
  const StringResult flag2 = at(1, 7);
  EXPECT_THAT(name1, IsText("first"));
  EXPECT_THAT(name2, IsText("second"));
  EXPECT_THAT(flag1, IsText("01ab"));
  EXPECT_EQ(flag2.length, 32U);
}

TEST_F(TwoListedPolicies, ReloadedTableIsTheOneThatIsRead) {
  engine.onCall("Q7_ReloadAllInfoIfChanged", [] {
    add(1, "new", 500);
    g_encPolicyArray_flag = 1;
  });
  EXPECT_THAT(at(0, 0), IsText("new"));
}

TEST_F(TwoListedPolicies, OtherArgumentCountsAreNull) {
  EXPECT_THAT(call(kezu_conf_get_policy, {kSession, "first"}), IsNull());
  EXPECT_THAT(call(kezu_conf_get_policy, arguments({kSession, "first"}, {0, 0})), IsNull());
}

TEST_F(TwoListedPolicies, WithoutALiveSessionIsNull) {
  expectNullUnderEachRefusal(kezu_conf_get_policy, [] { return arguments({kSession}); });
  expectNullUnderEachRefusal(kezu_conf_get_policy, [] { return arguments({kSession, "first"}, {0}); });
  expectNullUnderEachRefusal(kezu_conf_get_policy, [] { return arguments({kSession}, {0, 0}); });
}

TEST_F(TwoListedPolicies, ExceptionBecomesTheErrorFlag) {
  engine.onCall("bin2hex", [] { throw std::bad_alloc(); });
  EXPECT_THAT(at(0, 7), IsNullWithError());
  engine.onCall("Q7_ReloadAllInfoIfChanged", [] { throw std::bad_alloc(); });
  EXPECT_THAT(count(), IsNullWithError());
  engine.onCall("Q7_ReloadAllInfoIfChanged3", [] { throw 1; });
  EXPECT_THAT(call(kezu_conf_get_policy, Arguments()), IsNullWithError());
}

}  // namespace
}  // namespace conformance
