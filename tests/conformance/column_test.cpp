// SPDX-License-Identifier: Apache-2.0
//
// Registering and removing columns: kezu_conf_set_column.
#include "fixture.h"

namespace conformance {
namespace {

class Column : public LoggedIn {
 protected:
  static IntegerResult set(std::string_view owner, std::string_view table, std::string_view column,
                           std::string_view policy) {
    return call(kezu_conf_set_column, {kSession, owner, table, column, policy});
  }
  static IntegerResult remove(std::string_view owner, std::string_view table, std::string_view column) {
    return call(kezu_conf_set_column, {kSession, owner, table, column});
  }

  // Puts a registration into the table.
  static void add(std::string_view owner, std::string_view table, std::string_view column, std::string_view policy) {
    Q7EncColumnInfo& record = g_encColumnInfoArray[g_numberOfEncColumn++];
    setField(record.owner, owner);
    setField(record.table, table);
    setField(record.column, column);
    setField(record.policyID, policy);
  }

  // The table as owner.table.column=policy texts.
  static std::vector<std::string> table() {
    std::vector<std::string> lines;
    for (int i = 0; i < g_numberOfEncColumn; ++i) {
      lines.push_back(line(i));
    }
    return lines;
  }
  static std::string line(int i) {
    const Q7EncColumnInfo& record = g_encColumnInfoArray[i];
    return std::string(record.owner) + "." + record.table + "." + record.column + "=" + record.policyID;
  }

