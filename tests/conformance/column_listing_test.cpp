// SPDX-License-Identifier: Apache-2.0
//
// Reading the registered columns back: kezu_conf_get_column.
#include "listing_checks.h"

namespace conformance {
namespace {

class ColumnListing : public LoggedIn {
 protected:
  static void add(std::string_view owner, std::string_view table, std::string_view column, std::string_view policy) {
    Q7EncColumnInfo& record = g_encColumnInfoArray[g_numberOfEncColumn++];
    setField(record.owner, owner);
    setField(record.table, table);
    setField(record.column, column);
    setField(record.policyID, policy);
  }

  static StringResult count() { return call(kezu_conf_get_column, {kSession}); }
  static StringResult at(long long index, long long field) {
    return call(kezu_conf_get_column, arguments({kSession}, {index, field}));
  }
  static StringResult policyOf(std::string_view owner, std::string_view table, std::string_view column) {
    return call(kezu_conf_get_column, {kSession, owner, table, column});
  }
};

class ThreeListedColumns : public ColumnListing {
 protected:
  void SetUp() override {
    ColumnListing::SetUp();
    add("d1", "t1", "c1", "p1");
    add("d2", "t2", "c2", "p2");
    add("d3", "t3", "c3", "p3");
  }
};

TEST_F(ColumnListing, WithoutArgumentsGivesTheFileCheckString) {
  expectFileCheckString(kezu_conf_get_column, g_last_column_KezuFileChkStr);
}

TEST_F(ColumnListing, FileCheckStringFollowsTheReload) {
  expectFileCheckStringFollowsTheReload(kezu_conf_get_column, g_last_column_KezuFileChkStr);
}

TEST_F(ColumnListing, EmptyTableHasTheCountZeroAndNoFields) {
  EXPECT_THAT(count(), IsText("0"));
  for (const long long field : {0, 1, 2, 3}) {
    EXPECT_THAT(at(0, field), IsNull());
    EXPECT_THAT(at(1, field), IsNull());
  }
}

TEST_F(ThreeListedColumns, CountIsThatOfTheTable) {
  EXPECT_THAT(count(), IsText("3"));
  g_numberOfEncColumn = kMaxColumns;
  EXPECT_THAT(count(), IsText("2000"));
}

TEST_F(ThreeListedColumns, FieldsByPosition) {
  const char* names[] = {"d", "t", "c", "p"};
  for (int index = 0; index < 3; ++index) {
    for (int field = 0; field < 4; ++field) {
      EXPECT_THAT(at(index, field), IsText(names[field] + std::to_string(index + 1)));
    }
  }
}

TEST_F(ThreeListedColumns, FieldsAreReturnedInPlace) {
  EXPECT_EQ(at(1, 0).pointer, g_encColumnInfoArray[1].owner);
  EXPECT_EQ(at(1, 1).pointer, g_encColumnInfoArray[1].table);
  EXPECT_EQ(at(1, 2).pointer, g_encColumnInfoArray[1].column);
  EXPECT_EQ(at(1, 3).pointer, g_encColumnInfoArray[1].policyID);
  EXPECT_TRUE(at(1, 3).isGuardIntact(0)) << "the server's buffer was written to";
}

TEST_F(ThreeListedColumns, UnknownFieldIsNull) {
  EXPECT_THAT(at(0, 4), IsNull());
  for (const long long field : kNever) {
    EXPECT_THAT(at(0, field), IsNull()) << field;
  }
}

TEST_F(ThreeListedColumns, IndexOutsideTheTableIsNull) {
  for (const long long field : {0, 1, 2, 3}) {
    EXPECT_THAT(at(3, field), IsNull());
    for (const long long index : kNever) {
      EXPECT_THAT(at(index, field), IsNull()) << index;
    }
  }
}

TEST_F(ThreeListedColumns, AfterRemovingTheFirstTheThirdIsAtItsPlace) {
  EXPECT_EQ(call(kezu_conf_set_column, {kSession, "d1", "t1", "c1"}), value(3));
  EXPECT_THAT(at(0, 2), IsText("c3"));
  EXPECT_THAT(at(1, 2), IsText("c2"));
  EXPECT_THAT(at(2, 2), IsNull());
  EXPECT_THAT(count(), IsText("2"));
}

TEST_F(ColumnListing, NameOfAPolicyThatNeverWasIsReturned) {
  add("d", "t", "c", "no such policy");
  EXPECT_THAT(at(0, 3), IsText("no such policy"));
}

TEST_F(ColumnListing, NamesOf64BytesAreReturnedWhole) {
  const std::string longest(64, 'x');
  add(longest, longest, longest, longest);
  for (const long long field : {0, 1, 2, 3}) {
    EXPECT_THAT(at(0, field), IsText(longest));
  }
}

TEST_F(ColumnListing, FieldWithoutATerminatingZeroEndsWithItsField) {
  add("d", "t", "c", "p");
  std::memset(g_encColumnInfoArray[0].owner, 'o', sizeof g_encColumnInfoArray[0].owner);
  EXPECT_THAT(at(0, 0), IsText(std::string(65, 'o')));
}

TEST_F(ColumnListing, LastOfAFullTableIsRead) {
  for (int i = 0; i < kMaxColumns; ++i) {
    add("d", "t", "c" + std::to_string(i), "p");
  }
  EXPECT_THAT(at(1999, 2), IsText("c1999"));
  EXPECT_THAT(at(2000, 2), IsNull());
}

TEST_F(ThreeListedColumns, ArgumentsAreReadAsTheirLow32Bits) {
  EXPECT_THAT(at(0x100000001LL, 0x200000003LL), IsText("p2"));
}

TEST_F(ColumnListing, PolicyOfAColumnIsTheEnginesAnswer) {
  engine.answerText("kezuGetEncPolicyId", "engines choice");
  const StringResult result = policyOf("db", "tab", "col");
  EXPECT_THAT(result, IsText("engines choice"));
  EXPECT_TRUE(result.isInServerBuffer());
  EXPECT_TRUE(isTerminated(result));
  EXPECT_THAT(engine.calls(),
              ElementsAre("Q7_ReloadAllInfoIfChanged()", "kezuGetEncPolicyId(\"db\", \"tab\", \"col\")"));
}

TEST_F(ColumnListing, LongestPolicyOfAColumnIsReturnedWhole) {
  engine.answerText("kezuGetEncPolicyId", std::string(64, 'p'));
  EXPECT_THAT(policyOf("db", "tab", "col"), IsText(std::string(64, 'p')));
}

TEST_F(ColumnListing, LookupTakesArgumentsWithTheirLengthHoweverLong) {
  const std::string longer(3000, 'x');
  policyOf(longer, "t\xC3\xA9", "c");
  EXPECT_THAT(engine.calls("kezuGetEncPolicyId"),
              ElementsAre("kezuGetEncPolicyId(\"" + longer + "\", \"t\\xc3\\xa9\", \"c\")"));
}

TEST_F(ThreeListedColumns, ColumnThatTheEngineDoesNotKnowIsNull) {
  for (const int result : {1, -1, 100}) {
    engine.answer("kezuGetEncPolicyId", result);
    engine.answerText("kezuGetEncPolicyId", "reason");
    EXPECT_THAT(policyOf("d1", "t1", "c1"), IsNull()) << result;
  }
}

TEST_F(ColumnListing, TwoPoliciesCanBeAliveAtOnce) {
  engine.answerText("kezuGetEncPolicyId", "one");
  const StringResult first = policyOf("d", "t", "c");
  engine.answerText("kezuGetEncPolicyId", "two");
  const StringResult second = policyOf("d", "t", "c");
  EXPECT_THAT(first, IsText("one"));
  EXPECT_THAT(second, IsText("two"));
}

TEST_F(ThreeListedColumns, CountsAndFieldsReloadOnce) {
  count();
  at(0, 0);
  EXPECT_THAT(engine.operations(), ElementsAre("Q7_ReloadAllInfoIfChanged", "Q7_ReloadAllInfoIfChanged"));
}

TEST_F(ThreeListedColumns, OtherArgumentCountsAreNull) {
  EXPECT_THAT(call(kezu_conf_get_column, arguments({kSession}, {0})), IsNull());
  EXPECT_THAT(call(kezu_conf_get_column, {kSession, "d1", "t1", "c1", "x"}), IsNull());
}

TEST_F(ThreeListedColumns, WithoutALiveSessionIsNull) {
  expectNullUnderEachRefusal(kezu_conf_get_column, [] { return arguments({kSession}); });
  expectNullUnderEachRefusal(kezu_conf_get_column, [] { return arguments({kSession}, {0, 0}); });
  expectNullUnderEachRefusal(kezu_conf_get_column, [] { return arguments({kSession, "d1", "t1", "c1"}); });
  EXPECT_EQ(engine.count("kezuGetEncPolicyId"), 0U);
}

TEST_F(ThreeListedColumns, ExceptionBecomesTheErrorFlag) {
  engine.onCall("kezuGetEncPolicyId", [] { throw std::bad_alloc(); });
  EXPECT_THAT(policyOf("d", "t", "c"), IsNullWithError());
  engine.onCall("Q7_ReloadAllInfoIfChanged", [] { throw std::bad_alloc(); });
  EXPECT_THAT(count(), IsNullWithError());
  engine.onCall("Q7_ReloadAllInfoIfChanged3", [] { throw 1; });
  EXPECT_THAT(call(kezu_conf_get_column, Arguments()), IsNullWithError());
}

}  // namespace
}  // namespace conformance
