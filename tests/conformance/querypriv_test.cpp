// SPDX-License-Identifier: Apache-2.0
//
// The query-privilege rules in SQL: kezu_conf_set_querypriv and kezu_conf_get_querypriv.
#include <algorithm>
#include <array>
#include <atomic>
#include <thread>

#include "listing_checks.h"

namespace conformance {
namespace {

using Key = std::array<std::string, 4>;  // type, pattern, type, pattern

const Key kRule = {"type_one", "a.*", "type_two", "b+"};

class Querypriv : public LoggedIn {
 protected:
  static Arguments withKey(const Key& key, std::initializer_list<long long> numbers = {}) {
    return arguments({kSession, key[0], key[1], key[2], key[3]}, numbers);
  }
  static IntegerResult set(const Key& key, long long priv) {
    return call(kezu_conf_set_querypriv, withKey(key, {priv}));
  }
  static IntegerResult remove(const Key& key) { return call(kezu_conf_set_querypriv, withKey(key)); }

  static StringResult count() { return call(kezu_conf_get_querypriv, {kSession}); }
  static StringResult at(long long index) { return call(kezu_conf_get_querypriv, arguments({kSession}, {index})); }
  static StringResult at(long long index, long long field) {
    return call(kezu_conf_get_querypriv, arguments({kSession}, {index, field}));
  }

