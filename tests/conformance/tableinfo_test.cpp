// SPDX-License-Identifier: Apache-2.0
//
// Table migration records: kezu_conf_set_tableinfo and kezu_conf_get_tableinfo.
#include "listing_checks.h"

namespace conformance {
namespace {

class Tableinfo : public Conformance {
 protected:
  static IntegerResult set(std::string_view owner, std::string_view table, std::string_view command) {
    return call(kezu_conf_set_tableinfo, {owner, table, command});
  }
  static IntegerResult remove(std::string_view owner, std::string_view table) {
    return call(kezu_conf_set_tableinfo, {owner, table});
  }
  static StringResult get(std::string_view owner, std::string_view table) {
    return call(kezu_conf_get_tableinfo, {owner, table});
  }

  // Puts a record into the table.
  static void add(std::string_view owner, std::string_view table, std::string_view command, time_t time) {
    Q7TableInfo& record = g_tableInfo[g_numberOftableInfo++];
    setField(record.owner, owner);
    setField(record.table, table);
    setField(record.demigrationCmd, command);
    record.migrationTime = time;
  }

  static std::string line(int i) {
    const Q7TableInfo& record = g_tableInfo[i];
    return std::string(record.owner) + "." + record.table + "=" + record.demigrationCmd + "@" +
           std::to_string(record.migrationTime - kStart);
  }
  // The table as owner.table=command@seconds-after-the-start texts.
  static std::vector<std::string> records() {
    std::vector<std::string> lines;
    for (int i = 0; i < g_numberOftableInfo; ++i) {
      lines.push_back(line(i));
    }
    return lines;
  }

  static auto event(const char* action, const std::string& owner, const std::string& table) {
    return IsEvent(2, "group", "policy", action, "table info", "owner", owner, "table", table);
  }

