// SPDX-License-Identifier: Apache-2.0
//
// Query-privilege rules: their patterns, their copies, and the table that they are appended to.
#include <gtest/gtest.h>
#include <kezu/engine.h>
#include <pthread.h>

#include <climits>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

Q7QueryPriv rule(const std::string& pattern, const std::string& parentPattern = "") {
  Q7QueryPriv rule;
  rule.queryPattern = pattern;
  rule.p_queryPattern = parentPattern;
  return rule;
}

bool compiles(const std::string& pattern) {
  return rule(pattern).compileRegex();
}

bool matches(const std::string& pattern, const std::string& text) {
  Q7QueryPriv one = rule(pattern);
  one.compileRegex();
  Q7QueryPriv other = rule("", pattern);
  other.compileRegex();
  const bool matched = one.checkPattern(text, "");
  EXPECT_EQ(matched, other.checkPattern("", text));
  return matched;
}

std::string repeated(const std::string& text, std::size_t times) {
  std::string all;
  while (times-- > 0) {
    all += text;
  }
  return all;
}

TEST(QueryPrivPattern, IsSearchedAnywhereAndComparesCase) {
  EXPECT_TRUE(matches("customer", "SELECT * FROM customer WHERE id = 1"));
  EXPECT_FALSE(matches("customer", "SELECT * FROM CUSTOMER"));
  EXPECT_TRUE(matches("^SELECT .* FROM (customer|card)s?$", "SELECT a, b FROM cards"));
  EXPECT_FALSE(matches("^SELECT .* FROM (customer|card)s?$", "SELECT a, b FROM cards LIMIT 1"));
  EXPECT_TRUE(matches("[[:digit:]]{4}-[0-9]{4}", "no 1234-5678"));
}

TEST(QueryPrivPattern, EmptyMatchesEveryText) {
  EXPECT_TRUE(matches("", ""));
  EXPECT_TRUE(matches("", "SELECT 1"));
}

TEST(QueryPrivPattern, SearchesTextsPastZeroBytes) {
  EXPECT_TRUE(matches("card", std::string("SELECT '\0' FROM card", 20)));
  EXPECT_FALSE(matches("card", std::string("SELECT '\0' FROM cart", 20)));
}

TEST(QueryPrivPattern, ThatDoesNotCompileNeverMatches) {
  for (const std::string& wrong : {std::string("("), std::string("[a"), std::string("a{2"), std::string("a{3,2}"),
                                   std::string("\\"), std::string("[[:nosuch:]]"), std::string("a\0b", 3)}) {
    EXPECT_FALSE(compiles(wrong)) << wrong;
    EXPECT_FALSE(matches(wrong, wrong)) << wrong;
    EXPECT_FALSE(matches(wrong, "")) << wrong;
    Q7QueryPriv both = rule("", wrong);
    EXPECT_FALSE(both.compileRegex());
    EXPECT_FALSE(both.checkPattern("a", wrong));
    EXPECT_EQ(both.p_queryPattern, wrong);
  }
}

TEST(QueryPrivPattern, BackReferencesDoNotCompile) {
  EXPECT_FALSE(compiles("(a*)\\1"));
  EXPECT_FALSE(compiles("(a)(b)(c)(d)(e)(f)(g)(h)(i)\\9"));
  EXPECT_TRUE(matches("a[\\1]b", "a1b"));  // no escape inside brackets
  EXPECT_TRUE(matches("\\.1", "x.1"));
}

TEST(QueryPrivPattern, LengthIsLimited) {
  EXPECT_TRUE(compiles(std::string(8191, 'a')));
  EXPECT_TRUE(matches(std::string(8192, 'a'), std::string(8192, 'a')));
  EXPECT_FALSE(compiles(std::string(8193, 'a')));
  EXPECT_TRUE(compiles("[" + std::string(8190, 'a') + "]"));
  EXPECT_FALSE(compiles("[" + std::string(8191, 'a') + "]"));
}

