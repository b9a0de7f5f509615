// SPDX-License-Identifier: Apache-2.0
//
// Encryption privileges: kezu_conf_set_encpriv and kezu_conf_get_encpriv.
#include <array>
#include <thread>

#include "listing_checks.h"

namespace conformance {
namespace {

using Key = std::array<std::string, 4>;  // user, owner, table, column
constexpr std::size_t kKeySize = 4;

const Key kFirst = {"u1", "d1", "t1", "c1"};
const Key kSecond = {"u2", "d2", "t2", "c2"};
const Key kThird = {"u3", "d3", "t3", "c3"};

class Encpriv : public LoggedIn {
 protected:
  static Arguments withKey(const Key& key, std::initializer_list<long long> numbers = {}) {
    return arguments({kSession, key[0], key[1], key[2], key[3]}, numbers);
  }
  static IntegerResult set(const Key& key, long long enc, long long dec) {
    return call(kezu_conf_set_encpriv, withKey(key, {enc, dec}));
  }
  static IntegerResult remove(const Key& key) { return call(kezu_conf_set_encpriv, withKey(key)); }

  static StringResult count() { return call(kezu_conf_get_encpriv, {kSession}); }
  static StringResult at(long long index, long long field) {
    return call(kezu_conf_get_encpriv, arguments({kSession}, {index, field}));
  }
  static StringResult lookup(const Key& key, long long selector) {
    return call(kezu_conf_get_encpriv, withKey(key, {selector}));
  }

  // Puts a row into the table.
  static void add(const Key& key, char enc, char dec) {
    Q7EncPriv& row = g_encPrivArray[g_numberOfEncPriv++];
    setField(row.user, key[0]);
    setField(row.owner, key[1]);
    setField(row.table, key[2]);
    setField(row.column, key[3]);
    row.enc_priv = enc;
    row.dec_priv = dec;
  }

  static std::string line(const Key& key, int enc, int dec) {
    return key[0] + "|" + key[1] + "|" + key[2] + "|" + key[3] + "=" + std::to_string(enc) + "," + std::to_string(dec);
  }
  static std::string line(int i) {
    const Q7EncPriv& row = g_encPrivArray[i];
    return line({row.user, row.owner, row.table, row.column}, row.enc_priv, row.dec_priv);
  }
  // The rows of the table.
  static std::vector<std::string> rows() {
    std::vector<std::string> lines;
    for (int i = 0; i < g_numberOfEncPriv; ++i) {
      lines.push_back(line(i));
    }
    return lines;
  }

  static auto event(const Key& key, const char* enc, const char* dec, const char* action) {
    return IsEvent(2, "group", "policy", "user", key[0], "owner", key[1], "table", key[2], "column", key[3], "enc priv",
                   enc, "dec priv", dec, "desc", action);
  }