  static auto event(const std::string& text) { return IsEvent(2, "group", "policy", "desc", text); }
};

// --- Setting ---

TEST_F(Querypriv, RuleIsAddedThenChangedThenDeleted) {
  EXPECT_EQ(set(kRule, 5), value(1));
  EXPECT_THAT(at(0), IsText("type_one,\"a.*\",type_two,\"b+\",5"));
  EXPECT_EQ(set(kRule, -6), value(2));
  EXPECT_THAT(at(0), IsText("type_one,\"a.*\",type_two,\"b+\",-6"));
  EXPECT_EQ(g_numberOfQueryPriv, 1);
  EXPECT_EQ(remove(kRule), value(3));
  EXPECT_EQ(g_numberOfQueryPriv, 0);
}

TEST_F(Querypriv, EachChangeIsLoggedAndThenSaved) {
  set(kRule, 5);
  EXPECT_THAT(engine.operations(), ElementsAre("Q7_ReloadAllInfoIfChanged", "Q7QueryPriv::insert", "logwCategory",
                                               "lw_get_category", "lw_log", "Q7_SaveQueryPrivInfo"));
  engine.clearJournal();
  set(kRule, 6);
  EXPECT_THAT(engine.operations(), ElementsAre("Q7_ReloadAllInfoIfChanged", "logwCategory", "lw_get_category", "lw_log",
                                               "Q7_SaveQueryPrivInfo"));
  engine.clearJournal();
  remove(kRule);
  EXPECT_THAT(engine.operations(), ElementsAre("Q7_ReloadAllInfoIfChanged", "logwCategory", "lw_get_category", "lw_log",
                                               "Q7_SaveQueryPrivInfo"));
}

TEST_F(Querypriv, EventsHaveTheTextsAsGiven) {
  set(kRule, 5);
  set(kRule, 0x100000006LL);
  remove(kRule);
  EXPECT_THAT(
      engine.events(),
      ElementsAre(
          event("ADD QUERY PRIVILEGE: type1[type_one] ptn1[a.*] type2[type_two] ptn2[b+] priv[5] query priv setted"),
          event("CHANGE QUERY PRIVILEGE: type1[type_one] ptn1[a.*] type2[type_two] ptn2[b+] priv[6] query priv "
                "setted"),
          event("DELETE QUERY PRIVILEGE: type1[type_one] ptn1[a.*] type2[type_two] ptn2[b+] query priv setted")));
}

TEST_F(Querypriv, TextNullIsTheEmptyText) {
  EXPECT_EQ(set({"NULL", "x", "NULL", "y"}, 1), value(1));
  EXPECT_THAT(engine.calls("Q7QueryPriv::insert"), ElementsAre("Q7QueryPriv::insert(-1, \"x\", -1, \"y\", 1, 0)"));
  EXPECT_THAT(at(0), IsText("NULL,\"x\",NULL,\"y\",1"));
  EXPECT_THAT(engine.events(),
              ElementsAre(event("ADD QUERY PRIVILEGE: type1[] ptn1[x] type2[] ptn2[y] priv[1] query priv setted")));
  EXPECT_EQ(remove({"NULL", "x", "NULL", "y"}), value(3));
}

TEST_F(Querypriv, TextNullIsTheEmptyPatternToo) {
  EXPECT_EQ(set({"type_one", "NULL", "type_two", "NULL"}, 1), value(1));
  EXPECT_THAT(at(0), IsText("type_one,\"\",type_two,\"\",1"));
}

TEST_F(Querypriv, OnlyTheExactTextNullIs) {
  EXPECT_EQ(set({"null", "Null", "NULL ", "NULLX"}, 1), value(1));
  EXPECT_THAT(at(0), IsText("NULL,\"Null\",NULL,\"NULLX\",1"));
  EXPECT_THAT(engine.events(), ElementsAre(event("ADD QUERY PRIVILEGE: type1[null] ptn1[Null] type2[NULL ] "
                                                 "ptn2[NULLX] priv[1] query priv setted")));
}

TEST_F(Querypriv, UnknownTypesAreNotRefused) {
  EXPECT_EQ(set({"nothing", "x", "type_zero", "y"}, 1), value(1));
  EXPECT_THAT(at(0), IsText("NULL,\"x\",type_zero,\"y\",1"));
}

TEST_F(Querypriv, DeletingWhatIsNotThereGivesZeroAndDoesNotSave) {
  set(kRule, 1);
  engine.clearJournal();
  EXPECT_EQ(remove({"type_one", "a.*", "type_two", "B+"}), value(0));
  g_numberOfQueryPriv = 0;
  EXPECT_EQ(remove(kRule), value(0));
  EXPECT_EQ(engine.operations(), std::vector<std::string>(2, "Q7_ReloadAllInfoIfChanged"));
}

TEST_F(Querypriv, SaveResultOneGivesMinusTwoAndTheChangeAndTheEventStay) {
  engine.answer("Q7_SaveQueryPrivInfo", 1);
  EXPECT_EQ(set(kRule, 5), value(-2));
  EXPECT_EQ(g_numberOfQueryPriv, 1);
  EXPECT_EQ(set(kRule, 6), value(-2));
  EXPECT_THAT(at(0, 4), IsText("6"));
  EXPECT_EQ(remove(kRule), value(-2));
  EXPECT_EQ(g_numberOfQueryPriv, 0);
  EXPECT_EQ(engine.events().size(), 3U);
}

TEST_F(Querypriv, OtherSaveResultsAreSuccess) {
  for (const int save : {-1, 2, -2, -3, 255}) {
    engine.answer("Q7_SaveQueryPrivInfo", save);
    EXPECT_EQ(set(kRule, 5), value(1)) << save;
    EXPECT_EQ(set(kRule, 6), value(2)) << save;
    EXPECT_EQ(remove(kRule), value(3)) << save;
  }
}

TEST_F(Querypriv, FullTableGivesMinusTwoAndChangesNothing) {
  for (int i = 0; i < kMaxQueryPrivs; ++i) {
    ASSERT_EQ(set({"type_one", "p" + std::to_string(i), "type_two", "q"}, i), value(1));
  }
  engine.clearJournal();
  EXPECT_EQ(set(kRule, 1), value(-2));
  EXPECT_EQ(g_numberOfQueryPriv, kMaxQueryPrivs);
  EXPECT_THAT(engine.events(), IsEmpty());
  EXPECT_EQ(engine.count("Q7_SaveQueryPrivInfo"), 0U);
  EXPECT_THAT(at(1999, 1), IsText("p1999"));
  EXPECT_THAT(at(2000), IsNullWithError());
  EXPECT_EQ(set({"type_one", "p1999", "type_two", "q"}, 7), value(2));
}

TEST_F(Querypriv, TextsOfAnyLengthAreKeptWhole) {
  const std::string first = std::string(100000, 'a') + "1";
  const std::string second(70000, 'b');
  EXPECT_EQ(set({"type_one", first, "type_two", second}, 1), value(1));
  EXPECT_EQ(g_queryPriv[0].queryPriv.queryPattern, first);
  EXPECT_EQ(g_queryPriv[0].queryPriv.p_queryPattern, second);
}

// --- Reading ---

TEST_F(Querypriv, WithoutArgumentsGivesTheFileCheckString) {
  expectFileCheckString(kezu_conf_get_querypriv, g_last_queryPriv_KezuFileChkStr);
}

TEST_F(Querypriv, FileCheckStringFollowsTheReload) {
  expectFileCheckStringFollowsTheReload(kezu_conf_get_querypriv, g_last_queryPriv_KezuFileChkStr);
}

TEST_F(Querypriv, FileCheckStringIsReturnedWhenTheSessionHasExpired) {
  setField(g_last_queryPriv_KezuFileChkStr, "check");
  setTime(kStart + 1000);
  EXPECT_THAT(count(), IsNullWithNullFlag());
  EXPECT_THAT(call(kezu_conf_get_querypriv, Arguments()), IsText("check"));
}

TEST_F(Querypriv, CountIsThatOfTheEncryptedColumns) {
  set(kRule, 1);
  EXPECT_THAT(count(), IsText("0"));
  g_numberOfEncColumn = 1999;
  EXPECT_THAT(count(), IsText("1999"));
  EXPECT_TRUE(count().isInServerBuffer());
}

TEST_F(Querypriv, FieldsByPosition) {
  set(kRule, 12);
  EXPECT_THAT(at(0, 0), IsText("1"));
  EXPECT_THAT(at(0, 1), IsText("a.*"));
  EXPECT_THAT(at(0, 2), IsText("2"));
  EXPECT_THAT(at(0, 3), IsText("b+"));
  EXPECT_THAT(at(0, 4), IsText("12"));
  EXPECT_THAT(at(0x100000000LL, 0x100000003LL), IsText("b+")) << "the low 32 bits";
}

TEST_F(Querypriv, EmptyFieldIsAnError) {
  set({"type_one", "NULL", "type_two", "NULL"}, 1);
  EXPECT_THAT(at(0, 1), IsNullWithError());
  EXPECT_THAT(at(0, 3), IsNullWithError());
  EXPECT_THAT(at(0, 4), IsText("1"));
}

TEST_F(Querypriv, UnknownFieldIsAnError) {
  set(kRule, 1);
  EXPECT_THAT(at(0, 5), IsNullWithError());
  for (const long long field : kNever) {
    EXPECT_THAT(at(0, field), IsNullWithError()) << field;
  }
}

TEST_F(Querypriv, SlotBehindTheLastRuleIsReturned) {
  set(kRule, 1);
  EXPECT_THAT(at(1), IsText("NULL,\"\",NULL,\"\",0"));
  EXPECT_THAT(at(1, 0), IsText("-1"));
  g_queryPriv[1].queryPriv.queryPattern = "stale";
  g_queryPriv[1].queryPriv.decAction = 8;
  EXPECT_THAT(at(1), IsText("NULL,\"stale\",NULL,\"\",8"));
  EXPECT_THAT(at(1, 1), IsText("stale"));
}

TEST_F(Querypriv, IndexBehindThatAndANegativeOneAreErrors) {
  set(kRule, 1);
  EXPECT_THAT(at(2), IsNullWithError());
  EXPECT_THAT(at(2, 0), IsNullWithError());
  for (const long long index : kNever) {
    EXPECT_THAT(at(index), IsNullWithError()) << index;
    EXPECT_THAT(at(index, 0), IsNullWithError()) << index;
  }
}

TEST_F(Querypriv, ReadingReloadsOnceAndChangesNothing) {
  set(kRule, 1);
  engine.clearJournal();
  count();
  at(0);
  at(0, 1);
  EXPECT_EQ(engine.operations(), std::vector<std::string>(3, "Q7_ReloadAllInfoIfChanged"));
}

// --- Texts and the server's buffer ---

TEST_F(Querypriv, TextThatTheServersBufferTakesStandsThereAndALongerOneElsewhere) {
  for (const std::size_t length : {1U, 254U, 255U, 256U, 257U, 100000U}) {
    const std::string pattern(length, 'p');
    g_numberOfQueryPriv = 0;
    set({"type_one", pattern, "type_two", "q"}, 1);
    const StringResult result = at(0, 1);
    EXPECT_THAT(result, IsText(pattern));
    EXPECT_EQ(result.length, length);
    EXPECT_EQ(result.isInServerBuffer(), length <= StringResult::kServerBuffer) << length;
    EXPECT_TRUE(result.isGuardIntact()) << length;
  }
}

TEST_F(Querypriv, RuleAroundTheServersBufferIsReturnedWhole) {
  for (std::size_t length = 225; length < 235; ++length) {  // the rest of the line has 26 bytes
    g_numberOfQueryPriv = 0;
    const std::string pattern(length, 'p');
    set({"type_one", pattern, "type_two", "q"}, 1);
    const StringResult result = at(0);
    EXPECT_THAT(result, IsText("type_one,\"" + pattern + "\",type_two,\"q\",1"));
    EXPECT_EQ(result.length, length + 26);
    EXPECT_TRUE(result.isGuardIntact());
  }
}

TEST_F(Querypriv, EightLongTextsOfOneStatementAreAliveAtOnce) {
  for (int i = 0; i < 8; ++i) {
    set({"type_one", std::string(1000, static_cast<char>('a' + i)), "type_two", "q"}, 1);
  }
  std::vector<StringResult> results;
  for (int i = 0; i < 8; ++i) {
    results.push_back(at(i, 1));
  }
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(results[static_cast<std::size_t>(i)].text(), std::string(1000, static_cast<char>('a' + i)));
  }
}

TEST_F(Querypriv, LongTextStaysWhenTheRuleIsDeleted) {
  const std::string pattern(1000, 'p');
  set({"type_one", pattern, "type_two", "q"}, 1);
  const StringResult result = at(0, 1);
  const StringResult whole = at(0);
  remove({"type_one", pattern, "type_two", "q"});
  EXPECT_EQ(result.text(), pattern);
  EXPECT_EQ(whole.text(), "type_one,\"" + pattern + "\",type_two,\"q\",1");
}

TEST_F(Querypriv, TwoThreadsEachHaveTheirOwnTexts) {
  set({"type_one", std::string(1000, 'a'), "type_two", "q"}, 1);
  set({"type_one", std::string(1000, 'b'), "type_two", "q"}, 1);
  std::atomic<int> torn = 0;
  const auto read = [&torn](int index) {
    const std::string expected(1000, index == 0 ? 'a' : 'b');
    for (int i = 0; i < 300; ++i) {
      const StringResult first = at(index, 1);
      const StringResult second = at(index);
      torn += first.text() == expected && second.length == 1026 ? 0 : 1;
    }
  };
  std::thread first(read, 0);
  std::thread second(read, 1);
  first.join();
  second.join();
  EXPECT_EQ(torn, 0);
}

// --- Several connections ---

// Rules whose two patterns are a letter each, longer than what a string keeps in place, and whose action tells it.
class QueryprivThreads : public Querypriv {
 protected:
  static constexpr char kLetters[] = {'a', 'b', 'c', 'd'};
  static constexpr int kRounds = 100;