TEST(QueryPrivPattern, DepthIsLimited) {
  EXPECT_TRUE(compiles(repeated("(", 64) + "a" + repeated(")", 64)));
  EXPECT_FALSE(compiles(repeated("(", 65) + "a" + repeated(")", 65)));
  EXPECT_TRUE(compiles(repeated("[(]", 100)));
  EXPECT_TRUE(compiles(repeated("\\(", 100)));
}

TEST(QueryPrivPattern, ExpansionIsLimited) {
  EXPECT_TRUE(compiles("a{0,481}"));   // 481 times a character and a repetition: 8177
  EXPECT_FALSE(compiles("a{0,482}"));  // 8194
  EXPECT_FALSE(compiles("a{482}"));
  EXPECT_FALSE(compiles("a{481,}"));
  EXPECT_FALSE(compiles("(a{0,32}){0,32}"));
  EXPECT_FALSE(compiles("(((a{1,99}){1,99}){1,99}){1,99}"));
  EXPECT_FALSE(compiles("a{99999999999999999999}"));
  EXPECT_FALSE(compiles("a" + repeated("+", 20)));
  EXPECT_FALSE(compiles("([)]{0,255}){0,255}"));
  EXPECT_FALSE(compiles("([]*)]{0,255}){0,255}"));
  EXPECT_FALSE(compiles("([[:alpha:])]{0,255}){0,255}"));
  EXPECT_FALSE(compiles("([^]*)]{0,255}){0,255}"));
  EXPECT_FALSE(compiles("(\\){0,255}){0,255}"));
  EXPECT_FALSE(compiles(repeated("a|", 3000) + "a"));
  EXPECT_TRUE(compiles("(" + repeated("a_table_name|", 500) + "another)"));
}

// Compiles what the limits just allow on the smallest stack that servers give a connection.
TEST(QueryPrivPattern, CompilesOnASmallStack) {
  pthread_attr_t attributes;
  ASSERT_EQ(pthread_attr_init(&attributes), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, 192 * 1024), 0);
  const auto run = [](void* failures) -> void* {
    for (const std::string& pattern :
         {repeated("a*", 481), repeated("a?", 481), std::string("a{0,481}"), repeated("()", 500),
          repeated("(a*)*", 165), repeated("(", 64) + "a*" + repeated(")*", 64),
          repeated("(a|", 64) + "b" + repeated(")?", 64), repeated("(|", 64) + "b" + repeated(")*", 64),
          repeated("a|", 2700) + "b"}) {
      Q7QueryPriv one = rule(pattern);
      if (!one.compileRegex() || !one.checkPattern("bab", "")) {
        *static_cast<int*>(failures) += 1;
      }
    }
    return nullptr;
  };
  int failures = 0;
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, &attributes, run, &failures), 0);
  ASSERT_EQ(pthread_join(thread, nullptr), 0);
  pthread_attr_destroy(&attributes);
  EXPECT_EQ(failures, 0);
}

TEST(QueryPriv, MatchesNothingBeforeItIsCompiled) {
  EXPECT_FALSE(rule("").checkPattern("", ""));
  EXPECT_FALSE(Q7QueryPriv().check(0, "SELECT 1", -1, ""));
}

TEST(QueryPriv, CompilesAgainAfterAChange) {
  Q7QueryPriv one = rule("a");
  EXPECT_TRUE(one.compileRegex());
  one.queryPattern = "b";
  EXPECT_TRUE(one.compileRegex());
  EXPECT_TRUE(one.checkPattern("b", ""));
  EXPECT_FALSE(one.checkPattern("a", ""));
  one.queryPattern = "(";
  EXPECT_FALSE(one.compileRegex());
  EXPECT_FALSE(one.checkPattern("b", ""));
}

TEST(QueryPriv, BothPatternsMustMatch) {
  Q7QueryPriv one = rule("^SELECT", "^CALL");
  ASSERT_TRUE(one.compileRegex());
  EXPECT_TRUE(one.checkPattern("SELECT 1", "CALL p()"));
  EXPECT_FALSE(one.checkPattern("SELECT 1", "DO 1"));
  EXPECT_FALSE(one.checkPattern("UPDATE t", "CALL p()"));
}

