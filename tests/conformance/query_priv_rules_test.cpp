// SPDX-License-Identifier: Apache-2.0
//
// The query-privilege rules: the list's operations and a rule's text form.
#include <boost/lexical_cast.hpp>
#include <sstream>

#include "fixture.h"
#include "query_priv/query_priv.h"
#include "query_priv/text_form.h"

namespace conformance {
namespace {

class Rules : public Conformance {
 protected:
  // The table as key:type1/pattern1/type2/pattern2/action.
  static std::string line(int i) {
    const Q7QueryPrivData& entry = g_queryPriv[i];
    const Q7QueryPriv& rule = entry.queryPriv;
    return std::to_string(entry.sqlType) + ":" + std::to_string(rule.queryType) + "/" + rule.queryPattern + "/" +
           std::to_string(rule.p_queryType) + "/" + rule.p_queryPattern + "/" + std::to_string(rule.decAction);
  }
  static std::vector<std::string> table() {
    std::vector<std::string> lines;
    for (int i = 0; i < g_numberOfQueryPriv; ++i) {
      lines.push_back(line(i));
    }
    return lines;
  }

  static auto event(const std::string& text) { return IsEvent(2, "group", "policy", "desc", text); }
};

// --- Statement types ---

TEST_F(Rules, TypeNumberIsItsPlaceInTheTable) {
  EXPECT_EQ(parseQueryType("type_zero"), 0);
  EXPECT_EQ(parseQueryType("type_one"), 1);
  EXPECT_EQ(parseQueryType("type_three"), 3);
}

TEST_F(Rules, UnknownTypeIsMinusOne) {
  for (const std::string& name :
       {std::string(), std::string("Type_zero"), std::string("type_zer"), std::string("type_zero "),
        std::string("SELECT"), bytes("type_zero\0"), std::string("behind_the_end")}) {
    EXPECT_EQ(parseQueryType(name), -1) << name;
  }
}

// --- Setting ---

TEST_F(Rules, SettingANewRuleInsertsIt) {
  EXPECT_EQ(query_priv::set("type_one", "a.*", "type_two", "b+", 7), 1);
  EXPECT_THAT(engine.calls("Q7QueryPriv::insert"), ElementsAre("Q7QueryPriv::insert(1, \"a.*\", 2, \"b+\", 7, 0)"));
  EXPECT_THAT(table(), ElementsAre("451:1/a.*/2/b+/7"));
}

TEST_F(Rules, SettingANewRuleWritesItsEventAfterwards) {
  query_priv::set("type_one", "a.*", "type_two", "b+", -7);
  EXPECT_THAT(engine.events(), ElementsAre(event("ADD QUERY PRIVILEGE: type1[type_one] ptn1[a.*] type2[type_two] "
                                                 "ptn2[b+] priv[-7] query priv setted")));
  EXPECT_THAT(engine.operations(), ElementsAre("Q7QueryPriv::insert", "logwCategory", "lw_get_category", "lw_log"));
}

TEST_F(Rules, CombinedTypeCountsBothTypes) {
  query_priv::set("type_zero", "", "type_zero", "", 1);
  query_priv::set("type_three", "", "type_zero", "", 1);
  query_priv::set("type_zero", "", "type_three", "", 1);
  query_priv::set("", "", "", "", 1);
  query_priv::set("type_zero", "", "nothing", "", 1);
  query_priv::set("nothing", "", "type_zero", "", 1);
  EXPECT_THAT(table(),
              ElementsAre("150:0//0//1", "153:3//0//1", "600:0//3//1", "-1:-1//-1//1", "0:0//-1//1", "149:-1//0//1"));
}

TEST_F(Rules, SettingTwiceChangesTheAction) {
  EXPECT_EQ(query_priv::set("type_one", "a", "type_two", "b", 7), 1);
  g_queryPriv[0].queryPriv.encAction = 5;
  engine.clearJournal();
  EXPECT_EQ(query_priv::set("type_one", "a", "type_two", "b", 2147483647), 2);
  EXPECT_THAT(table(), ElementsAre("451:1/a/2/b/2147483647"));
  EXPECT_EQ(g_queryPriv[0].queryPriv.encAction, 5) << "nothing else changes";
  EXPECT_THAT(engine.events(), ElementsAre(event("CHANGE QUERY PRIVILEGE: type1[type_one] ptn1[a] type2[type_two] "
                                                 "ptn2[b] priv[2147483647] query priv setted")));
  EXPECT_EQ(engine.count("Q7QueryPriv::insert"), 0U);
}

TEST_F(Rules, PatternsAreComparedWholeAndCaseSensitively) {
  EXPECT_EQ(query_priv::set("type_one", "abc", "type_two", "xyz", 1), 1);
  for (const std::string& pattern : {std::string("Abc"), std::string("abc "), std::string("ab"), std::string(),
                                     bytes("abc\0"), std::string("xyz")}) {
    EXPECT_EQ(query_priv::set("type_one", pattern, "type_two", "xyz", 1), 1) << pattern;
    EXPECT_EQ(query_priv::set("type_one", "abc", "type_two", pattern + "!", 1), 1) << pattern;
    EXPECT_EQ(query_priv::set("type_one", pattern, "type_two", "xyz", 2), 2) << pattern;
  }
  EXPECT_EQ(query_priv::set("type_two", "abc", "type_one", "xyz", 1), 1) << "the types' order counts";
  EXPECT_EQ(query_priv::remove("type_one", "ABC", "type_two", "xyz"), 0);
}

TEST_F(Rules, UnknownTypesAreOneAndKeepTheirNamesInTheEvent) {
  EXPECT_EQ(query_priv::set("FIRST", "a", "SECOND", "b", 1), 1);
  EXPECT_EQ(query_priv::set("other", "a", "", "b", 2), 2);
  EXPECT_EQ(query_priv::remove("third", "a", "fourth", "b"), 3);
  EXPECT_THAT(
      engine.events(),
      ElementsAre(event("ADD QUERY PRIVILEGE: type1[FIRST] ptn1[a] type2[SECOND] ptn2[b] priv[1] query priv setted"),
                  event("CHANGE QUERY PRIVILEGE: type1[other] ptn1[a] type2[] ptn2[b] priv[2] query priv setted"),
                  event("DELETE QUERY PRIVILEGE: type1[third] ptn1[a] type2[fourth] ptn2[b] query priv setted")));
}

TEST_F(Rules, FirstOfTwoEqualRulesIsChanged) {
  query_priv::set("type_one", "a", "type_two", "b", 1);
  g_queryPriv[1] = g_queryPriv[0];
  g_numberOfQueryPriv = 2;
  EXPECT_EQ(query_priv::set("type_one", "a", "type_two", "b", 9), 2);
  EXPECT_THAT(table(), ElementsAre("451:1/a/2/b/9", "451:1/a/2/b/1"));
}

TEST_F(Rules, RuleWhosePatternDoesNotCompileIsKept) {
  EXPECT_EQ(query_priv::set("type_one", "(", "type_two", "[", 3), 1);
  EXPECT_EQ(query_priv::get(0, 1), "(");
  EXPECT_FALSE(query_priv::get(0)->checkPattern("(", "["));
  EXPECT_EQ(query_priv::set("type_one", "(", "type_two", "[", 4), 2);
  EXPECT_EQ(query_priv::remove("type_one", "(", "type_two", "["), 3);
}

TEST_F(Rules, ChangedRuleStillMatchesItsPatterns) {
  query_priv::set("type_one", "^a.c$", "type_two", "b", 3);
  query_priv::set("type_one", "^a.c$", "type_two", "b", 4);
  EXPECT_TRUE(query_priv::get(0)->checkPattern("abc", "xbx"));
  EXPECT_FALSE(query_priv::get(0)->checkPattern("abcd", "xbx"));
}

TEST_F(Rules, RuleThatTheEngineDoesNotTakeGivesMinusTwoAndNoEvent) {
  for (const int result : {1, -1}) {
    engine.answer("Q7QueryPriv::insert", result);
    EXPECT_EQ(query_priv::set("type_one", "a", "type_two", "b", 3), -2);
    EXPECT_EQ(g_numberOfQueryPriv, 0);
    EXPECT_THAT(engine.events(), IsEmpty());
  }
}

TEST_F(Rules, FullTableTakesNoMoreRulesAndKeepsThoseItHas) {
  for (int i = 0; i < kMaxQueryPrivs; ++i) {
    ASSERT_EQ(query_priv::set("type_one", "p" + std::to_string(i), "type_two", "", i), 1);
  }
  engine.clearJournal();
  EXPECT_EQ(query_priv::set("type_one", "one more", "type_two", "", 1), -2);
  EXPECT_EQ(g_numberOfQueryPriv, kMaxQueryPrivs);
  EXPECT_THAT(engine.events(), IsEmpty());
  EXPECT_EQ(query_priv::get(2000), nullptr) << "there is no slot behind the last";
  EXPECT_EQ(query_priv::get(2000, 0), "");
  EXPECT_EQ(query_priv::get(1999, 1), "p1999");
  EXPECT_EQ(query_priv::set("type_one", "p1999", "type_two", "", 5), 2);
  EXPECT_EQ(query_priv::remove("type_one", "p0", "type_two", ""), 3);
  EXPECT_EQ(line(0), "451:1/p1999/2//5");
  EXPECT_EQ(query_priv::set("type_one", "one more", "type_two", "", 1), 1);
}

// --- Removing ---

class ThreeRules : public Rules {
 protected:
  void SetUp() override {
    Rules::SetUp();
    query_priv::set("type_zero", "^a", "type_one", "^A", 1);
    query_priv::set("type_one", "^b", "type_two", "^B", 2);
    query_priv::set("type_two", "^c", "type_three", "^C", 3);
    engine.clearJournal();
  }
};

TEST_F(Rules, RemovingFromAnEmptyTableGivesZeroAndNoEvent) {
  for (const int count : {0, -1}) {
    g_numberOfQueryPriv = count;
    EXPECT_EQ(query_priv::remove("", "", "", ""), 0);
    EXPECT_EQ(g_numberOfQueryPriv, count);
  }
  EXPECT_THAT(engine.calls(), IsEmpty());
}

TEST_F(ThreeRules, RemovingTheFirstMovesTheLastIntoItsPlace) {
  EXPECT_EQ(query_priv::remove("type_zero", "^a", "type_one", "^A"), 3);
  EXPECT_THAT(table(), ElementsAre("602:2/^c/3/^C/3", "451:1/^b/2/^B/2"));
}

TEST_F(ThreeRules, MovedRuleMatchesItsOwnPatterns) {
  query_priv::remove("type_zero", "^a", "type_one", "^A");
  EXPECT_TRUE(query_priv::get(0)->checkPattern("cx", "Cx"));
  EXPECT_FALSE(query_priv::get(0)->checkPattern("ax", "Ax"));
  EXPECT_TRUE(query_priv::get(1)->checkPattern("bx", "Bx"));
}

TEST_F(ThreeRules, RemovingTheMiddleAndTheLastLeavesTheOthers) {
  EXPECT_EQ(query_priv::remove("type_one", "^b", "type_two", "^B"), 3);
  EXPECT_THAT(table(), ElementsAre("300:0/^a/1/^A/1", "602:2/^c/3/^C/3"));
  EXPECT_EQ(query_priv::remove("type_two", "^c", "type_three", "^C"), 3);
  EXPECT_THAT(table(), ElementsAre("300:0/^a/1/^A/1"));
  EXPECT_TRUE(query_priv::get(0)->checkPattern("ax", "Ax"));
}

TEST_F(ThreeRules, NothingOfTheRemovedRuleStaysBehindTheLast) {
  const std::string empty = boost::lexical_cast<std::string>(Q7QueryPriv());
  query_priv::remove("type_two", "^c", "type_three", "^C");
  EXPECT_EQ(boost::lexical_cast<std::string>(*query_priv::get(2)), empty);
  query_priv::remove("type_zero", "^a", "type_one", "^A");
  EXPECT_EQ(boost::lexical_cast<std::string>(*query_priv::get(1)), empty);
}

TEST_F(ThreeRules, RemovedRuleIsReleasedAndItsPlaceCanBeFilledAgain) {
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(query_priv::remove("type_zero", "^a", "type_one", "^A"), 3);
    ASSERT_EQ(query_priv::set("type_zero", "^a", "type_one", "^A", i), 1);
  }
  EXPECT_EQ(g_numberOfQueryPriv, 3);
  while (g_numberOfQueryPriv > 0) {
    const Q7QueryPriv rule = *query_priv::get(0);
    const char* names[] = {"type_zero", "type_one", "type_two", "type_three"};
    ASSERT_EQ(
        query_priv::remove(names[rule.queryType], rule.queryPattern, names[rule.p_queryType], rule.p_queryPattern), 3);
  }
}

TEST_F(ThreeRules, RemovingWritesItsEventWithoutTheActionAfterwards) {
  int count_at_log = -1;
  engine.onCall("lw_log", [&] { count_at_log = g_numberOfQueryPriv; });
  query_priv::remove("type_one", "^b", "type_two", "^B");
  EXPECT_EQ(count_at_log, 2);
  EXPECT_THAT(engine.events(), ElementsAre(event("DELETE QUERY PRIVILEGE: type1[type_one] ptn1[^b] type2[type_two] "
                                                 "ptn2[^B] query priv setted")));
}

TEST_F(ThreeRules, RemovingWhatIsNotThereGivesZeroAndNoEvent) {
  EXPECT_EQ(query_priv::remove("type_one", "^b", "type_two", "^b"), 0);
  EXPECT_EQ(query_priv::remove("type_two", "^b", "type_one", "^B"), 0);
  EXPECT_EQ(query_priv::remove("type_one", "^B", "type_two", "^b"), 0);
  EXPECT_EQ(g_numberOfQueryPriv, 3);
  EXPECT_THAT(engine.calls(), IsEmpty());
}

// --- Reading ---

TEST_F(ThreeRules, SizeIsTheNumberOfEncryptedColumns) {
  EXPECT_EQ(query_priv::size(), 0);
  g_numberOfEncColumn = 17;
  EXPECT_EQ(query_priv::size(), 17);
  g_numberOfQueryPriv = 0;
  EXPECT_EQ(query_priv::size(), 17);
}

TEST_F(ThreeRules, GetGivesTheRuleInPlaceUpToTheSlotBehindTheLast) {
  for (int i = 0; i <= 3; ++i) {
    EXPECT_EQ(query_priv::get(i), &g_queryPriv[i].queryPriv) << i;
  }
  EXPECT_EQ(query_priv::get(4), nullptr);
  EXPECT_EQ(query_priv::get(std::numeric_limits<int>::max()), nullptr);
}

TEST_F(ThreeRules, NegativeIndexHasNoRule) {
  for (const int index : {-1, -2, std::numeric_limits<int>::min()}) {
    EXPECT_EQ(query_priv::get(index), nullptr);
    EXPECT_EQ(query_priv::get(index, 0), "");
  }
}

TEST_F(Rules, EmptyTableHasTheSlotZero) {
  EXPECT_NE(query_priv::get(0), nullptr);
  EXPECT_EQ(query_priv::get(1), nullptr);
}

TEST_F(ThreeRules, FieldsAreTexts) {
  EXPECT_EQ(query_priv::get(1, 0), "1");
  EXPECT_EQ(query_priv::get(1, 1), "^b");
  EXPECT_EQ(query_priv::get(1, 2), "2");
  EXPECT_EQ(query_priv::get(1, 3), "^B");
  EXPECT_EQ(query_priv::get(1, 4), "2");
}

TEST_F(ThreeRules, OtherFieldsAndRulesAreTheEmptyText) {
  for (const int field : {5, 6, -1, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
    EXPECT_EQ(query_priv::get(1, field), "") << field;
  }
  EXPECT_EQ(query_priv::get(4, 0), "");
}

TEST_F(Rules, NegativeNumbersHaveTheirSign) {
  query_priv::set("unknown", "", "unknown", "", std::numeric_limits<int>::min());
  EXPECT_EQ(query_priv::get(0, 0), "-1");
  EXPECT_EQ(query_priv::get(0, 2), "-1");
  EXPECT_EQ(query_priv::get(0, 4), "-2147483648");
}

// --- The text form ---

Q7QueryPriv rule(int type, const char* pattern, int p_type, const char* p_pattern, int action) {
  Q7QueryPriv made;
  made.queryType = type;
  made.queryPattern = pattern;
  made.p_queryType = p_type;
  made.p_queryPattern = p_pattern;
  made.decAction = action;
  made.encAction = 99;
  return made;
}

TEST_F(Rules, TextFormIsFiveFieldsBetweenCommas) {
  EXPECT_EQ(boost::lexical_cast<std::string>(rule(1, "a.*", 3, "b", -4)), "type_one,\"a.*\",type_three,\"b\",-4");
}

TEST_F(Rules, NegativeTypesAreWrittenAsNull) {
  EXPECT_EQ(boost::lexical_cast<std::string>(rule(-1, "x", -1, "y", 1)), "NULL,\"x\",NULL,\"y\",1");
  EXPECT_EQ(boost::lexical_cast<std::string>(rule(0, "x", -5, "y", 1)), "type_zero,\"x\",NULL,\"y\",1");
}

TEST_F(Rules, EmptyPatternsAreTwoQuotes) {
  EXPECT_EQ(boost::lexical_cast<std::string>(rule(-1, "", -1, "", 0)), "NULL,\"\",NULL,\"\",0");
}

TEST_F(Rules, PatternsAreWrittenAsTheyAre) {
  EXPECT_EQ(boost::lexical_cast<std::string>(rule(0, "a\"b,c\\ \n", 0, " \xC3\xA9", 1)),
            "type_zero,\"a\"b,c\\ \n\",type_zero,\" \xC3\xA9\",1");
}

TEST_F(Rules, TypesThatTheTableDoesNotHaveAreWrittenAsNull) {
  for (const int type : {4, 149, 150, 151, std::numeric_limits<int>::max()}) {
    EXPECT_EQ(boost::lexical_cast<std::string>(rule(type, "x", type, "y", 1)), "NULL,\"x\",NULL,\"y\",1") << type;
  }
}

TEST_F(Rules, OnAStreamThatHoldsSomethingTheLineHasALeadingComma) {
  std::ostringstream stream;
  stream << rule(0, "a", 1, "b", 1);
  stream << rule(2, "c", 3, "d", 2);
  EXPECT_EQ(stream.str(), "type_zero,\"a\",type_one,\"b\",1,type_two,\"c\",type_three,\"d\",2");
}

TEST_F(Rules, WriterPutsACommaBeforeEachFieldButTheFirstOfTheStream) {
  std::ostringstream stream;
  csv_ostream csv(stream);
  csv << "text" << std::string("string") << -5;
  EXPECT_EQ(stream.str(), "text,string,-5");
  EXPECT_TRUE(csv);
  std::ostringstream empty_first;
  csv_ostream second(empty_first);
  second << ""
         << ""
         << "x";
  EXPECT_EQ(empty_first.str(), "x") << "the put position stays 0 behind empty fields";
}

TEST_F(Rules, WriterSaysWhetherTheStreamFailed) {
  std::ostringstream stream;
  stream.setstate(std::ios::failbit);
  csv_ostream csv(stream);
  csv << "x";
  EXPECT_FALSE(csv);
}

}  // namespace
}  // namespace conformance
