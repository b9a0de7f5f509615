// SPDX-License-Identifier: Apache-2.0
//
// Access privileges: kezu_conf_set_accepriv and kezu_conf_get_accepriv.
#include <array>
#include <thread>

#include "listing_checks.h"

namespace conformance {
namespace {

using Key = std::array<std::string, 5>;  // ip, user, owner, table, column
constexpr std::size_t kKeySize = 5;

const Key kFirst = {"10.0.0.1", "u1", "d1", "t1", "c1"};
const Key kSecond = {"10.0.0.2", "u2", "d2", "t2", "c2"};
const Key kThird = {"10.0.0.3", "u3", "d3", "t3", "c3"};

class Accepriv : public LoggedIn {
 protected:
  static Arguments withKey(const Key& key) {
    Arguments made{kSession};
    for (const std::string& text : key) {
      made.text(text);
    }
    return made;
  }
  static IntegerResult set(const Key& key, long long priv) {
    return call(kezu_conf_set_accepriv, withKey(key).number(priv));
  }
  static IntegerResult remove(const Key& key) { return call(kezu_conf_set_accepriv, withKey(key)); }

  static StringResult count() { return call(kezu_conf_get_accepriv, {kSession}); }
  static StringResult at(long long index, long long field) {
    return call(kezu_conf_get_accepriv, arguments({kSession}, {index, field}));
  }
  static StringResult lookup(const Key& key) { return call(kezu_conf_get_accepriv, withKey(key)); }

  // Puts a row into the table.
  static void add(const Key& key, char priv) {
    Q7AccessPriv& row = g_accessPrivArray[g_numberOfAccessPriv++];
    setField(row.ip, key[0]);
    setField(row.user, key[1]);
    setField(row.owner, key[2]);
    setField(row.table, key[3]);
    setField(row.column, key[4]);
    row.priv = priv;
  }

  static std::string line(const Key& key, int priv) {
    return key[0] + "|" + key[1] + "|" + key[2] + "|" + key[3] + "|" + key[4] + "=" + std::to_string(priv);
  }
  static std::string line(int i) {
    const Q7AccessPriv& row = g_accessPrivArray[i];
    return line({row.ip, row.user, row.owner, row.table, row.column}, row.priv);
  }
  // The rows of the table.
  static std::vector<std::string> rows() {
    std::vector<std::string> lines;
    for (int i = 0; i < g_numberOfAccessPriv; ++i) {
      lines.push_back(line(i));
    }
    return lines;
  }

  static auto event(const Key& key, const char* priv, const char* action) {
    return IsEvent(2, "group", "policy", "user ip", key[0], "user", key[1], "owner", key[2], "table", key[3], "column",
                   key[4], "access priv", priv, "desc", action);
  }