TEST(QueryPriv, TypesMustMatchUnlessTheRuleHasNone) {
  Q7QueryPriv one = rule("");
  one.compileRegex();
  EXPECT_TRUE(one.check(5, "x", -1, ""));
  EXPECT_TRUE(one.check(5, "x", 17, "y"));
  one.queryType = 5;
  EXPECT_TRUE(one.check(5, "x", 17, "y"));
  EXPECT_FALSE(one.check(4, "x", 17, "y"));
  EXPECT_FALSE(one.check(-1, "x", 17, "y"));
  one.p_queryType = 17;
  EXPECT_TRUE(one.check(5, "x", 17, "y"));
  EXPECT_FALSE(one.check(5, "x", 16, "y"));
  EXPECT_FALSE(one.check(5, "x", -1, ""));
}

TEST(QueryPriv, ACopyOutlivesItsOriginal) {
  Q7QueryPriv copy;
  {
    Q7QueryPriv original = rule("^a", "^b");
    original.queryType = 3;
    original.p_queryType = 4;
    original.decAction = 5;
    original.encAction = 6;
    ASSERT_TRUE(original.compileRegex());
    const Q7QueryPriv constructed(original);
    EXPECT_TRUE(constructed.checkPattern("a", "b"));
    copy = original;
    const Q7QueryPriv& same = copy;
    copy = same;
  }
  EXPECT_TRUE(copy.check(3, "a", 4, "b"));
  EXPECT_FALSE(copy.check(3, "x", 4, "b"));
  EXPECT_EQ(copy.queryType, 3);
  EXPECT_EQ(copy.p_queryType, 4);
  EXPECT_EQ(copy.queryPattern, "^a");
  EXPECT_EQ(copy.p_queryPattern, "^b");
  EXPECT_EQ(copy.decAction, 5);
  EXPECT_EQ(copy.encAction, 6);
}

TEST(QueryPriv, ACopyOfWhatIsNotCompiledIsNotCompiledEither) {
  const Q7QueryPriv original = rule("a");
  Q7QueryPriv copy(original);
  EXPECT_FALSE(copy.checkPattern("a", ""));
  EXPECT_TRUE(copy.compileRegex());
  EXPECT_FALSE(original.checkPattern("a", ""));
}

TEST(QueryPriv, AMoveTakesTheCompiledFormsOver) {
  Q7QueryPriv original = rule("^a");
  original.decAction = 7;
  ASSERT_TRUE(original.compileRegex());
  Q7QueryPriv moved(std::move(original));
  EXPECT_TRUE(moved.checkPattern("a", ""));
  EXPECT_EQ(moved.decAction, 7);
  Q7QueryPriv assigned = rule("^b");
  ASSERT_TRUE(assigned.compileRegex());
  assigned = std::move(moved);
  EXPECT_TRUE(assigned.checkPattern("a", ""));
  EXPECT_FALSE(assigned.checkPattern("b", ""));
  moved = rule("^c");  // what was moved from can be used again
  EXPECT_TRUE(moved.compileRegex());
  EXPECT_TRUE(moved.checkPattern("c", ""));
}

class QueryPrivTable : public testing::Test {
 protected:
  QueryPrivTable() { clear(); }
  ~QueryPrivTable() override { clear(); }

  static void clear() {
    g_numberOfQueryPriv = 0;
    for (Q7QueryPrivData& entry : g_queryPriv) {
      entry = Q7QueryPrivData{};
    }
  }
};

TEST_F(QueryPrivTable, InsertAppendsACompiledCopy) {
  Q7QueryPriv one = rule("^SELECT", "");
  one.queryType = 2;
  one.p_queryType = 3;
  one.decAction = 8;
  one.encAction = 9;
  EXPECT_EQ(Q7QueryPriv::insert(one), 0);
  ASSERT_EQ(g_numberOfQueryPriv, 1);
  EXPECT_EQ(g_queryPriv[0].sqlType, 602);  // 2 + 3 * 150 + 150
  EXPECT_EQ(g_queryPriv[0].queryPriv.decAction, 8);
  EXPECT_EQ(g_queryPriv[0].queryPriv.encAction, 9);
  EXPECT_TRUE(g_queryPriv[0].queryPriv.check(2, "SELECT 1", 3, ""));
  EXPECT_FALSE(g_queryPriv[0].queryPriv.check(2, "UPDATE t", 3, ""));
  EXPECT_EQ(one.queryPattern, "^SELECT");
}