  void expectNothingDone(int count) {
    EXPECT_EQ(g_numberOfEncPriv, count);
    EXPECT_EQ(engine.count("Q7_SaveEncPrivInfo"), 0U);
    EXPECT_THAT(engine.events(), IsEmpty());
  }
};

class ThreeEncPrivs : public Encpriv {
 protected:
  void SetUp() override {
    Encpriv::SetUp();
    add(kFirst, 1, 0);
    add(kSecond, 0, 1);
    add(kThird, 2, 3);
  }
};

// --- Adding ---

TEST_F(Encpriv, AddingAppendsTheRow) {
  EXPECT_EQ(set(kFirst, 1, 0), value(1));
  EXPECT_EQ(set(kSecond, 0, 1), value(1));
  EXPECT_THAT(rows(), ElementsAre(line(kFirst, 1, 0), line(kSecond, 0, 1)));
}

TEST_F(Encpriv, AddingReloadsThenSavesThenLogs) {
  std::vector<std::string> at_save;
  engine.onCall("Q7_SaveEncPrivInfo", [&] { at_save = rows(); });
  EXPECT_EQ(set(kFirst, 1, 1), value(1));
  EXPECT_THAT(at_save, ElementsAre(line(kFirst, 1, 1)));
  EXPECT_THAT(engine.operations(), ElementsAre("Q7_ReloadAllInfoIfChanged", "Q7_SaveEncPrivInfo", "logwCategory",
                                               "lw_get_category", "lw_log"));
}

TEST_F(Encpriv, AddingWritesItsEvent) {
  set(kFirst, 1, 0);
  EXPECT_THAT(engine.events(), ElementsAre(event(kFirst, "1", "0", "ADD ENCRYPT PRIVILEGE")));
}

TEST_F(ThreeEncPrivs, EachTextIsPartOfTheKeyCaseSensitivelyAndWhole) {
  int count = 3;
  for (std::size_t i = 0; i < kKeySize; ++i) {
    std::string other_case = kFirst[i];
    other_case[0] = static_cast<char>(std::toupper(other_case[0]));
    for (const std::string& text : {kFirst[i] + " ", kFirst[i].substr(1), other_case, kSecond[i]}) {
      Key key = kFirst;
      key[i] = text;
      EXPECT_THAT(lookup(key, 0), IsNull()) << text;
      EXPECT_EQ(set(key, 1, 1), value(1)) << text;
      EXPECT_EQ(g_numberOfEncPriv, ++count);
    }
  }
  EXPECT_EQ(line(0), line(kFirst, 1, 0));
}

TEST_F(Encpriv, TextsMayHoldAnyBytesButZero) {
  const Key key = {"u'\"\\", "d\xC3\xA9", "t \t\n", "\x80\xFF"};
  EXPECT_EQ(set(key, 1, 1), value(1));
  EXPECT_EQ(set(key, 0, 1), value(2));
  EXPECT_EQ(remove(key), value(3));
}

TEST_F(Encpriv, ShorterTextLeavesNothingOfWhatTheRowHeld) {
  add({"longer", "longer", "longer", "longer"}, 1, 1);
  g_numberOfEncPriv = 0;
  EXPECT_EQ(set({"u", "o", "t", "c"}, 0, 0), value(1));
  EXPECT_THAT(rows(), ElementsAre("u|o|t|c=0,0"));
}

TEST_F(Encpriv, RowsBehindTheCountAreNotFound) {
  add(kFirst, 1, 1);
  g_numberOfEncPriv = 0;
  EXPECT_THAT(lookup(kFirst, 0), IsNull());
  EXPECT_EQ(remove(kFirst), sqlNull());
  EXPECT_EQ(set(kFirst, 2, 2), value(1));
  EXPECT_THAT(rows(), ElementsAre(line(kFirst, 2, 2)));
}

// --- Changing ---

TEST_F(ThreeEncPrivs, ChangingWritesBothFlagsAndNothingElse) {
  EXPECT_EQ(set(kSecond, 5, 6), value(2));
  EXPECT_EQ(set(kThird, 2, 0), value(2));
  EXPECT_THAT(rows(), ElementsAre(line(kFirst, 1, 0), line(kSecond, 5, 6), line(kThird, 2, 0)));
}

TEST_F(ThreeEncPrivs, ChangingReloadsThenSavesThenLogs) {
  std::vector<std::string> at_save;
  engine.onCall("Q7_SaveEncPrivInfo", [&] { at_save = rows(); });
  EXPECT_EQ(set(kFirst, 0, 1), value(2));
  EXPECT_EQ(at_save.at(0), line(kFirst, 0, 1));
  EXPECT_THAT(engine.operations(), ElementsAre("Q7_ReloadAllInfoIfChanged", "Q7_SaveEncPrivInfo", "logwCategory",
                                               "lw_get_category", "lw_log"));
}

TEST_F(ThreeEncPrivs, ChangingWritesItsEvent) {
  set(kSecond, 1, 0);
  EXPECT_THAT(engine.events(), ElementsAre(event(kSecond, "1", "0", "CHANGE ENCRYPT PRIVILEGE")));
}

TEST_F(ThreeEncPrivs, FirstOfTwoEqualRowsIsChangedReadAndRemoved) {
  add(kFirst, 7, 7);
  EXPECT_THAT(lookup(kFirst, 1), IsText("0"));
  EXPECT_EQ(set(kFirst, 0, 1), value(2));
  EXPECT_THAT(lookup(kFirst, 0), IsText("0"));
  EXPECT_EQ(line(3), line(kFirst, 7, 7));
  EXPECT_EQ(remove(kFirst), value(3));
  EXPECT_EQ(line(0), line(kFirst, 7, 7));
}

// --- The flags' values ---

TEST_F(Encpriv, LowEightBitsAreStoredAndTheWholeNumbersAreLogged) {
  const std::vector<std::tuple<long long, int, const char*, const char*>> privs = {
      {0, 0, "0", "0"},
      {1, 1, "1", "1"},
      {128, -128, "128", "1"},
      {255, -1, "255", "1"},
      {256, 0, "256", "0"},
      {-1, -1, "-1", "1"},
      {-256, 0, "-256", "0"},
      {0x80000000LL, 0, "-2147483648", "0"},
      {0x100000002LL, 2, "2", "1"},
  };
  for (const auto& [priv, stored, logged, shown] : privs) {
    g_numberOfEncPriv = 0;
    engine.clearJournal();
    EXPECT_EQ(set(kFirst, priv, 1), value(1)) << priv;
    EXPECT_EQ(line(0), line(kFirst, static_cast<char>(stored), 1)) << priv;
    EXPECT_THAT(lookup(kFirst, 0), IsText(shown)) << priv;
    EXPECT_THAT(at(0, 4), IsText(shown)) << priv;
    EXPECT_EQ(set(kFirst, 1, priv), value(2)) << priv;
    EXPECT_EQ(line(0), line(kFirst, 1, static_cast<char>(stored))) << priv;
    EXPECT_THAT(lookup(kFirst, 1), IsText(shown)) << priv;
    EXPECT_THAT(at(0, 5), IsText(shown)) << priv;
    EXPECT_THAT(engine.events(), ElementsAre(event(kFirst, logged, "1", "ADD ENCRYPT PRIVILEGE"),
                                             event(kFirst, "1", logged, "CHANGE ENCRYPT PRIVILEGE")));
  }
}

// --- Limits ---

TEST_F(Encpriv, LongestTextsFit) {
  const Key key = {std::string(64, 'u'), std::string(64, 'o'), std::string(64, 't'), std::string(64, 'c')};
  EXPECT_EQ(set(key, 1, 1), value(1));
  EXPECT_THAT(rows(), ElementsAre(line(key, 1, 1)));
  for (std::size_t i = 0; i < kKeySize; ++i) {
    EXPECT_THAT(at(0, static_cast<long long>(i)), IsText(key[i]));
  }
  EXPECT_EQ(set(key, 0, 0), value(2));
  EXPECT_EQ(remove(key), value(3));
}

TEST_F(Encpriv, LongerTextGivesMinusTwoAndChangesNothing) {
  const std::string empty = line(0);
  for (std::size_t i = 0; i < kKeySize; ++i) {
    for (const std::size_t length : {65U, 66U, 1000U, 100000U}) {
      Key key = kFirst;
      key[i] = std::string(length, 'x');
      EXPECT_EQ(set(key, 1, 1), value(-2)) << i;
      EXPECT_EQ(line(0), empty);
      EXPECT_EQ(remove(key), sqlNull());
      EXPECT_THAT(lookup(key, 0), IsNull());
      expectNothingDone(0);
    }
  }
}

TEST_F(ThreeEncPrivs, TextThatIsLongerByAZeroByteIsNoKey) {
  for (std::size_t i = 0; i < kKeySize; ++i) {
    for (const std::string& end : {bytes("\0"), bytes("\0x")}) {
      Key key = kFirst;
      key[i] += end;
      EXPECT_EQ(set(key, 1, 1), value(-2)) << i;
      EXPECT_EQ(remove(key), sqlNull());
      EXPECT_THAT(lookup(key, 0), IsNull());
      expectNothingDone(3);
    }
  }
}

class FullEncPrivs : public Encpriv {
 protected:
  void SetUp() override {
    Encpriv::SetUp();
    for (int i = 0; i < kMaxEncPrivs; ++i) {
      add(row(i), 1, 1);
    }
  }
  static Key row(int i) { return {"u" + std::to_string(i), "d", "t", "c"}; }
};

TEST_F(FullEncPrivs, AddingGivesMinusTwoAndChangesNothing) {
  EXPECT_EQ(set(kFirst, 1, 1), value(-2));
  expectNothingDone(kMaxEncPrivs);
  EXPECT_EQ(line(kMaxEncPrivs - 1), line(row(1999), 1, 1));
}

TEST_F(FullEncPrivs, LastPlaceCanBeTaken) {
  g_numberOfEncPriv = kMaxEncPrivs - 1;
  EXPECT_EQ(set(kFirst, 1, 0), value(1));
  EXPECT_EQ(line(kMaxEncPrivs - 1), line(kFirst, 1, 0));
  EXPECT_THAT(count(), IsText("2000"));
  EXPECT_EQ(set(kSecond, 1, 1), value(-2));
}

TEST_F(FullEncPrivs, RowsCanBeReadChangedAndRemoved) {
  EXPECT_THAT(at(1999, 0), IsText("u1999"));
  EXPECT_THAT(at(2000, 0), IsNull());
  EXPECT_THAT(lookup(row(1999), 0), IsText("1"));
  EXPECT_EQ(set(row(1999), 0, 1), value(2));
  EXPECT_EQ(remove(row(0)), value(3));
  EXPECT_EQ(line(0), line(row(1999), 0, 1));
  EXPECT_EQ(set(kFirst, 1, 1), value(1));
}

// --- Deleting ---

TEST_F(ThreeEncPrivs, DeletingTheFirstMovesTheLastIntoItsPlace) {
  EXPECT_EQ(remove(kFirst), value(3));
  EXPECT_THAT(rows(), ElementsAre(line(kThird, 2, 3), line(kSecond, 0, 1)));
  EXPECT_EQ(line(2), line(kThird, 2, 3)) << "the vacated row is not cleared";
}

TEST_F(ThreeEncPrivs, DeletingTheLastLeavesTheOthers) {
  EXPECT_EQ(remove(kThird), value(3));
  EXPECT_THAT(rows(), ElementsAre(line(kFirst, 1, 0), line(kSecond, 0, 1)));
}

TEST_F(ThreeEncPrivs, DeletingReloadsThenSavesThenLogs) {
  std::vector<std::string> at_save;
  engine.onCall("Q7_SaveEncPrivInfo", [&] { at_save = rows(); });
  EXPECT_EQ(remove(kFirst), value(3));
  EXPECT_THAT(at_save, ElementsAre(line(kThird, 2, 3), line(kSecond, 0, 1)));
  EXPECT_THAT(engine.operations(), ElementsAre("Q7_ReloadAllInfoIfChanged", "Q7_SaveEncPrivInfo", "logwCategory",
                                               "lw_get_category", "lw_log"));
}

TEST_F(ThreeEncPrivs, DeletingWritesItsEventWithoutTheFlags) {
  remove(kSecond);
  EXPECT_THAT(engine.events(), ElementsAre(IsEvent(2, "group", "policy", "user", "u2", "owner", "d2", "table", "t2",
                                                   "column", "c2", "desc", "DELETE ENCRYPT PRIVILEGE")));
}

TEST_F(ThreeEncPrivs, DeletingWhatIsNotThereIsNull) {
  for (std::size_t i = 0; i < kKeySize; ++i) {
    Key key = kFirst;
    key[i] = kSecond[i];
    EXPECT_EQ(remove(key), sqlNull());
  }
  expectNothingDone(3);
}

TEST_F(Encpriv, DeletingTheOnlyRowEmptiesTheTable) {
  EXPECT_EQ(set(kFirst, 1, 1), value(1));
  EXPECT_EQ(remove(kFirst), value(3));
  engine.clearJournal();
  EXPECT_EQ(remove(kFirst), sqlNull());
  expectNothingDone(0);
}

// --- Saves that fail ---

TEST_F(ThreeEncPrivs, FailedSaveGivesMinusTwoWithoutAnEventAndTheChangeStays) {
  engine.answer("Q7_SaveEncPrivInfo", -1);
  EXPECT_EQ(set({"u", "o", "t", "c"}, 1, 1), value(-2));
  EXPECT_EQ(set(kSecond, 9, 8), value(-2));
  EXPECT_EQ(remove(kFirst), value(-2));
  EXPECT_THAT(rows(), ElementsAre("u|o|t|c=1,1", line(kSecond, 9, 8), line(kThird, 2, 3)));
  EXPECT_EQ(engine.count("Q7_SaveEncPrivInfo"), 3U);
  EXPECT_THAT(engine.events(), IsEmpty());
}

TEST_F(Encpriv, OtherSaveResultsAreSuccess) {
  for (const int save : {1, 2, -2, -3, 255}) {
    engine.answer("Q7_SaveEncPrivInfo", save);
    engine.clearJournal();
    EXPECT_EQ(set(kFirst, 1, 1), value(1)) << save;
    EXPECT_EQ(set(kFirst, 1, 1), value(2)) << save;
    EXPECT_EQ(remove(kFirst), value(3)) << save;
    EXPECT_EQ(engine.events().size(), 3U) << save;
  }
}

// --- Reading ---

TEST_F(Encpriv, WithoutArgumentsGivesTheFileCheckString) {
  expectFileCheckString(kezu_conf_get_encpriv, g_last_privilege_KezuFileChkStr);
}

TEST_F(Encpriv, FileCheckStringFollowsTheReload) {
  expectFileCheckStringFollowsTheReload(kezu_conf_get_encpriv, g_last_privilege_KezuFileChkStr);
}

TEST_F(Encpriv, CountIsThatOfTheTable) {
  EXPECT_THAT(count(), IsText("0"));
  g_numberOfEncPriv = 1234;
  EXPECT_THAT(count(), IsText("1234"));
  EXPECT_TRUE(isTerminated(count()));
}

TEST_F(ThreeEncPrivs, FieldsByPosition) {
  const Key* keys[] = {&kFirst, &kSecond, &kThird};
  const char* enc[] = {"1", "0", "1"};
  const char* dec[] = {"0", "1", "1"};
  for (std::size_t row = 0; row < 3; ++row) {
    for (std::size_t field = 0; field < kKeySize; ++field) {
      EXPECT_THAT(at(static_cast<long long>(row), static_cast<long long>(field)), IsText((*keys[row])[field]));
    }
    EXPECT_THAT(at(static_cast<long long>(row), 4), IsText(enc[row]));
    EXPECT_THAT(at(static_cast<long long>(row), 5), IsText(dec[row]));
  }
  EXPECT_EQ(at(1, 0).pointer, g_encPrivArray[1].user) << "in place";
}

TEST_F(ThreeEncPrivs, UnknownFieldAndIndexOutsideTheTableAreNull) {
  EXPECT_THAT(at(0, 6), IsNull());
  EXPECT_THAT(at(3, 0), IsNull());
  EXPECT_THAT(at(3, 4), IsNull());
  for (const long long never : kNever) {
    EXPECT_THAT(at(0, never), IsNull()) << never;
    EXPECT_THAT(at(never, 0), IsNull()) << never;
    EXPECT_THAT(at(never, 5), IsNull()) << never;
  }
}

TEST_F(ThreeEncPrivs, LookupGivesTheSelectedFlag) {
  EXPECT_THAT(lookup(kFirst, 0), IsText("1"));
  EXPECT_THAT(lookup(kFirst, 1), IsText("0"));
  EXPECT_THAT(lookup(kSecond, 0), IsText("0"));
  EXPECT_THAT(lookup(kSecond, 1), IsText("1"));
  EXPECT_THAT(lookup(kThird, 0), IsText("1")) << "any value but zero";
  EXPECT_THAT(lookup(kThird, 1), IsText("1"));
  EXPECT_THAT(lookup(kFirst, 0x100000001LL), IsText("0")) << "the low 32 bits";
}

TEST_F(ThreeEncPrivs, UnknownSelectorAndUnknownKeyAreNull) {
  EXPECT_THAT(lookup(kFirst, 2), IsNull());
  for (const long long selector : kNever) {
    EXPECT_THAT(lookup(kFirst, selector), IsNull()) << selector;
  }
  for (const long long selector : {0, 1, 2, -1}) {
    EXPECT_THAT(lookup({"u1", "d1", "t1", "c2"}, selector), IsNull());
  }
}

TEST_F(Encpriv, LookupInAnEmptyTableIsNull) {
  EXPECT_THAT(lookup(kFirst, 0), IsNull());
}

TEST_F(ThreeEncPrivs, ServersBufferIsNeverWritten) {
  EXPECT_TRUE(call(kezu_conf_get_encpriv, Arguments()).isGuardIntact(0));
  EXPECT_TRUE(count().isGuardIntact(0));
  for (long long field = 0; field < 7; ++field) {
    EXPECT_TRUE(at(0, field).isGuardIntact(0)) << field;
    EXPECT_TRUE(lookup(kFirst, field).isGuardIntact(0)) << field;
  }
}

TEST_F(ThreeEncPrivs, ReadingReloadsOnceAndChangesNothing) {
  count();
  at(0, 0);
  lookup(kFirst, 0);
  EXPECT_EQ(engine.operations(), std::vector<std::string>(3, "Q7_ReloadAllInfoIfChanged"));
}

TEST_F(ThreeEncPrivs, CountsOfOneStatementAndOfTwoThreadsAreAliveAtOnce) {
  const StringResult three = count();
  g_numberOfEncPriv = 2;
  const StringResult two = count();
  std::thread([] {
    for (int i = 10; i < 40; ++i) {
      g_numberOfEncPriv = i;
      EXPECT_THAT(count(), IsText(std::to_string(i)));
    }
  }).join();
  EXPECT_THAT(three, IsText("3"));
  EXPECT_THAT(two, IsText("2"));
}

// --- Refusals ---

TEST_F(ThreeEncPrivs, WithoutALiveSessionIsNullAndNothingIsDone) {
  expectNullFlagUnderEachRefusal(kezu_conf_set_encpriv, [] { return withKey(kFirst); });
  expectNullFlagUnderEachRefusal(kezu_conf_set_encpriv, [] { return withKey(kFirst, {0, 0}); });
  expectNullUnderEachRefusal(kezu_conf_get_encpriv, [] { return arguments({kSession}); });
  expectNullUnderEachRefusal(kezu_conf_get_encpriv, [] { return arguments({kSession}, {0, 0}); });
  expectNullUnderEachRefusal(kezu_conf_get_encpriv, [] { return withKey(kFirst, {0}); });
  EXPECT_THAT(rows(), ElementsAre(line(kFirst, 1, 0), line(kSecond, 0, 1), line(kThird, 2, 3)));
  expectNothingDone(3);
}

TEST_F(ThreeEncPrivs, OtherArgumentCountsAreNull) {
  EXPECT_EQ(call(kezu_conf_set_encpriv, Arguments()), sqlNull());
  EXPECT_EQ(call(kezu_conf_set_encpriv, {kSession, "u1", "d1", "t1"}), sqlNull());
  EXPECT_EQ(call(kezu_conf_set_encpriv, withKey(kFirst, {1})), sqlNull());
  EXPECT_EQ(call(kezu_conf_set_encpriv, withKey(kFirst, {1, 1, 1})), sqlNull());
  EXPECT_THAT(call(kezu_conf_get_encpriv, arguments({kSession}, {0})), IsNull());
  EXPECT_THAT(call(kezu_conf_get_encpriv, withKey(kFirst)), IsNull());
  EXPECT_THAT(call(kezu_conf_get_encpriv, withKey(kFirst, {0, 0})), IsNull());
  expectNothingDone(3);
}

TEST_F(Encpriv, ExceptionBecomesTheErrorFlag) {
  expectErrorWhenThrown(
      {"Q7_ReloadAllInfoIfChanged", "Q7_SaveEncPrivInfo", "lw_log"}, [] {},
      [] { return set(kFirst, 1, 1) == failure(); });
  expectErrorWhenThrown(
      {"Q7_ReloadAllInfoIfChanged", "Q7_SaveEncPrivInfo", "lw_log"},
      [] {
        g_numberOfEncPriv = 0;
        add(kFirst, 1, 1);
      },
      [] { return remove(kFirst) == failure(); });
  engine.onCall("Q7_ReloadAllInfoIfChanged", [] { throw std::bad_alloc(); });
  EXPECT_THAT(count(), IsNullWithError());
  engine.onCall("Q7_ReloadAllInfoIfChanged3", [] { throw 1; });
  EXPECT_THAT(call(kezu_conf_get_encpriv, Arguments()), IsNullWithError());
}

}  // namespace
}  // namespace conformance