  static Key rule(char letter) { return {"type_one", std::string(40, letter), "type_two", std::string(300, letter)}; }
  static std::string line(char letter) {
    return "type_one,\"" + std::string(40, letter) + "\",type_two,\"" + std::string(300, letter) + "\"," +
           std::to_string(letter);
  }

  // What a reload does that finds one rule in the file.
  static void replaceTheTable() {
    Q7QueryPriv only;
    only.queryType = 1;
    only.p_queryType = 2;
    only.queryPattern = rule('a')[1];
    only.p_queryPattern = rule('a')[3];
    only.decAction = 'a';
    const Q7QueryPrivWriter writer;
    while (g_numberOfQueryPriv > 0) {
      g_queryPriv[--g_numberOfQueryPriv].queryPriv = Q7QueryPriv();
    }
    Q7QueryPriv::insert(only);
  }

  // Whether a result is a whole rule, the empty slot behind the last one, or none.
  static bool isWhole(const StringResult& result) {
    if (result.pointer == nullptr) {
      return result.error;
    }
    const std::string text = result.text();
    return text == "NULL,\"\",NULL,\"\",0" || std::ranges::any_of(kLetters, [&text](char letter) {
             return text == line(letter) || text == rule(letter)[3];
           });
  }
};

TEST_F(QueryprivThreads, AddingChangingRemovingListingAndReloadingAtOnceKeepRulesWhole) {
  std::atomic<int> torn = 0;
  std::vector<std::thread> threads;
  for (const char letter : kLetters) {
    threads.emplace_back([letter, &torn] {
      for (int i = 0; i < kRounds; ++i) {
        set(rule(letter), letter);
        set(rule(letter), letter);
        torn += isWhole(at(i % 5)) && isWhole(at(i % 5, 3)) ? 0 : 1;
        remove(rule(letter));
      }
    });
  }
  threads.emplace_back([] {
    for (int i = 0; i < kRounds; ++i) {
      replaceTheTable();
    }
  });
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(torn, 0);
  for (const char letter : kLetters) {
    EXPECT_GE(remove(rule(letter)).value, 0);
    EXPECT_EQ(remove(rule(letter)), value(0)) << "no rule is there twice";
  }
  EXPECT_EQ(g_numberOfQueryPriv, 0);
}

// --- Refusals ---

TEST_F(Querypriv, WithoutALiveSessionIsNullAndNothingIsDone) {
  set(kRule, 1);
  engine.clearJournal();
  expectNullFlagUnderEachRefusal(kezu_conf_set_querypriv, [] { return withKey(kRule); });
  expectNullFlagUnderEachRefusal(kezu_conf_set_querypriv, [] { return withKey(kRule, {2}); });
  EXPECT_THAT(engine.operations(), ::testing::Each(std::string("Q7_ReloadAllInfoIfChanged")));
  EXPECT_EQ(g_numberOfQueryPriv, 1);
  EXPECT_EQ(g_queryPriv[0].queryPriv.decAction, 1);
}

TEST_F(Querypriv, WithoutALiveSessionTheGetterSetsTheNullFlag) {
  set(kRule, 1);
  const std::vector<std::function<Arguments()>> forms = {[] { return arguments({kSession}); },
                                                         [] { return arguments({kSession}, {0}); },
                                                         [] {
                                                           return arguments({kSession}, {0, 1});
                                                         }};
  for (const auto& form : forms) {
    underEachRefusal(form, [](Arguments& changed, const std::string& situation) {
      EXPECT_THAT(call(kezu_conf_get_querypriv, changed), IsNullWithNullFlag()) << situation;
    });
  }
}

TEST_F(Querypriv, OtherArgumentCountsAreAnError) {
  EXPECT_EQ(call(kezu_conf_set_querypriv, {kSession}), failure());
  EXPECT_EQ(call(kezu_conf_set_querypriv, {kSession, "a", "b", "c"}), failure());
  EXPECT_EQ(call(kezu_conf_set_querypriv, withKey(kRule, {1, 1})), failure());
  EXPECT_EQ(call(kezu_conf_set_querypriv, Arguments()), sqlNull()) << "no session";
  EXPECT_THAT(call(kezu_conf_get_querypriv, arguments({kSession}, {0, 0, 0})), IsNullWithError());
  EXPECT_EQ(g_numberOfQueryPriv, 0);
  EXPECT_THAT(engine.events(), IsEmpty());
}

TEST_F(Querypriv, ExceptionBecomesTheErrorFlag) {
  const auto clear = [] { g_numberOfQueryPriv = 0; };
  expectErrorWhenThrown({"Q7_ReloadAllInfoIfChanged", "Q7QueryPriv::insert", "lw_log", "Q7_SaveQueryPrivInfo"}, clear,
                        [] { return set(kRule, 1) == failure(); });
  engine.onCall("Q7_ReloadAllInfoIfChanged", [] { throw std::bad_alloc(); });
  EXPECT_THAT(at(0), IsNullWithError());
  engine.onCall("Q7_ReloadAllInfoIfChanged3", [] { throw 1; });
  EXPECT_THAT(call(kezu_conf_get_querypriv, Arguments()), IsNullWithError());
}

}  // namespace
}  // namespace conformance