TEST_F(QueryPrivTable, InsertTakesUnknownTypesAndPatternsThatDoNotCompile) {
  Q7QueryPriv one = rule("(");
  EXPECT_EQ(Q7QueryPriv::insert(one), 0);
  ASSERT_EQ(g_numberOfQueryPriv, 1);
  EXPECT_EQ(g_queryPriv[0].sqlType, -1);  // -1 - 150 + 150
  EXPECT_EQ(g_queryPriv[0].queryPriv.queryPattern, "(");
  EXPECT_FALSE(g_queryPriv[0].queryPriv.check(0, "(", -1, ""));
}

TEST_F(QueryPrivTable, KeysWrapAt32Bits) {
  Q7QueryPriv one = rule("");
  one.queryType = INT_MAX;
  one.p_queryType = 0;
  EXPECT_EQ(Q7QueryPriv::insert(one), 0);
  EXPECT_EQ(g_queryPriv[0].sqlType, INT_MIN + 149);
}

TEST_F(QueryPrivTable, InsertTakesARuleOfTheTableItself) {
  Q7QueryPriv one = rule("^a");
  ASSERT_EQ(Q7QueryPriv::insert(one), 0);
  EXPECT_EQ(Q7QueryPriv::insert(g_queryPriv[0].queryPriv), 0);
  g_queryPriv[2].queryPriv.queryPattern = "^stale";
  EXPECT_EQ(Q7QueryPriv::insert(g_queryPriv[2].queryPriv), 0);
  EXPECT_TRUE(g_queryPriv[0].queryPriv.checkPattern("a", ""));
  EXPECT_TRUE(g_queryPriv[1].queryPriv.checkPattern("a", ""));
  EXPECT_TRUE(g_queryPriv[2].queryPriv.checkPattern("stale", ""));
}

TEST_F(QueryPrivTable, IsFullAtTwoThousandRules) {
  for (int i = 0; i < 2000; ++i) {
    Q7QueryPriv one = rule("^" + std::to_string(i) + "$");
    ASSERT_EQ(Q7QueryPriv::insert(one), 0) << i;
  }
  ASSERT_EQ(g_numberOfQueryPriv, 2000);
  Q7QueryPriv one = rule("^2000$");
  EXPECT_NE(Q7QueryPriv::insert(one), 0);
  EXPECT_EQ(g_numberOfQueryPriv, 2000);
  EXPECT_TRUE(g_queryPriv[0].queryPriv.checkPattern("0", ""));
  EXPECT_TRUE(g_queryPriv[1999].queryPriv.checkPattern("1999", ""));
  g_numberOfQueryPriv = 1999;  // the last rule goes: its entry is used again
  EXPECT_EQ(Q7QueryPriv::insert(one), 0);
  EXPECT_TRUE(g_queryPriv[1999].queryPriv.checkPattern("2000", ""));
}

TEST_F(QueryPrivTable, ThreadsThatInsertAtOnceGetAnEntryEach) {
  constexpr int kThreads = 8;
  constexpr int kRules = 251;  // eight more than the table holds
  std::vector<int> inserted(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &inserted] {
      for (int i = 0; i < kRules; ++i) {
        Q7QueryPriv one = rule("^" + std::to_string(t) + "/" + std::to_string(i) + "$");
        inserted[static_cast<std::size_t>(t)] += Q7QueryPriv::insert(one) == 0 ? 1 : 0;
      }
    });
  }
  int sum = 0;
  for (int t = 0; t < kThreads; ++t) {
    threads[static_cast<std::size_t>(t)].join();
    sum += inserted[static_cast<std::size_t>(t)];
  }
  EXPECT_EQ(sum, 2000);
  EXPECT_EQ(g_numberOfQueryPriv, 2000);
  std::set<std::string> patterns;
  for (const Q7QueryPrivData& entry : g_queryPriv) {
    patterns.insert(entry.queryPriv.queryPattern);
  }
  EXPECT_EQ(patterns.size(), 2000U);
}

}  // namespace