  void expectNothingDone(int count) {
    EXPECT_EQ(g_numberOfAccessPriv, count);
    EXPECT_EQ(engine.count("Q7_SaveAccessPrivInfo"), 0U);
    EXPECT_THAT(engine.events(), IsEmpty());
  }
};

class ThreeAccessPrivs : public Accepriv {
 protected:
  void SetUp() override {
    Accepriv::SetUp();
    add(kFirst, 1);
    add(kSecond, 0);
    add(kThird, 2);
  }
};

// --- Adding ---

TEST_F(Accepriv, AddingAppendsTheRow) {
  EXPECT_EQ(set(kFirst, 1), value(1));
  EXPECT_EQ(set(kSecond, 0), value(1));
  EXPECT_THAT(rows(), ElementsAre(line(kFirst, 1), line(kSecond, 0)));
}

TEST_F(Accepriv, AddingReloadsThenSavesThenLogs) {
  std::vector<std::string> at_save;
  engine.onCall("Q7_SaveAccessPrivInfo", [&] { at_save = rows(); });
  EXPECT_EQ(set(kFirst, 1), value(1));
  EXPECT_THAT(at_save, ElementsAre(line(kFirst, 1)));
  EXPECT_THAT(engine.operations(), ElementsAre("Q7_ReloadAllInfoIfChanged", "Q7_SaveAccessPrivInfo", "logwCategory",
                                               "lw_get_category", "lw_log"));
}

TEST_F(Accepriv, AddingWritesItsEvent) {
  set(kFirst, 1);
  EXPECT_THAT(engine.events(), ElementsAre(event(kFirst, "1", "ADD ACCESS PRIVILEGE")));
}

TEST_F(ThreeAccessPrivs, EachTextIsPartOfTheKeyCaseSensitivelyAndWhole) {
  int count = 3;
  for (std::size_t i = 0; i < kKeySize; ++i) {
    for (const std::string& text : {std::string(kFirst[i]).append(" "), kFirst[i].substr(1), kSecond[i] + "x"}) {
      Key key = kFirst;
      key[i] = text;
      EXPECT_EQ(set(key, 1), value(1)) << text;
      EXPECT_EQ(g_numberOfAccessPriv, ++count);
    }
  }
  for (std::size_t i = 1; i < kKeySize; ++i) {
    Key key = kFirst;
    key[i][0] = static_cast<char>(std::toupper(key[i][0]));
    EXPECT_EQ(lookup(key).pointer, nullptr);
    EXPECT_EQ(set(key, 1), value(1)) << key[i];
    EXPECT_EQ(g_numberOfAccessPriv, ++count);
  }
  EXPECT_EQ(line(0), line(kFirst, 1));
}

TEST_F(Accepriv, TextsMayHoldAnyBytesButZero) {
  const Key key = {"%", "u'\"\\", "d\xC3\xA9", "t \t\n", "\x80\xFF"};
  EXPECT_EQ(set(key, 1), value(1));
  EXPECT_EQ(set(key, 0), value(2));
  EXPECT_THAT(lookup(key), IsText("0"));
  EXPECT_EQ(remove(key), value(3));
}

TEST_F(Accepriv, ShorterTextLeavesNothingOfWhatTheRowHeld) {
  add({"longer", "longer", "longer", "longer", "longer"}, 1);
  g_numberOfAccessPriv = 0;
  EXPECT_EQ(set({"i", "u", "o", "t", "c"}, 0), value(1));
  EXPECT_THAT(rows(), ElementsAre("i|u|o|t|c=0"));
}

TEST_F(Accepriv, RowsBehindTheCountAreNotFound) {
  add(kFirst, 1);
  g_numberOfAccessPriv = 0;
  EXPECT_THAT(lookup(kFirst), IsNull());
  EXPECT_EQ(remove(kFirst), sqlNull());
  EXPECT_EQ(set(kFirst, 2), value(1));
  EXPECT_THAT(rows(), ElementsAre(line(kFirst, 2)));
}

// --- Changing ---

TEST_F(ThreeAccessPrivs, ChangingWritesTheFlagAlone) {
  EXPECT_EQ(set(kSecond, 5), value(2));
  EXPECT_THAT(rows(), ElementsAre(line(kFirst, 1), line(kSecond, 5), line(kThird, 2)));
}

TEST_F(ThreeAccessPrivs, ChangingReloadsThenSavesThenLogs) {
  std::vector<std::string> at_save;
  engine.onCall("Q7_SaveAccessPrivInfo", [&] { at_save = rows(); });
  EXPECT_EQ(set(kFirst, 0), value(2));
  EXPECT_EQ(at_save.at(0), line(kFirst, 0));
  EXPECT_THAT(engine.operations(), ElementsAre("Q7_ReloadAllInfoIfChanged", "Q7_SaveAccessPrivInfo", "logwCategory",
                                               "lw_get_category", "lw_log"));
}

TEST_F(ThreeAccessPrivs, ChangingWritesItsEvent) {
  set(kSecond, 1);
  EXPECT_THAT(engine.events(), ElementsAre(event(kSecond, "1", "CHANGE ACCESS PRIVILEGE")));
}

TEST_F(ThreeAccessPrivs, FirstOfTwoEqualRowsIsChangedReadAndRemoved) {
  add(kFirst, 7);
  EXPECT_THAT(lookup(kFirst), IsText("1"));
  EXPECT_EQ(set(kFirst, 0), value(2));
  EXPECT_THAT(lookup(kFirst), IsText("0"));
  EXPECT_EQ(line(3), line(kFirst, 7));
  EXPECT_EQ(remove(kFirst), value(3));
  EXPECT_EQ(line(0), line(kFirst, 7));
}

// --- The flag's value ---

TEST_F(Accepriv, LowEightBitsAreStoredAndTheWholeNumberIsLogged) {
  const std::vector<std::tuple<long long, int, const char*, const char*>> privs = {
      {0, 0, "0", "0"},
      {1, 1, "1", "1"},
      {127, 127, "127", "1"},
      {128, -128, "128", "1"},
      {255, -1, "255", "1"},
      {256, 0, "256", "0"},
      {257, 1, "257", "1"},
      {-1, -1, "-1", "1"},
      {-256, 0, "-256", "0"},
      {0x7FFFFFFFLL, -1, "2147483647", "1"},
      {0x80000000LL, 0, "-2147483648", "0"},
      {0x100000000LL, 0, "0", "0"},
      {0x100000002LL, 2, "2", "1"},
  };
  for (const auto& [priv, stored, logged, shown] : privs) {
    g_numberOfAccessPriv = 0;
    engine.clearJournal();
    EXPECT_EQ(set(kFirst, priv), value(1)) << priv;
    EXPECT_EQ(g_accessPrivArray[0].priv, static_cast<char>(stored)) << priv;
    EXPECT_EQ(set(kFirst, priv), value(2)) << priv;
    EXPECT_EQ(g_accessPrivArray[0].priv, static_cast<char>(stored)) << priv;
    EXPECT_THAT(engine.events(), ElementsAre(event(kFirst, logged, "ADD ACCESS PRIVILEGE"),
                                             event(kFirst, logged, "CHANGE ACCESS PRIVILEGE")));
    EXPECT_THAT(lookup(kFirst), IsText(shown)) << priv;
    EXPECT_THAT(at(0, 5), IsText(shown)) << priv;
  }
}

// --- Limits ---

TEST_F(Accepriv, LongestTextsFit) {
  const Key key = {std::string(40, 'i'), std::string(64, 'u'), std::string(64, 'o'), std::string(64, 't'),
                   std::string(64, 'c')};
  EXPECT_EQ(set(key, 1), value(1));
  EXPECT_THAT(rows(), ElementsAre(line(key, 1)));
  for (std::size_t i = 0; i < kKeySize; ++i) {
    EXPECT_THAT(at(0, static_cast<long long>(i)), IsText(key[i]));
  }
  EXPECT_EQ(set(key, 0), value(2));
  EXPECT_EQ(remove(key), value(3));
}

TEST_F(Accepriv, LongerTextGivesMinusTwoAndChangesNothing) {
  const std::string empty = line(0);
  for (std::size_t i = 0; i < kKeySize; ++i) {
    const std::size_t limit = i == 0 ? 40 : 64;
    for (const std::size_t length : {limit + 1, limit + 2, std::size_t{1000}, std::size_t{100000}}) {
      Key key = kFirst;
      key[i] = std::string(length, 'x');
      EXPECT_EQ(set(key, 1), value(-2)) << i;
      EXPECT_EQ(line(0), empty);
      EXPECT_EQ(remove(key), sqlNull());
      EXPECT_THAT(lookup(key), IsNull());
      expectNothingDone(0);
    }
  }
}

TEST_F(ThreeAccessPrivs, TextThatIsLongerByAZeroByteIsNoKey) {
  for (std::size_t i = 0; i < kKeySize; ++i) {
    for (const std::string& end : {bytes("\0"), bytes("\0x")}) {
      Key key = kFirst;
      key[i] += end;
      EXPECT_EQ(set(key, 0), value(-2)) << i;
      EXPECT_EQ(remove(key), sqlNull());
      EXPECT_THAT(lookup(key), IsNull());
      expectNothingDone(3);
    }
  }
  EXPECT_EQ(line(0), line(kFirst, 1));
}

class FullAccessPrivs : public Accepriv {
 protected:
  void SetUp() override {
    Accepriv::SetUp();
    for (int i = 0; i < kMaxAccessPrivs; ++i) {
      add(row(i), 1);
    }
  }
  static Key row(int i) { return {"10.0.0.1", "u" + std::to_string(i), "d", "t", "c"}; }
};

TEST_F(FullAccessPrivs, AddingGivesMinusTwoAndChangesNothing) {
  EXPECT_EQ(set(kFirst, 1), value(-2));
  expectNothingDone(kMaxAccessPrivs);
  EXPECT_EQ(line(kMaxAccessPrivs - 1), line(row(1999), 1));
  EXPECT_EQ(g_encPrivArray[0].user[0], '\0');
  EXPECT_EQ(g_numberOfEncPriv, 0);
}

TEST_F(FullAccessPrivs, LastPlaceCanBeTaken) {
  g_numberOfAccessPriv = kMaxAccessPrivs - 1;
  EXPECT_EQ(set(kFirst, 1), value(1));
  EXPECT_EQ(line(kMaxAccessPrivs - 1), line(kFirst, 1));
  EXPECT_THAT(count(), IsText("2000"));
  EXPECT_EQ(set(kSecond, 1), value(-2));
}

TEST_F(FullAccessPrivs, RowsCanBeReadChangedAndRemoved) {
  EXPECT_THAT(at(1999, 1), IsText("u1999"));
  EXPECT_THAT(at(2000, 1), IsNull());
  EXPECT_THAT(lookup(row(1999)), IsText("1"));
  EXPECT_EQ(set(row(1999), 0), value(2));
  EXPECT_EQ(remove(row(0)), value(3));
  EXPECT_EQ(line(0), line(row(1999), 0));
  EXPECT_EQ(set(kFirst, 1), value(1));
}

// --- Deleting ---

TEST_F(ThreeAccessPrivs, DeletingTheFirstMovesTheLastIntoItsPlace) {
  EXPECT_EQ(remove(kFirst), value(3));
  EXPECT_THAT(rows(), ElementsAre(line(kThird, 2), line(kSecond, 0)));
  EXPECT_EQ(line(2), line(kThird, 2)) << "the vacated row is not cleared";
}

TEST_F(ThreeAccessPrivs, DeletingTheLastLeavesTheOthers) {
  EXPECT_EQ(remove(kThird), value(3));
  EXPECT_THAT(rows(), ElementsAre(line(kFirst, 1), line(kSecond, 0)));
  EXPECT_EQ(line(2), line(kThird, 2));
}

TEST_F(ThreeAccessPrivs, DeletingReloadsThenSavesThenLogs) {
  std::vector<std::string> at_save;
  engine.onCall("Q7_SaveAccessPrivInfo", [&] { at_save = rows(); });
  EXPECT_EQ(remove(kFirst), value(3));
  EXPECT_THAT(at_save, ElementsAre(line(kThird, 2), line(kSecond, 0)));
  EXPECT_THAT(engine.operations(), ElementsAre("Q7_ReloadAllInfoIfChanged", "Q7_SaveAccessPrivInfo", "logwCategory",
                                               "lw_get_category", "lw_log"));
}

TEST_F(ThreeAccessPrivs, DeletingWritesItsEventWithoutTheFlag) {
  remove(kSecond);
  EXPECT_THAT(engine.events(),
              ElementsAre(IsEvent(2, "group", "policy", "user ip", "10.0.0.2", "user", "u2", "owner", "d2", "table",
                                  "t2", "column", "c2", "desc", "DELETE ACCESS PRIVILEGE")));
}

TEST_F(ThreeAccessPrivs, DeletingWhatIsNotThereIsNull) {
  for (std::size_t i = 0; i < kKeySize; ++i) {
    Key key = kFirst;
    key[i] = kSecond[i];
    EXPECT_EQ(remove(key), sqlNull());
    EXPECT_THAT(lookup(key), IsNull());
  }
  expectNothingDone(3);
}

TEST_F(Accepriv, DeletingTheOnlyRowEmptiesTheTable) {
  EXPECT_EQ(set(kFirst, 1), value(1));
  EXPECT_EQ(remove(kFirst), value(3));
  EXPECT_EQ(g_numberOfAccessPriv, 0);
  engine.clearJournal();
  EXPECT_EQ(remove(kFirst), sqlNull());
  expectNothingDone(0);
}

TEST_F(Accepriv, DeletingFromANegativeCountIsNull) {
  add(kFirst, 1);
  g_numberOfAccessPriv = -1;
  EXPECT_EQ(remove(kFirst), sqlNull());
  expectNothingDone(-1);
}

// --- Saves that fail ---

TEST_F(ThreeAccessPrivs, FailedSaveGivesMinusTwoWithoutAnEventAndTheChangeStays) {
  engine.answer("Q7_SaveAccessPrivInfo", -1);
  EXPECT_EQ(set({"i", "u", "o", "t", "c"}, 1), value(-2));
  EXPECT_EQ(set(kSecond, 9), value(-2));
  EXPECT_EQ(remove(kFirst), value(-2));
  EXPECT_THAT(rows(), ElementsAre("i|u|o|t|c=1", line(kSecond, 9), line(kThird, 2)));
  EXPECT_EQ(engine.count("Q7_SaveAccessPrivInfo"), 3U);
  EXPECT_THAT(engine.events(), IsEmpty());
  EXPECT_THAT(lookup({"i", "u", "o", "t", "c"}), IsText("1"));
}

TEST_F(Accepriv, OtherSaveResultsAreSuccess) {
  for (const int save : {1, 2, -2, -3, 255}) {
    engine.answer("Q7_SaveAccessPrivInfo", save);
    engine.clearJournal();
    EXPECT_EQ(set(kFirst, 1), value(1)) << save;
    EXPECT_EQ(set(kFirst, 1), value(2)) << save;
    EXPECT_EQ(remove(kFirst), value(3)) << save;
    EXPECT_EQ(engine.events().size(), 3U) << save;
  }
}

// --- Reading ---

TEST_F(Accepriv, WithoutArgumentsGivesTheFileCheckString) {
  expectFileCheckString(kezu_conf_get_accepriv, g_last_access_KezuFileChkStr);
}

TEST_F(Accepriv, FileCheckStringFollowsTheReload) {
  expectFileCheckStringFollowsTheReload(kezu_conf_get_accepriv, g_last_access_KezuFileChkStr);
}

TEST_F(Accepriv, CountIsThatOfTheTable) {
  EXPECT_THAT(count(), IsText("0"));
  g_numberOfAccessPriv = 1234;
  EXPECT_THAT(count(), IsText("1234"));
  EXPECT_TRUE(isTerminated(count()));
}

TEST_F(ThreeAccessPrivs, FieldsByPosition) {
  const Key* keys[] = {&kFirst, &kSecond, &kThird};
  const char* flags[] = {"1", "0", "1"};
  for (std::size_t row = 0; row < 3; ++row) {
    for (std::size_t field = 0; field < kKeySize; ++field) {
      EXPECT_THAT(at(static_cast<long long>(row), static_cast<long long>(field)), IsText((*keys[row])[field]));
    }
    EXPECT_THAT(at(static_cast<long long>(row), 5), IsText(flags[row]));
  }
  EXPECT_EQ(at(1, 0).pointer, g_accessPrivArray[1].ip) << "in place";
}

TEST_F(ThreeAccessPrivs, UnknownFieldAndIndexOutsideTheTableAreNull) {
  EXPECT_THAT(at(0, 6), IsNull());
  EXPECT_THAT(at(3, 0), IsNull());
  EXPECT_THAT(at(3, 5), IsNull());
  for (const long long never : kNever) {
    EXPECT_THAT(at(0, never), IsNull()) << never;
    EXPECT_THAT(at(never, 0), IsNull()) << never;
    EXPECT_THAT(at(never, 5), IsNull()) << never;
  }
}

TEST_F(ThreeAccessPrivs, LookupGivesTheFlag) {
  EXPECT_THAT(lookup(kFirst), IsText("1"));
  EXPECT_THAT(lookup(kSecond), IsText("0"));
  EXPECT_THAT(lookup(kThird), IsText("1")) << "any value but zero";
}

TEST_F(Accepriv, LookupInAnEmptyTableIsNull) {
  EXPECT_THAT(lookup(kFirst), IsNull());
}

TEST_F(ThreeAccessPrivs, ServersBufferIsNeverWritten) {
  EXPECT_TRUE(call(kezu_conf_get_accepriv, Arguments()).isGuardIntact(0));
  EXPECT_TRUE(count().isGuardIntact(0));
  for (long long field = 0; field < 7; ++field) {
    EXPECT_TRUE(at(0, field).isGuardIntact(0)) << field;
  }
  EXPECT_TRUE(lookup(kFirst).isGuardIntact(0));
  EXPECT_TRUE(lookup({"x", "x", "x", "x", "x"}).isGuardIntact(0));
}

TEST_F(ThreeAccessPrivs, ReadingReloadsOnceAndChangesNothing) {
  count();
  at(0, 0);
  lookup(kFirst);
  EXPECT_EQ(engine.operations(), std::vector<std::string>(3, "Q7_ReloadAllInfoIfChanged"));
}

TEST_F(ThreeAccessPrivs, CountsOfOneStatementAndOfTwoThreadsAreAliveAtOnce) {
  const StringResult three = count();
  g_numberOfAccessPriv = 2;
  const StringResult two = count();
  std::thread([] {
    for (int i = 10; i < 40; ++i) {
      g_numberOfAccessPriv = i;
      EXPECT_THAT(count(), IsText(std::to_string(i)));
    }
  }).join();
  EXPECT_THAT(three, IsText("3"));
  EXPECT_THAT(two, IsText("2"));
}

// --- Refusals ---

TEST_F(ThreeAccessPrivs, WithoutALiveSessionIsNullAndNothingIsDone) {
  expectNullFlagUnderEachRefusal(kezu_conf_set_accepriv, [] { return withKey(kFirst); });
  expectNullFlagUnderEachRefusal(kezu_conf_set_accepriv, [] {
    Arguments made = withKey(kFirst);
    made.number(0);
    return made;
  });
  expectNullUnderEachRefusal(kezu_conf_get_accepriv, [] { return arguments({kSession}); });
  expectNullUnderEachRefusal(kezu_conf_get_accepriv, [] { return arguments({kSession}, {0, 0}); });
  expectNullUnderEachRefusal(kezu_conf_get_accepriv, [] { return withKey(kFirst); });
  EXPECT_THAT(rows(), ElementsAre(line(kFirst, 1), line(kSecond, 0), line(kThird, 2)));
  expectNothingDone(3);
}

TEST_F(ThreeAccessPrivs, OtherArgumentCountsAreNull) {
  EXPECT_EQ(call(kezu_conf_set_accepriv, Arguments()), sqlNull());
  EXPECT_EQ(call(kezu_conf_set_accepriv, {kSession, "10.0.0.1", "u1", "d1", "t1"}), sqlNull());
  EXPECT_EQ(call(kezu_conf_set_accepriv, withKey(kFirst).number(1).number(1)), sqlNull());
  EXPECT_THAT(call(kezu_conf_get_accepriv, arguments({kSession}, {0})), IsNull());
  EXPECT_THAT(call(kezu_conf_get_accepriv, arguments({kSession, "a", "b", "c"})), IsNull());
  EXPECT_THAT(call(kezu_conf_get_accepriv, withKey(kFirst).number(1)), IsNull());
  expectNothingDone(3);
}

TEST_F(ThreeAccessPrivs, ReloadedTableIsTheOneThatIsChanged) {
  engine.onCall("Q7_ReloadAllInfoIfChanged", [] { g_numberOfAccessPriv = 1; });
  EXPECT_EQ(remove(kSecond), sqlNull());
  EXPECT_THAT(count(), IsText("1"));
}

TEST_F(Accepriv, ExceptionBecomesTheErrorFlag) {
  expectErrorWhenThrown(
      {"Q7_ReloadAllInfoIfChanged", "Q7_SaveAccessPrivInfo", "lw_log"}, [] {},
      [] { return set(kFirst, 1) == failure(); });
  expectErrorWhenThrown(
      {"Q7_ReloadAllInfoIfChanged", "Q7_SaveAccessPrivInfo", "lw_log"},
      [] {
        g_numberOfAccessPriv = 0;
        add(kFirst, 1);
      },
      [] { return remove(kFirst) == failure(); });
  engine.onCall("Q7_ReloadAllInfoIfChanged", [] { throw std::bad_alloc(); });
  EXPECT_THAT(count(), IsNullWithError());
  engine.onCall("Q7_ReloadAllInfoIfChanged3", [] { throw 1; });
  EXPECT_THAT(call(kezu_conf_get_accepriv, Arguments()), IsNullWithError());
}

}  // namespace
}  // namespace conformance