  void expectNothingDone(int count) {
    EXPECT_EQ(g_numberOftableInfo, count);
    EXPECT_THAT(engine.operations(), ::testing::Each(std::string("Q7_LoadTableInfo")));
  }
};

class ThreeTables : public Tableinfo {
 protected:
  void SetUp() override {
    Tableinfo::SetUp();
    add("d1", "t1", "cmd1", kStart - 1);
    add("d2", "t2", "cmd2", kStart - 2);
    add("d3", "t3", "cmd3", kStart - 3);
  }
};

// --- Adding and changing ---

TEST_F(Tableinfo, NewPairIsAddedWithThePresentTime) {
  EXPECT_EQ(set("db", "tab", "undo it"), value(1));
  advanceTime(60);
  EXPECT_EQ(set("db", "tab2", "undo that"), value(1));
  EXPECT_THAT(records(), ElementsAre("db.tab=undo it@0", "db.tab2=undo that@60"));
}

TEST_F(ThreeTables, KnownPairGetsTheCommandAndThePresentTime) {
  advanceTime(7);
  EXPECT_EQ(set("d2", "t2", "x"), value(2));
  EXPECT_THAT(records(), ElementsAre("d1.t1=cmd1@-1", "d2.t2=x@7", "d3.t3=cmd3@-3"));
  EXPECT_EQ(g_tableInfo[1].demigrationCmd[2], '\0') << "nothing of the longer command is left";
}

TEST_F(Tableinfo, AddingLoadsThenSavesThenLogs) {
  std::vector<std::string> at_save;
  engine.onCall("Q7_SaveTableInfo", [&] { at_save = records(); });
  set("db", "tab", "cmd");
  EXPECT_THAT(at_save, ElementsAre("db.tab=cmd@0"));
  EXPECT_THAT(engine.operations(),
              ElementsAre("Q7_LoadTableInfo", "Q7_SaveTableInfo", "logwCategory", "lw_get_category", "lw_log"));
  EXPECT_THAT(engine.events(), ElementsAre(event("ADD", "db", "tab")));
}

TEST_F(ThreeTables, ChangingLoadsThenSavesThenLogs) {
  std::vector<std::string> at_save;
  engine.onCall("Q7_SaveTableInfo", [&] { at_save = records(); });
  set("d1", "t1", "cmd");
  EXPECT_EQ(at_save.at(0), "d1.t1=cmd@0");
  EXPECT_THAT(engine.operations(),
              ElementsAre("Q7_LoadTableInfo", "Q7_SaveTableInfo", "logwCategory", "lw_get_category", "lw_log"));
  EXPECT_THAT(engine.events(), ElementsAre(event("CHANGE", "d1", "t1")));
}

TEST_F(Tableinfo, PairsThatDifferInCaseOrLengthAreDifferent) {
  add("db", "tab", "cmd", kStart);
  int count = 1;
  for (const auto& [owner, table] : std::vector<std::pair<const char*, const char*>>{
           {"Db", "tab"}, {"db", "Tab"}, {"db ", "tab"}, {"d", "tab"}, {"db", "ta"}, {"tab", "db"}}) {
    EXPECT_THAT(get(owner, table), IsNull()) << owner << "." << table;
    EXPECT_EQ(set(owner, table, "x"), value(1)) << owner << "." << table;
    EXPECT_EQ(g_numberOftableInfo, ++count);
  }
  EXPECT_EQ(line(0), "db.tab=cmd@0");
}

TEST_F(Tableinfo, FirstOfTwoEqualRecordsIsChangedReadAndDeleted) {
  add("db", "tab", "one", kStart);
  add("db", "tab", "two", kStart);
  EXPECT_THAT(get("db", "tab"), IsText("one"));
  EXPECT_EQ(set("db", "tab", "three"), value(2));
  EXPECT_EQ(line(1), "db.tab=two@0");
  EXPECT_EQ(remove("db", "tab"), value(3));
  EXPECT_THAT(records(), ElementsAre("db.tab=two@0"));
}

TEST_F(Tableinfo, RecordsBehindTheCountAreNotFound) {
  add("db", "tab", "old", kStart);
  g_numberOftableInfo = 0;
  EXPECT_THAT(get("db", "tab"), IsNull());
  EXPECT_EQ(remove("db", "tab"), sqlNull());
  EXPECT_EQ(set("db", "tab", "n"), value(1));
  EXPECT_THAT(records(), ElementsAre("db.tab=n@0"));
}

TEST_F(Tableinfo, CommandIsInNoEvent) {
  set("db", "tab", "the command");
  set("db", "tab", "the command");
  remove("db", "tab");
  for (const Event& event : engine.events()) {
    EXPECT_THAT(event.texts, ::testing::Each(::testing::Not(::testing::HasSubstr("the command"))));
  }
  EXPECT_EQ(engine.events().size(), 3U);
}

TEST_F(Tableinfo, NeedsNoAdministratorAndNoSession) {
  ASSERT_EQ(g_numberOfUserInfo, 0);
  EXPECT_EQ(set("db", "tab", "cmd"), value(1));
  EXPECT_THAT(get("db", "tab"), IsText("cmd"));
  EXPECT_EQ(remove("db", "tab"), value(3));
  EXPECT_EQ(engine.count("Q7_ReloadAllInfoIfChanged"), 0U);
}

// --- Limits ---

TEST_F(Tableinfo, CommandOf3071BytesIsStoredNewAndExisting) {
  const std::string longest(3071, 'c');
  EXPECT_EQ(set("db", "tab", longest), value(1));
  EXPECT_EQ(g_tableInfo[0].demigrationCmd, longest);
  EXPECT_EQ(g_tableInfo[0].migrationTime, kStart);
  EXPECT_EQ(set("db", "tab", "x" + longest.substr(1)), value(2));
  EXPECT_EQ(g_tableInfo[0].demigrationCmd[0], 'x');
}

TEST_F(Tableinfo, LongerCommandGivesMinusTwoAndChangesNothing) {
  for (const std::size_t length : {3072U, 3073U, 1000000U}) {
    EXPECT_EQ(set("db", "tab", std::string(length, 'c')), value(-2)) << length;
    expectNothingDone(0);
    EXPECT_EQ(g_tableInfo[0].owner[0], '\0');
  }
  add("db", "tab", "cmd", kStart - 5);
  for (const std::size_t length : {3072U, 3073U, 1000000U}) {
    EXPECT_EQ(set("db", "tab", std::string(length, 'c')), value(-2)) << length;
    expectNothingDone(1);
    EXPECT_EQ(line(0), "db.tab=cmd@-5");
  }
}

TEST_F(Tableinfo, NamesOf64BytesFitAndLongerOnesGiveMinusTwo) {
  const std::string longest(64, 'n');
  EXPECT_EQ(set(longest, longest, "cmd"), value(1));
  EXPECT_THAT(get(longest, longest), IsText("cmd"));
  engine.clearJournal();
  for (const std::size_t length : {65U, 66U, 100000U}) {
    const std::string longer(length, 'n');
    EXPECT_EQ(set(longer, "tab", "cmd"), value(-2));
    EXPECT_EQ(set("db", longer, "cmd"), value(-2));
    EXPECT_EQ(remove(longer, longest), sqlNull());
    EXPECT_THAT(get(longest, longer), IsNull());
    expectNothingDone(1);
  }
  EXPECT_EQ(remove(longest, longest), value(3));
}

TEST_F(Tableinfo, ZeroByteInATextGivesMinusTwoAndChangesNothing) {
  for (const std::string& text : {bytes("a\0b"), bytes("a\0"), bytes("\0")}) {
    EXPECT_EQ(set(text, "tab", "cmd"), value(-2));
    EXPECT_EQ(set("db", text, "cmd"), value(-2));
    EXPECT_EQ(set("db", "tab", text), value(-2));
  }
  expectNothingDone(0);
}

TEST_F(Tableinfo, EmptyTextsAreTexts) {
  EXPECT_EQ(set("", "", ""), value(1));
  EXPECT_TRUE(get("", "").isEmptyText());
  EXPECT_EQ(set("", "", "cmd"), value(2));
  EXPECT_EQ(remove("", ""), value(3));
}

TEST_F(Tableinfo, SqlNullIsReadAsTheEmptyText) {
  EXPECT_EQ(call(kezu_conf_set_tableinfo, Arguments{"db", "tab", "x"}.setNull(2)), value(1));
  EXPECT_TRUE(get("db", "tab").isEmptyText());
  EXPECT_EQ(call(kezu_conf_set_tableinfo, Arguments{"db", "tab"}.setNull(0)), sqlNull());
  EXPECT_THAT(call(kezu_conf_get_tableinfo, Arguments{"db", "tab"}.setNull(1)), IsNull());
}

class FullTableInfo : public Tableinfo {
 protected:
  void SetUp() override {
    Tableinfo::SetUp();
    for (int i = 0; i < kMaxTableInfos; ++i) {
      add("db", "t" + std::to_string(i), "cmd", kStart);
    }
  }
};

TEST_F(FullTableInfo, AddingGivesMinusTwoAndChangesNothing) {
  EXPECT_EQ(set("db", "one more", "cmd"), value(-2));
  expectNothingDone(kMaxTableInfos);
  EXPECT_EQ(line(kMaxTableInfos - 1), "db.t1999=cmd@0");
}

TEST_F(FullTableInfo, LastPlaceCanBeTaken) {
  g_numberOftableInfo = kMaxTableInfos - 1;
  EXPECT_EQ(set("db", "the last", "cmd"), value(1));
  EXPECT_EQ(g_numberOftableInfo, kMaxTableInfos);
  EXPECT_THAT(get("db", "the last"), IsText("cmd"));
  EXPECT_EQ(set("db", "one more", "cmd"), value(-2));
}

TEST_F(FullTableInfo, RecordsCanBeReadChangedAndDeleted) {
  EXPECT_THAT(get("db", "t1999"), IsText("cmd"));
  EXPECT_EQ(set("db", "t1999", "new"), value(2));
  EXPECT_EQ(remove("db", "t0"), value(3));
  EXPECT_EQ(line(0), "db.t1999=new@0");
  EXPECT_EQ(set("db", "one more", "cmd"), value(1));
}

// --- Deleting ---

TEST_F(ThreeTables, DeletingTheFirstMovesTheLastIntoItsPlace) {
  EXPECT_EQ(remove("d1", "t1"), value(3));
  EXPECT_THAT(records(), ElementsAre("d3.t3=cmd3@-3", "d2.t2=cmd2@-2"));
  EXPECT_EQ(line(2), "d3.t3=cmd3@-3") << "the vacated record is not cleared";
}

TEST_F(ThreeTables, DeletingTheLastLeavesTheOthers) {
  EXPECT_EQ(remove("d3", "t3"), value(3));
  EXPECT_THAT(records(), ElementsAre("d1.t1=cmd1@-1", "d2.t2=cmd2@-2"));
}

TEST_F(ThreeTables, DeletingLoadsThenSavesThenLogs) {
  std::vector<std::string> at_save;
  engine.onCall("Q7_SaveTableInfo", [&] { at_save = records(); });
  remove("d1", "t1");
  EXPECT_THAT(at_save, ElementsAre("d3.t3=cmd3@-3", "d2.t2=cmd2@-2"));
  EXPECT_THAT(engine.operations(),
              ElementsAre("Q7_LoadTableInfo", "Q7_SaveTableInfo", "logwCategory", "lw_get_category", "lw_log"));
  EXPECT_THAT(engine.events(), ElementsAre(event("DELETE", "d1", "t1")));
}

TEST_F(ThreeTables, DeletingWhatIsNotThereIsNullAndNothingIsDone) {
  EXPECT_EQ(remove("d1", "t2"), sqlNull());
  EXPECT_EQ(remove("D1", "t1"), sqlNull());
  EXPECT_EQ(remove("d1", bytes("t1\0")), sqlNull());
  expectNothingDone(3);
  g_numberOftableInfo = 0;
  EXPECT_EQ(remove("d1", "t1"), sqlNull());
  expectNothingDone(0);
}

// --- Saves and loads that fail ---

TEST_F(ThreeTables, FailedSaveGivesMinusTwoWithoutAnEventAndTheChangeStays) {
  engine.answer("Q7_SaveTableInfo", -1);
  EXPECT_EQ(set("db", "tab", "cmd"), value(-2));
  EXPECT_EQ(set("d2", "t2", "new"), value(-2));
  EXPECT_EQ(remove("d1", "t1"), value(-2));
  EXPECT_THAT(records(), ElementsAre("db.tab=cmd@0", "d2.t2=new@0", "d3.t3=cmd3@-3"));
  EXPECT_EQ(engine.count("Q7_SaveTableInfo"), 3U);
  EXPECT_THAT(engine.events(), IsEmpty());
}

TEST_F(Tableinfo, OtherSaveResultsAreSuccess) {
  for (const int save : {1, 2, -2, -3, 255}) {
    engine.answer("Q7_SaveTableInfo", save);
    engine.clearJournal();
    EXPECT_EQ(set("db", "tab", "cmd"), value(1)) << save;
    EXPECT_EQ(set("db", "tab", "cmd"), value(2)) << save;
    EXPECT_EQ(remove("db", "tab"), value(3)) << save;
    EXPECT_EQ(engine.events().size(), 3U) << save;
  }
}

TEST_F(ThreeTables, FailedLoadIsNotLookedAt) {
  engine.answer("Q7_LoadTableInfo", -1);
  EXPECT_THAT(get("d1", "t1"), IsText("cmd1"));
  EXPECT_EQ(set("d1", "t1", "new"), value(2));
  EXPECT_EQ(remove("d1", "t1"), value(3));
  EXPECT_EQ(engine.count("Q7_LoadTableInfo"), 3U);
}

TEST_F(ThreeTables, LoadedTableIsTheOneThatIsReadAndChanged) {
  engine.onCall("Q7_LoadTableInfo", [] {
    g_numberOftableInfo = 0;
    add("loaded", "t", "cmd", kStart);
  });
  EXPECT_THAT(get("d1", "t1"), IsNull());
  EXPECT_THAT(get("loaded", "t"), IsText("cmd"));
  EXPECT_EQ(remove("d1", "t1"), sqlNull());
  EXPECT_EQ(set("loaded", "t", "new"), value(2));
}

// --- Reading ---

TEST_F(ThreeTables, CommandIsReturnedInPlace) {
  const StringResult result = get("d2", "t2");
  EXPECT_THAT(result, IsText("cmd2"));
  EXPECT_EQ(result.pointer, g_tableInfo[1].demigrationCmd);
  EXPECT_TRUE(result.isGuardIntact(0)) << "the server's buffer was written to";
  EXPECT_TRUE(get("no", "table").isGuardIntact(0));
  EXPECT_THAT(engine.operations(), ElementsAre("Q7_LoadTableInfo", "Q7_LoadTableInfo"));
}

TEST_F(Tableinfo, CommandLongerThanMaxLengthIsReturnedWhole) {
  for (const std::size_t length : {255U, 256U, 2048U, 2049U, 3071U}) {
    const std::string command(length, 'c');
    set("db", "tab", command);
    const StringResult result = get("db", "tab");
    EXPECT_THAT(result, IsText(command));
    EXPECT_EQ(result.length, length);
  }
}

TEST_F(ThreeTables, TwoCommandsAreAliveAtOnce) {
  const StringResult first = get("d1", "t1");
  const StringResult second = get("d2", "t2");
  EXPECT_EQ(first.text(), "cmd1");
  EXPECT_EQ(second.text(), "cmd2");
}

TEST_F(ThreeTables, UnknownPairIsNull) {
  EXPECT_THAT(get("d1", "t2"), IsNull());
  EXPECT_THAT(get("d4", "t4"), IsNull());
  for (const int count : {0, -1}) {
    g_numberOftableInfo = count;
    EXPECT_THAT(get("d1", "t1"), IsNull());
  }
}

// --- Refusals ---

TEST_F(ThreeTables, FewerThanTwoArgumentsAreNullAfterTheLoad) {
  EXPECT_EQ(call(kezu_conf_set_tableinfo, {"d1"}), sqlNull());
  EXPECT_EQ(call(kezu_conf_set_tableinfo, Arguments()), sqlNull());
  EXPECT_EQ(engine.count("Q7_LoadTableInfo"), 2U);
  expectNothingDone(3);
}

TEST_F(Tableinfo, ExceptionBecomesTheErrorFlag) {
  const auto clear = [] { g_numberOftableInfo = 0; };
  expectErrorWhenThrown({"Q7_LoadTableInfo", "Q7_SaveTableInfo", "lw_log"}, clear,
                        [] { return set("db", "tab", "cmd") == failure(); });
  engine.onCall("Q7_LoadTableInfo", [] { throw std::bad_alloc(); });
  EXPECT_THAT(get("db", "tab"), IsNullWithError());
}

}  // namespace
}  // namespace conformance
