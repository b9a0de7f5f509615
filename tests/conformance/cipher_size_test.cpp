// SPDX-License-Identifier: Apache-2.0
//
// The size of encrypted values and the reload: getcolumnsizebyotc_kezu and reload_kezu.
#include "init_checks.h"
#include "listing_checks.h"

namespace conformance {
namespace {

class CipherSize : public Conformance {
 protected:
  static IntegerResult size(long long clear) {
    return call(getcolumnsizebyotc_kezu, arguments({"db", "tab", "col"}, {clear}));
  }
};

constexpr const char* kLookup = "kezuGetEncPolicyId(\"db\", \"tab\", \"col\")";

TEST_F(CipherSize, IsTheEnginesAnswerForTheColumnsPolicy) {
  engine.answerText("kezuGetEncPolicyId", "pol");
  engine.answer("kezuGetCipherSize.size", 4711);
  EXPECT_EQ(size(100), value(4711));
  EXPECT_THAT(engine.calls(), ElementsAre(kLookup, "kezuGetCipherSize(100, \"pol\")"));
}

TEST_F(CipherSize, OfZeroIsZeroWithoutAskingTheEngine) {
  EXPECT_EQ(size(0), value(0));
  EXPECT_EQ(size(0x100000000LL), value(0)) << "the low 32 bits";
  EXPECT_THAT(engine.calls(), IsEmpty());
}

TEST_F(CipherSize, OfAColumnThatIsNotRegisteredIsZero) {
  for (const int result : {1, -1, 77}) {
    engine.answer("kezuGetEncPolicyId", result);
    for (const long long clear : {1LL, 100LL, -1LL, -2LL, -3LL, 0x7FFFFFFFLL}) {
      engine.clearJournal();
      EXPECT_EQ(size(clear), value(0)) << clear;
      EXPECT_THAT(engine.calls(), ElementsAre(kLookup));
    }
  }
}

TEST_F(CipherSize, MinusOneAsksForNumericColumns) {
  engine.answerText("kezuGetEncPolicyId", "pol");
  for (const int result : {0, 1, -5, 1000}) {
    engine.answer("checkNumericEnc", result);
    engine.clearJournal();
    EXPECT_EQ(size(-1), value(result));
    EXPECT_THAT(engine.calls(), ElementsAre(kLookup, "checkNumericEnc(\"pol\")"));
  }
  EXPECT_EQ(size(0xFFFFFFFFLL), value(1000)) << "the low 32 bits";
}

TEST_F(CipherSize, MinusTwoAsksForLargeObjects) {
  engine.answerText("kezuGetEncPolicyId", "pol");
  for (const int result : {0, 1, -5, 1000}) {
    engine.answer("checkBlobEnc", result);
    engine.clearJournal();
    EXPECT_EQ(size(-2), value(result));
    EXPECT_THAT(engine.calls(), ElementsAre(kLookup, "checkBlobEnc(\"pol\")"));
  }
}

TEST_F(CipherSize, EveryOtherSizeGoesToTheEngine) {
  for (const int clear : {1, 2, -3, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
    engine.answer("kezuGetCipherSize.size", 5);
    engine.clearJournal();
    EXPECT_EQ(size(clear), value(5));
    EXPECT_THAT(engine.calls("kezuGetCipherSize"),
                ElementsAre("kezuGetCipherSize(" + std::to_string(clear) + ", \"policy\")"));
  }
}

TEST_F(CipherSize, FailureIsMinusOneWithALineOnStandardError) {
  for (const int result : {1, -1}) {
    engine.answer("kezuGetCipherSize", result);
    engine.answerText("kezuGetCipherSize", "no such policy: 100% %s");
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(size(10), value(-1)) << result;
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "get encrypt size error: no such policy: 100% %s");
  }
}

TEST_F(CipherSize, FailureWithoutAReasonIsReportedToo) {
  engine.answer("kezuGetCipherSize", 1);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(size(10), value(-1));
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "get encrypt size error: ");
}

TEST_F(CipherSize, NothingElseIsReported) {
  ::testing::internal::CaptureStderr();
  size(0);
  size(1);
  size(-1);
  size(-2);
  engine.answer("kezuGetEncPolicyId", 1);
  size(1);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_THAT(engine.events(), IsEmpty());
}

TEST_F(CipherSize, NamesAreTakenWithTheirLengthAndMissingOnesAreEmpty) {
  const std::string longer(3000, 'x');
  call(getcolumnsizebyotc_kezu, arguments({longer, "t\xC3\xA9", ""}, {1}));
  call(getcolumnsizebyotc_kezu, arguments({"db", "tab", "col"}, {1}).setNull(0).setNull(2));
  EXPECT_THAT(engine.calls("kezuGetEncPolicyId"),
              ElementsAre("kezuGetEncPolicyId(\"" + longer + "\", \"t\\xc3\\xa9\", \"\")",
                          "kezuGetEncPolicyId(\"\", \"tab\", \"\")"));
}

TEST_F(CipherSize, MissingSizeIsReadAsZero) {
  EXPECT_EQ(call(getcolumnsizebyotc_kezu, arguments({"db", "tab", "col"}).null(INT_RESULT)), value(0));
}

TEST_F(CipherSize, LongestPolicyNameIsHandedOnWhole) {
  engine.answerText("kezuGetEncPolicyId", std::string(64, 'p'));
  size(1);
  EXPECT_THAT(engine.calls("kezuGetCipherSize"), ElementsAre("kezuGetCipherSize(1, \"" + std::string(64, 'p') + "\")"));
}

TEST_F(CipherSize, NeedsNoSessionAndDoesNotReloadPerRow) {
  ASSERT_EQ(g_numberOfUserInfo, 0);
  EXPECT_EQ(size(1), value(17));
  EXPECT_EQ(call(reload_kezu, Arguments()), value(0));
  EXPECT_EQ(engine.count("Q7_ReloadAllInfoIfChanged"), 0U);
  EXPECT_EQ(engine.count("Q7_ReloadAllInfoIfChanged3"), 0U);
}

TEST_F(CipherSize, ReloadFunctionDoesNothingAndReturnsZero) {
  EXPECT_EQ(call(reload_kezu, Arguments()), value(0));
  EXPECT_EQ(call(reload_kezu, arguments({"x"}, {1})), value(0));
  EXPECT_THAT(engine.calls(), IsEmpty());
}

TEST_F(CipherSize, ExceptionBecomesTheErrorFlag) {
  for (const char* operation : {"kezuGetEncPolicyId", "kezuGetCipherSize"}) {
    engine.onCall(operation, [] { throw std::bad_alloc(); });
    EXPECT_EQ(size(1), failure()) << operation;
    engine.onCall(operation, nullptr);
  }
  engine.onCall("checkNumericEnc", [] { throw 1; });
  EXPECT_EQ(size(-1), failure());
  engine.onCall("checkBlobEnc", [] { throw 1; });
  EXPECT_EQ(size(-2), failure());
}

// --- The inits ---

const InitRule kSizeRule = {"getcolumnsizebyotc_kezu",
                            getcolumnsizebyotc_kezu_init,
                            {"SSSI"},
                            "getcolumnsizebyotc_kezu('Database', 'Table', 'Column', Column size)"};

class ReloadingInit : public Conformance {
 protected:
  struct Outcome {
    bool refused;
    UDF_INIT init;
    MessageBuffer message;
  };
  static Outcome run(InitFunction function, const char* types, UDF_INIT init = serversInit()) {
    Outcome outcome{false, init, {}};
    Arguments made = Arguments::ofTypes(types);
    outcome.refused = function(&outcome.init, made.get(), outcome.message.data()) != 0;
    return outcome;
  }
  static void expectAcceptedWithNothingSet(InitFunction function, const char* types) {
    for (const char maybe_null : {'\0', '\1'}) {
      UDF_INIT init = serversInit();
      init.maybe_null = maybe_null;
      const Outcome outcome = run(function, types, init);
      EXPECT_FALSE(outcome.refused) << types;
      EXPECT_TRUE(outcome.init == init) << types;
      EXPECT_TRUE(outcome.message.isUntouched()) << types;
    }
  }
};

TEST_F(ReloadingInit, SizeSetsNothing) {
  expectAcceptedWithNothingSet(getcolumnsizebyotc_kezu_init, "SSSI");
}

TEST_F(ReloadingInit, SizeRefusesOtherCountsWithItsUsageMessage) {
  expectEveryOtherCountRefused(kSizeRule);
}

TEST_F(ReloadingInit, SizeRefusesOtherTypesSilently) {
  expectEveryOtherTypeRefused(kSizeRule);
}

TEST_F(ReloadingInit, ReloadTakesAnyArgumentsAndSetsNothing) {
  for (const char* types : {"", "S", "I", "R", "D", "O", "SSSI", "RRRRRRRRRRRRRRRRRRRR"}) {
    expectAcceptedWithNothingSet(reload_kezu_init, types);
  }
}

TEST_F(ReloadingInit, EachStartsTheEngineForItselfAndReloadsEveryTime) {
  inNewProcess([&] {
    for (int i = 0; i < 3; ++i) {
      EXPECT_FALSE(run(getcolumnsizebyotc_kezu_init, "SSSI").refused);
    }
    for (int i = 0; i < 2; ++i) {
      EXPECT_FALSE(run(reload_kezu_init, "").refused);
    }
    EXPECT_THAT(engine.calls(), ElementsAre("kezuInitialize(1, scratch, message)", "Q7_ReloadAllInfoIfChanged3()",
                                            "Q7_ReloadAllInfoIfChanged3()", "Q7_ReloadAllInfoIfChanged3()",
                                            "kezuInitialize(1, scratch, message)", "Q7_ReloadAllInfoIfChanged3()",
                                            "Q7_ReloadAllInfoIfChanged3()"));
  });
}

TEST_F(ReloadingInit, ReloadResultIsNotLookedAt) {
  for (const int result : {1, -1}) {
    engine.answer("Q7_ReloadAllInfoIfChanged3", result);
    expectAcceptedWithNothingSet(getcolumnsizebyotc_kezu_init, "SSSI");
    expectAcceptedWithNothingSet(reload_kezu_init, "");
  }
}

TEST_F(ReloadingInit, FailedStartRefusesWithTheEnginesMessageAndDoesNotReload) {
  inNewProcess([&] {
    engine.answer("kezuInitialize", 1);
    engine.answerText("kezuInitialize", "reason");
    for (const auto& [function, types] : std::vector<std::pair<InitFunction, const char*>>{
             {getcolumnsizebyotc_kezu_init, "SSSI"}, {reload_kezu_init, ""}}) {
      const Outcome outcome = run(function, types);
      EXPECT_TRUE(outcome.refused);
      EXPECT_TRUE(outcome.message.holdsOnly("reason"));
      EXPECT_TRUE(outcome.init == serversInit());
    }
    EXPECT_THAT(engine.operations(), ElementsAre("kezuInitialize", "kezuInitialize"));
  });
}

TEST_F(ReloadingInit, RefusedArgumentsDoNotReload) {
  EXPECT_TRUE(run(getcolumnsizebyotc_kezu_init, "SSS").refused);
  EXPECT_TRUE(run(getcolumnsizebyotc_kezu_init, "SSSS").refused);
  EXPECT_THAT(engine.calls(), IsEmpty());
}

TEST_F(ReloadingInit, ExceptionOfTheReloadRefusesTheStatement) {
  engine.onCall("Q7_ReloadAllInfoIfChanged3", [] { throw std::bad_alloc(); });
  EXPECT_TRUE(run(getcolumnsizebyotc_kezu_init, "SSSI").refused);
  EXPECT_TRUE(run(reload_kezu_init, "").refused);
  EXPECT_TRUE(run(hmac_b64_data_init, "SS").refused);
}

}  // namespace
}  // namespace conformance
