// SPDX-License-Identifier: Apache-2.0
//
// Reading logs back: kezu_conf_get_log.
#include "listing_checks.h"

namespace conformance {
namespace {

constexpr const char* kDay = "2023-11-14";

class ReadLog : public LoggedIn {
 protected:
  void SetUp() override {
    LoggedIn::SetUp();
    logLines()[0][kDay] = {"first line", "", std::string(5000, 'x') + " end"};
    logLines()[3][kDay] = {"another log"};
  }

  static Arguments countOf(long long type, std::string_view date) {
    Arguments made{kSession};
    made.number(type).text(date);
    return made;
  }
  static Arguments lineOf(long long type, std::string_view date, long long line) {
    Arguments made = countOf(type, date);
    made.number(line);
    return made;
  }
  static StringResult count(long long type, std::string_view date) {
    return call(kezu_conf_get_log, countOf(type, date));
  }
  static StringResult line(long long type, std::string_view date, long long line) {
    return call(kezu_conf_get_log, lineOf(type, date, line));
  }
};

TEST_F(ReadLog, ThreeArgumentsGiveTheNumberOfLines) {
  const StringResult result = count(0, kDay);
  EXPECT_THAT(result, IsText("3"));
  EXPECT_TRUE(result.isInServerBuffer());
  EXPECT_TRUE(isTerminated(result));
  EXPECT_THAT(count(3, kDay), IsText("1"));
  EXPECT_THAT(count(0, "2023-11-15"), IsText("0"));
}

TEST_F(ReadLog, CountingAsksTheLogOfTheTypeForTheDateAsGiven) {
  count(3, "any 'date' ../x");
  EXPECT_THAT(engine.calls(), ElementsAre("Q7_ReloadAllInfoIfChanged()", "LogFactory::getLog(3)",
                                          "Log::getNumTotalLines(3, \"any 'date' ../x\")"));
}

TEST_F(ReadLog, CountOfNineDigitsIsWhole) {
  engine.answerText("Log::getNumTotalLines", "999999999");
  const StringResult result = count(0, kDay);
  EXPECT_THAT(result, IsText("999999999"));
  EXPECT_EQ(result.length, 9U);
}

TEST_F(ReadLog, CountOfTenDigitsAndMoreIsCutToNineUnderItsFullLength) {
  const std::vector<std::pair<const char*, unsigned long>> counts = {
      {"1234567890", 10}, {"12345678901", 11}, {"1234567890123456789", 19}, {"12345678912345678912", 20}};
  for (const auto& [lines, length] : counts) {
    engine.answerText("Log::getNumTotalLines", lines);
    const StringResult result = count(0, kDay);
    ASSERT_NE(result.pointer, nullptr);
    EXPECT_EQ(result.length, length);
    EXPECT_EQ(std::string_view(result.pointer, length), std::string(lines, 9) + std::string(length - 9, '\0'));
    EXPECT_TRUE(result.isGuardIntact(21));
    EXPECT_FALSE(result.is_null || result.error);
  }
}

TEST_F(ReadLog, FourArgumentsGiveOneLineInPlace) {
  const StringResult result = line(0, kDay, 0);
  EXPECT_THAT(result, IsText("first line"));
  EXPECT_EQ(result.pointer, logLines()[0][kDay][0].c_str());
  EXPECT_TRUE(result.isGuardIntact(0)) << "the server's buffer was written to";
  EXPECT_TRUE(line(0, kDay, 1).isEmptyText());
  EXPECT_THAT(line(3, kDay, 0), IsText("another log"));
}

TEST_F(ReadLog, LongLineIsReturnedWhole) {
  EXPECT_THAT(line(0, kDay, 2), IsText(std::string(5000, 'x') + " end"));
}

TEST_F(ReadLog, TwoLinesCanBeAliveAtOnce) {
  const StringResult first = line(0, kDay, 0);
  const StringResult second = line(0, kDay, 2);
  EXPECT_THAT(first, IsText("first line"));
  EXPECT_EQ(second.length, 5004U);
}

TEST_F(ReadLog, LineThatIsNotThereIsWhatTheLogGives) {
  EXPECT_TRUE(line(0, kDay, 3).isEmptyText());
  EXPECT_TRUE(line(0, "no day", 0).isEmptyText());
}

TEST_F(ReadLog, LineNumberIsReadAsUnsigned32Bits) {
  line(0, kDay, -1);
  line(0, kDay, 0x100000002LL);
  EXPECT_THAT(engine.calls("Log::getLog"),
              ElementsAre("Log::getLog(0, \"2023-11-14\", 4294967295)", "Log::getLog(0, \"2023-11-14\", 2)"));
}

TEST_F(ReadLog, TypeIsReadAsItsLow32Bits) {
  EXPECT_THAT(count(0x100000003LL, kDay), IsText("1"));
  count(-1, kDay);
  EXPECT_THAT(engine.calls("LogFactory::getLog"), ElementsAre("LogFactory::getLog(3)", "LogFactory::getLog(-1)"));
}

TEST_F(ReadLog, DateIsTakenWithItsLength) {
  const std::string date = bytes("2023\0 11");
  logLines()[0][date] = {"a", "b"};
  EXPECT_THAT(count(0, date), IsText("2"));
}

TEST_F(ReadLog, LineIsTakenUpToItsZeroByte) {
  logLines()[0][kDay] = {bytes("before\0behind")};
  EXPECT_THAT(line(0, kDay, 0), IsText("before"));
}

using ReadLogDeathTest = ReadLog;

TEST_F(ReadLogDeathTest, LogThatTheFactoryDoesNotHaveIsAFault) {
  engine.answer("LogFactory::getLog", 1);
  EXPECT_DEATH(count(9, kDay), "log != __null");
  EXPECT_DEATH(line(9, kDay, 0), "log != __null");
}

TEST_F(ReadLogDeathTest, RefusedSessionComesBeforeIt) {
  engine.answer("LogFactory::getLog", 1);
  EXPECT_THAT(call(kezu_conf_get_log, countOf(9, kDay).setText(0, kOtherSession)), IsNull());
  EXPECT_EQ(engine.count("LogFactory::getLog"), 0U);
}

TEST_F(ReadLog, OtherArgumentCountsAreNull) {
  EXPECT_THAT(call(kezu_conf_get_log, Arguments()), IsNull());
  EXPECT_THAT(call(kezu_conf_get_log, {kSession}), IsNull());
  EXPECT_THAT(call(kezu_conf_get_log, arguments({kSession}, {0})), IsNull());
  EXPECT_THAT(call(kezu_conf_get_log, lineOf(0, kDay, 0).number(1)), IsNull());
  EXPECT_EQ(engine.count("LogFactory::getLog"), 0U);
}

TEST_F(ReadLog, WithoutALiveSessionIsNullAndNoLogIsRead) {
  expectNullUnderEachRefusal(kezu_conf_get_log, [] { return countOf(0, kDay); });
  expectNullUnderEachRefusal(kezu_conf_get_log, [] { return lineOf(0, kDay, 0); });
  EXPECT_EQ(engine.count("LogFactory::getLog"), 0U);
}

TEST_F(ReadLog, ExceptionBecomesTheErrorFlag) {
  const auto fails = [](Arguments made) {
    const StringResult result = call(kezu_conf_get_log, made);
    return result.pointer == nullptr && result.error;
  };
  expectErrorWhenThrown(
      {"Q7_ReloadAllInfoIfChanged", "LogFactory::getLog", "Log::getNumTotalLines"}, [] {},
      [&] { return fails(countOf(0, kDay)); });
  expectErrorWhenThrown(
      {"LogFactory::getLog", "Log::getLog"}, [] {}, [&] { return fails(lineOf(0, kDay, 0)); });
}

}  // namespace
}  // namespace conformance