  void expectNothingDone(int count) {
    EXPECT_EQ(g_numberOfEncColumn, count);
    EXPECT_EQ(engine.count("Q7_SaveColumnInfo"), 0U);
    EXPECT_THAT(engine.events(), IsEmpty());
  }
};

// --- Registering ---

TEST_F(Column, RegisteringAppendsTheRecord) {
  add("d0", "t0", "c0", "p0");
  EXPECT_EQ(set("db", "tab", "col", "pol"), value(1));
  EXPECT_THAT(table(), ElementsAre("d0.t0.c0=p0", "db.tab.col=pol"));
}

TEST_F(Column, RegisteringReloadsThenSavesThenLogs) {
  EXPECT_EQ(set("db", "tab", "col", "pol"), value(1));
  EXPECT_THAT(engine.operations(), ElementsAre("Q7_ReloadAllInfoIfChanged", "Q7_SaveColumnInfo", "logwCategory",
                                               "lw_get_category", "lw_log"));
}

TEST_F(Column, RegisteringWritesItsEvent) {
  set("db", "tab", "col", "pol");
  EXPECT_THAT(engine.events(), ElementsAre(IsEvent(2, "group", "policy", "owner", "db", "table", "tab", "column", "col",
                                                   "policy", "pol", "desc", "SET COLUMN")));
}

TEST_F(Column, RecordIsCompleteWhenTheSaveRuns) {
  std::vector<std::string> seen;
  engine.onCall("Q7_SaveColumnInfo", [&] { seen = table(); });
  set("db", "tab", "col", "pol");
  EXPECT_THAT(seen, ElementsAre("db.tab.col=pol"));
}

TEST_F(Column, RegisteringTwiceIsNullWhateverThePolicy) {
  EXPECT_EQ(set("db", "tab", "col", "pol"), value(1));
  engine.clearJournal();
  EXPECT_EQ(set("db", "tab", "col", "pol"), sqlNull());
  EXPECT_EQ(set("db", "tab", "col", "other"), sqlNull());
  EXPECT_THAT(table(), ElementsAre("db.tab.col=pol"));
  expectNothingDone(1);
}

TEST_F(Column, PolicyNeedNotExistNorBeAPolicyName) {
  EXPECT_EQ(set("db", "tab", "col", "no such-policy_\xC3\xA9 "), value(1));
  EXPECT_STREQ(g_encColumnInfoArray[0].policyID, "no such-policy_\xC3\xA9 ");
}

TEST_F(Column, KeyServerModeDoesNotMatter) {
  for (const Q7KmsMode mode : {Q7_ONLY_KMS_MODE, Q7_CACHED_KMS_MODE}) {
    g_kmsMode = mode;
    EXPECT_EQ(set("db", "tab", "col", "pol"), value(1));
    EXPECT_EQ(remove("db", "tab", "col"), value(3));
  }
}

TEST_F(Column, NamesAreComparedCaseSensitivelyAndWhole) {
  EXPECT_EQ(set("db1", "tab", "col", "p"), value(1));
  for (const auto& [owner, table, column] : std::vector<std::array<const char*, 3>>{{"Db1", "tab", "col"},
                                                                                    {"db1", "Tab", "col"},
                                                                                    {"db1", "tab", "Col"},
                                                                                    {"db", "tab", "col"},
                                                                                    {"db11", "tab", "col"},
                                                                                    {"db1", "tab ", "col"},
                                                                                    {"tab", "db1", "col"}}) {
    EXPECT_EQ(set(owner, table, column, "p"), value(1)) << owner << "." << table << "." << column;
  }
  EXPECT_EQ(g_numberOfEncColumn, 8);
}

TEST_F(Column, RecordsBehindTheCountAreNotFound) {
  add("db", "tab", "col", "old");
  g_numberOfEncColumn = 0;
  EXPECT_EQ(set("db", "tab", "col", "new"), value(1));
  EXPECT_THAT(table(), ElementsAre("db.tab.col=new"));
}

TEST_F(Column, NamesMayHoldAnyBytesButZero) {
  EXPECT_EQ(set("d\xC3\xA9'", "t\"\\%", "c_ \t\n\x80\xFF", "p"), value(1));
  EXPECT_EQ(set("d\xC3\xA9'", "t\"\\%", "c_ \t\n\x80\xFF", "p"), sqlNull());
  EXPECT_EQ(remove("d\xC3\xA9'", "t\"\\%", "c_ \t\n\x80\xFF"), value(3));
}

TEST_F(Column, ShorterNameLeavesNothingOfWhatTheFieldHeld) {
  add("longer", "longer", "longer", "longer");
  g_numberOfEncColumn = 0;
  EXPECT_EQ(set("d", "t", "c", "p"), value(1));
  EXPECT_THAT(table(), ElementsAre("d.t.c=p"));
}

TEST_F(Column, NamesOf64BytesFit) {
  const std::string longest(64, 'x');
  EXPECT_EQ(set(longest, longest, longest, longest), value(1));
  EXPECT_THAT(table(), ElementsAre(longest + "." + longest + "." + longest + "=" + longest));
  EXPECT_EQ(set(longest, longest, longest, "p"), sqlNull());
  EXPECT_EQ(remove(longest, longest, longest), value(3));
}

TEST_F(Column, NameOf65BytesGivesMinusTwoAndChangesNothing) {
  for (const std::size_t length : {65U, 66U, 130U, 100000U}) {
    for (std::size_t position = 1; position <= 4; ++position) {
      Arguments arguments{kSession, "db", "tab", "col", "pol"};
      arguments.setText(position, std::string(length, 'x'));
      EXPECT_EQ(call(kezu_conf_set_column, arguments), value(-2)) << position;
      EXPECT_EQ(line(0), "..=");
      expectNothingDone(0);
    }
  }
}

TEST_F(Column, ZeroByteInsideANameGivesMinusTwoAndChangesNothing) {
  for (std::size_t position = 1; position <= 4; ++position) {
    for (const std::string& name : {bytes("a\0b"), bytes("a\0")}) {
      Arguments arguments{kSession, "db", "tab", "col", "pol"};
      arguments.setText(position, name);
      EXPECT_EQ(call(kezu_conf_set_column, arguments), value(-2)) << position;
      EXPECT_EQ(line(0), "..=");
      expectNothingDone(0);
    }
  }
}

TEST_F(Column, ColumnThatIsRegisteredIsNullEvenUnderAPolicyTooLong) {
  add("db", "tab", "col", "pol");
  EXPECT_EQ(set("db", "tab", "col", std::string(65, 'p')), sqlNull());
}

class FullColumnTable : public Column {
 protected:
  void SetUp() override {
    Column::SetUp();
    for (int i = 0; i < kMaxColumns; ++i) {
      add("db", "tab", "col" + std::to_string(i), "pol");
    }
  }
};

TEST_F(FullColumnTable, AppendGivesMinusTwoAndChangesNothing) {
  EXPECT_EQ(set("db", "tab", "one more", "pol"), value(-2));
  expectNothingDone(kMaxColumns);
  EXPECT_EQ(line(kMaxColumns - 1), "db.tab.col1999=pol");
  EXPECT_EQ(g_numberOfAccessPriv, 0);
}

TEST_F(FullColumnTable, LastPlaceCanBeTaken) {
  g_numberOfEncColumn = kMaxColumns - 1;
  EXPECT_EQ(set("db", "tab", "the last", "pol"), value(1));
  EXPECT_EQ(g_numberOfEncColumn, kMaxColumns);
  EXPECT_EQ(line(kMaxColumns - 1), "db.tab.the last=pol");
}

TEST_F(FullColumnTable, ColumnThatIsRegisteredIsStillNull) {
  EXPECT_EQ(set("db", "tab", "col1999", "pol"), sqlNull());
}

TEST_F(FullColumnTable, RemovingMakesRoom) {
  EXPECT_EQ(remove("db", "tab", "col0"), value(3));
  EXPECT_EQ(line(0), "db.tab.col1999=pol");
  EXPECT_EQ(set("db", "tab", "one more", "pol"), value(1));
  EXPECT_EQ(g_numberOfEncColumn, kMaxColumns);
}

TEST_F(Column, FailedSaveOfARegistrationIsReportedAndTheRecordStays) {
  const std::vector<std::pair<int, long long>> results = {{-1, -2}, {1, -3}};
  for (const auto& [save, expected] : results) {
    g_numberOfEncColumn = 0;
    engine.clearJournal();
    engine.answer("Q7_SaveColumnInfo", save);
    EXPECT_EQ(set("db", "tab", "col", "pol"), value(expected)) << save;
    EXPECT_THAT(table(), ElementsAre("db.tab.col=pol")) << save;
    EXPECT_EQ(engine.count("Q7_SaveColumnInfo"), 1U);
    EXPECT_THAT(engine.events(), IsEmpty()) << save;
    engine.answer("Q7_SaveColumnInfo", 0);
    EXPECT_EQ(set("db", "tab", "col", "pol"), sqlNull()) << "visible to the next call";
  }
}

TEST_F(Column, OtherSaveResultsOfARegistrationAreSuccess) {
  for (const int save : {2, -2, -3, 255}) {
    g_numberOfEncColumn = 0;
    engine.clearJournal();
    engine.answer("Q7_SaveColumnInfo", save);
    EXPECT_EQ(set("db", "tab", "col", "pol"), value(1)) << save;
    EXPECT_EQ(engine.events().size(), 1U) << save;
  }
}

// --- Removing ---

class ThreeColumns : public Column {
 protected:
  void SetUp() override {
    Column::SetUp();
    add("d1", "t1", "c1", "p1");
    add("d2", "t2", "c2", "p2");
    add("d3", "t3", "c3", "p3");
  }
};

TEST_F(ThreeColumns, RemovingTheFirstMovesTheLastIntoItsPlace) {
  EXPECT_EQ(remove("d1", "t1", "c1"), value(3));
  EXPECT_THAT(table(), ElementsAre("d3.t3.c3=p3", "d2.t2.c2=p2"));
}

TEST_F(ThreeColumns, RemovingTheMiddleMovesTheLastIntoItsPlace) {
  EXPECT_EQ(remove("d2", "t2", "c2"), value(3));
  EXPECT_THAT(table(), ElementsAre("d1.t1.c1=p1", "d3.t3.c3=p3"));
}

TEST_F(ThreeColumns, RemovingTheLastLeavesTheOthers) {
  EXPECT_EQ(remove("d3", "t3", "c3"), value(3));
  EXPECT_THAT(table(), ElementsAre("d1.t1.c1=p1", "d2.t2.c2=p2"));
}

TEST_F(ThreeColumns, VacatedRecordIsNotCleared) {
  remove("d1", "t1", "c1");
  EXPECT_EQ(line(2), "d3.t3.c3=p3");
  remove("d2", "t2", "c2");
  EXPECT_EQ(line(1), "d2.t2.c2=p2");
}

TEST_F(ThreeColumns, RemovingReloadsThenSavesThenLogs) {
  std::vector<std::string> seen;
  engine.onCall("Q7_SaveColumnInfo", [&] { seen = table(); });
  remove("d1", "t1", "c1");
  EXPECT_THAT(seen, ElementsAre("d3.t3.c3=p3", "d2.t2.c2=p2"));
  EXPECT_THAT(engine.operations(), ElementsAre("Q7_ReloadAllInfoIfChanged", "Q7_SaveColumnInfo", "logwCategory",
                                               "lw_get_category", "lw_log"));
}

TEST_F(ThreeColumns, RemovingWritesItsEventWithoutThePolicy) {
  remove("d2", "t2", "c2");
  EXPECT_THAT(engine.events(), ElementsAre(IsEvent(2, "group", "policy", "owner", "d2", "table", "t2", "column", "c2",
                                                   "desc", "DELETE COLUMN")));
}

TEST_F(ThreeColumns, UnknownColumnIsNull) {
  for (const auto& [owner, table, column] : std::vector<std::array<const char*, 3>>{{"d1", "t1", "c2"},
                                                                                    {"d1", "t2", "c1"},
                                                                                    {"d2", "t1", "c1"},
                                                                                    {"D1", "t1", "c1"},
                                                                                    {"d1", "T1", "c1"},
                                                                                    {"d1", "t1", "C1"},
                                                                                    {"d", "t1", "c1"},
                                                                                    {"d11", "t1", "c1"}}) {
    EXPECT_EQ(remove(owner, table, column), sqlNull()) << owner << "." << table << "." << column;
  }
  expectNothingDone(3);
}

TEST_F(ThreeColumns, NameThatNoFieldCanHoldIsNoRegistration) {
  EXPECT_EQ(remove(std::string(65, 'x'), "t1", "c1"), sqlNull());
  EXPECT_EQ(remove(bytes("d1\0"), "t1", "c1"), sqlNull());
  EXPECT_EQ(remove("d1", bytes("t1\0x"), "c1"), sqlNull());
  expectNothingDone(3);
}

TEST_F(ThreeColumns, FirstOfTwoEqualRecordsIsRemoved) {
  add("d1", "t1", "c1", "p4");
  EXPECT_EQ(remove("d1", "t1", "c1"), value(3));
  EXPECT_THAT(table(), ElementsAre("d1.t1.c1=p4", "d2.t2.c2=p2", "d3.t3.c3=p3"));
}

TEST_F(Column, RemovingFromAnEmptyTableIsNull) {
  add("db", "tab", "col", "pol");
  for (const int count : {0, -1}) {
    g_numberOfEncColumn = count;
    EXPECT_EQ(remove("db", "tab", "col"), sqlNull());
    expectNothingDone(count);
  }
}

TEST_F(Column, RemovedColumnCanBeRegisteredAgain) {
  EXPECT_EQ(set("db", "tab", "col", "p1"), value(1));
  EXPECT_EQ(remove("db", "tab", "col"), value(3));
  EXPECT_EQ(g_numberOfEncColumn, 0);
  EXPECT_EQ(remove("db", "tab", "col"), sqlNull());
  EXPECT_EQ(set("db", "tab", "col", "p2"), value(1));
  EXPECT_THAT(table(), ElementsAre("db.tab.col=p2"));
}

TEST_F(ThreeColumns, SaveResultMinusOneOfARemovalGivesMinusTwoAndTheRecordIsGone) {
  engine.answer("Q7_SaveColumnInfo", -1);
  EXPECT_EQ(remove("d1", "t1", "c1"), value(-2));
  EXPECT_THAT(table(), ElementsAre("d3.t3.c3=p3", "d2.t2.c2=p2"));
  EXPECT_THAT(engine.events(), IsEmpty());
}

TEST_F(ThreeColumns, EveryOtherSaveResultOfARemovalIsSuccess) {
  engine.answerNext("Q7_SaveColumnInfo", {1, -3, 2});
  EXPECT_EQ(remove("d1", "t1", "c1"), value(3));
  EXPECT_EQ(remove("d2", "t2", "c2"), value(3));
  EXPECT_EQ(remove("d3", "t3", "c3"), value(3));
  EXPECT_EQ(engine.events().size(), 3U);
  EXPECT_EQ(g_numberOfEncColumn, 0);
}

// --- Refusals ---

TEST_F(ThreeColumns, WithoutALiveSessionIsNullAndNothingIsDone) {
  EXPECT_EQ(call(kezu_conf_set_column, {kOtherSession, "d1", "t1", "c1"}), sqlNull());
  EXPECT_EQ(call(kezu_conf_set_column, {kOtherSession, "d", "t", "c", "p"}), sqlNull());
  setTime(kStart + 300);
  EXPECT_EQ(remove("d1", "t1", "c1"), sqlNull());
  EXPECT_EQ(set("d", "t", "c", "p"), sqlNull());
  expectNothingDone(3);
}

TEST_F(ThreeColumns, FailedReloadIsNullAndNothingIsDone) {
  engine.answer("Q7_ReloadAllInfoIfChanged", 1);
  EXPECT_EQ(remove("d1", "t1", "c1"), sqlNull());
  EXPECT_EQ(set("d", "t", "c", "p"), sqlNull());
  expectNothingDone(3);
}

TEST_F(ThreeColumns, MissingOrEmptyArgumentInAnyPositionIsNull) {
  for (std::size_t position = 0; position < 5; ++position) {
    EXPECT_EQ(call(kezu_conf_set_column, Arguments{kSession, "d", "t", "c", "p"}.setNull(position)), sqlNull());
    EXPECT_EQ(call(kezu_conf_set_column, Arguments{kSession, "d", "t", "c", "p"}.setText(position, "")), sqlNull());
    EXPECT_EQ(call(kezu_conf_set_column, Arguments{kSession, "d", "t", "c", "p"}.setText(position, bytes("\0x"))),
              sqlNull());
  }
  for (std::size_t position = 0; position < 4; ++position) {
    EXPECT_EQ(call(kezu_conf_set_column, Arguments{kSession, "d1", "t1", "c1"}.setNull(position)), sqlNull());
    EXPECT_EQ(call(kezu_conf_set_column, Arguments{kSession, "d1", "t1", "c1"}.setText(position, "")), sqlNull());
  }
  expectNothingDone(3);
}

TEST_F(ThreeColumns, OtherArgumentCountsAreNull) {
  EXPECT_EQ(call(kezu_conf_set_column, {kSession}), sqlNull());
  EXPECT_EQ(call(kezu_conf_set_column, {kSession, "d1", "t1"}), sqlNull());
  EXPECT_EQ(call(kezu_conf_set_column, {kSession, "d1", "t1", "c1", "p1", "more"}), sqlNull());
  EXPECT_EQ(call(kezu_conf_set_column, Arguments()), sqlNull());
  expectNothingDone(3);
}

TEST_F(ThreeColumns, ReloadedTableIsTheOneThatIsChanged) {
  engine.onCall("Q7_ReloadAllInfoIfChanged", [] { g_numberOfEncColumn = 1; });
  EXPECT_EQ(remove("d2", "t2", "c2"), sqlNull());
  EXPECT_EQ(set("d2", "t2", "c2", "new"), value(1));
  EXPECT_EQ(g_numberOfEncColumn, 2);
}

TEST_F(ThreeColumns, ExceptionBecomesTheErrorFlag) {
  for (const char* operation : {"Q7_ReloadAllInfoIfChanged", "Q7_SaveColumnInfo", "lw_log"}) {
    engine.onCall(operation, [] { throw std::bad_alloc(); });
    EXPECT_EQ(remove("d1", "t1", "c1"), failure()) << operation;
    EXPECT_EQ(set("d1", "t1", "c1", "p"), failure()) << operation;
    engine.onCall(operation, nullptr);
    g_numberOfEncColumn = 0;
    add("d1", "t1", "c1", "p1");
  }
}

}  // namespace
}  // namespace conformance
