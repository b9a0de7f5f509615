// SPDX-License-Identifier: Apache-2.0
//
// Encrypting and decrypting single values, and peeling off layers: the data_process functions.
#include <numeric>
#include <thread>

#include "policy_fixture.h"

namespace conformance {
namespace {

constexpr std::size_t kLongest = 8192;

// Bytes that are no printable text, of any length above 0.
std::string unprintable(std::size_t length) {
  return std::string(length, '\xE9');
}

class DataProcess : public Conformance {
 protected:
  void SetUp() override {
    Conformance::SetUp();
    addPolicy(0, "other");
    addPolicy(0, "p");
    addPolicy(0, "another");
  }

  static StringResult process(std::string_view policy, long long mode, std::string_view data) {
    return call(data_process_po_ed, Arguments{policy}.number(mode).text(data));
  }
  static StringResult checkText(std::string_view policy, std::string_view data) {
    return call(data_process_ed_check_str, {policy, data});
  }
  static IntegerResult checkInt(std::string_view policy, std::string_view data) {
    return call(data_process_ed_check_int, {policy, data});
  }

  static const Q7EncPolicyInfo& policy(std::size_t i) { return g_encPolicyArray[0][i]; }

  // A clear text with so many layers of encryption under policy p.
  static std::string layered(std::string clear, int layers) {
    for (int i = 0; i < layers; ++i) {
      clear = transformed(clear, policy(1));
    }
    return clear;
  }

  // Runs the decryptions of both check functions on the same script, and expects the number and the text.
  void expectCheck(const std::vector<CipherAnswer>& script, std::string_view data, long long number,
                   const std::string& text) {
    engine.answerCipher(script);
    EXPECT_EQ(checkInt("p", data), value(number));
    engine.answerCipher(script);
    const StringResult result = checkText("p", data);
    EXPECT_EQ(result.text(), text);
    EXPECT_NE(result.pointer, nullptr);
    EXPECT_FALSE(result.is_null);
    EXPECT_FALSE(result.error);
  }

  std::vector<std::string> inputs() {
    std::vector<std::string> all;
    for (const CipherCall& call : engine.cipherCalls()) {
      all.push_back(call.input);
    }
    return all;
  }
};

void expectNull(const StringResult& result) {
  EXPECT_EQ(result.pointer, nullptr);
  EXPECT_TRUE(result.is_null);
  EXPECT_FALSE(result.error);
}

// --- data_process_po_ed ---

class PoEd : public DataProcess {};

TEST_F(PoEd, ModeZeroEncrypts) {
  const StringResult result = process("p", 0, "clear");
  EXPECT_EQ(result.text(), transformed("clear", policy(1)));
  EXPECT_FALSE(result.is_null);
  EXPECT_FALSE(result.error);
  EXPECT_THAT(engine.calls(), ElementsAre("Q7_EncryptBinaryExt(\"clear\", \"p\", key of p)"));
}

TEST_F(PoEd, AnyOtherModeDecrypts) {
  for (const long long mode : {1LL, 2LL, -1LL, 0x7FFFFFFFLL, -0x80000000LL}) {
    EXPECT_EQ(process("p", mode, layered("clear", 1)).text(), "clear") << mode;
  }
}

TEST_F(PoEd, ModeIsReadAsItsLow32Bits) {
  process("p", 1LL << 32, "clear");
  process("p", (5LL << 32) + 1, "clear");
  EXPECT_THAT(engine.operations(), ElementsAre("Q7_EncryptBinaryExt", "Q7_DecryptBinaryExt"));
}

TEST_F(PoEd, WhatItEncryptedItDecrypts) {
  for (const std::string& clear :
       {std::string("x"), std::string("h\xC3\xA9llo"), bytes("a\0b\xFF"), std::string(255, 'y'), std::string(256, 'y'),
        std::string(4000, 'z'), unprintable(8000)}) {
    const std::string encrypted = process("p", 0, clear).text();
    EXPECT_NE(encrypted, clear);
    EXPECT_EQ(process("p", 1, encrypted).text(), clear);
  }
}

TEST_F(PoEd, HandsTheEntryAndItsKeyToTheEngine) {
  process("another", 0, "x");
  ASSERT_EQ(engine.cipherCalls().size(), 1U);
  const CipherCall seen = engine.cipherCalls()[0];
  EXPECT_EQ(std::memcmp(&seen.policy, &policy(2), sizeof seen.policy), 0);
  EXPECT_EQ(seen.key, g_makeKeyArray[0][2]);
  EXPECT_GE(seen.capacity, kLongest);
}

// --- Policies that change under a call ---

// Makes the engine come to nothing `times` times, with the active slot moved on each time, as when an administrator's
// changes overtake a slow thread.
void overtake(RecordingEngine& engine, const std::string& operation, int times) {
  auto left = std::make_shared<int>(times);
  engine.onCall(operation, [left] {
    if (*left > 0) {
      --*left;
      const int next = (g_encPolicyArray_flag + 1) % kPolicySlots;
      std::copy(std::begin(g_encPolicyArray[g_encPolicyArray_flag]), std::end(g_encPolicyArray[g_encPolicyArray_flag]),
                std::begin(g_encPolicyArray[next]));
      std::copy(std::begin(g_makeKeyArray[g_encPolicyArray_flag]), std::end(g_makeKeyArray[g_encPolicyArray_flag]),
                std::begin(g_makeKeyArray[next]));
      g_numberOfEncPolicy[next] = g_numberOfEncPolicy[g_encPolicyArray_flag];
      g_encPolicyArray_flag = next;
    }
  });
}

TEST_F(PoEd, EmptyOutputUnderAChangeOfPoliciesIsTakenUpAgain) {
  for (const long long mode : {0LL, 1LL}) {
    SCOPED_TRACE(mode);
    overtake(engine, mode == 0 ? "Q7_EncryptBinaryExt" : "Q7_DecryptBinaryExt", 7);
    const std::vector<CipherAnswer> nothing(7, CipherAnswer{});
    engine.answerCipher(nothing);
    const std::string data = mode == 0 ? "clear" : layered("clear", 1);
    EXPECT_EQ(process("p", mode, data).text(), mode == 0 ? transformed("clear", policy(1)) : "clear");
  }
}

TEST_F(PoEd, EmptyOutputUnderANewKeyIsTakenUpAgain) {
  engine.onCall("Q7_EncryptBinaryExt", [this] {
    if (engine.cipherCalls().empty()) {
      g_makeKeyArray[0][1] = engine.makeKey("new key of p");
    }
  });
  engine.answerCipher({CipherAnswer{}});
  EXPECT_EQ(process("p", 0, "clear").text(), transformed("clear", policy(1)));
  EXPECT_EQ(engine.cipherCalls().size(), 2U);
}

TEST_F(PoEd, EmptyOutputWithoutAChangeIsFinal) {
  engine.answerCipher({CipherAnswer{}});
  EXPECT_EQ(process("p", 0, "clear").text(), "");
  EXPECT_EQ(engine.cipherCalls().size(), 1U);
}

TEST_F(PoEd, EndlessChangesEnd) {
  overtake(engine, "Q7_EncryptBinaryExt", 1000);
  engine.answerCipher(std::vector<CipherAnswer>(1000, CipherAnswer{}));
  EXPECT_EQ(process("p", 0, "clear").text(), "");
}

TEST_F(PoEd, PolicyWithoutAKeyIsHandedOnAsItIs) {
  addPolicy(0, "nokey", false);
  process("nokey", 0, "x");
  EXPECT_THAT(engine.calls(), ElementsAre("Q7_EncryptBinaryExt(\"x\", \"nokey\", null)"));
}

TEST_F(PoEd, EmptyDataIsEncryptedToo) {
  EXPECT_EQ(process("p", 0, "").text(), "\x81");
  EXPECT_THAT(engine.calls(), ElementsAre("Q7_EncryptBinaryExt(\"\", \"p\", key of p)"));
}

TEST_F(PoEd, NameIsComparedWholeAndCaseSensitively) {
  for (const std::string& name : {std::string("P"), std::string("pp"), std::string(), bytes("p\0"), bytes("p\0x"),
                                  std::string("p "), std::string(100000, 'p')}) {
    EXPECT_TRUE(process(name, 0, "x").isEmptyText()) << conformance::inQuotes(name).substr(0, 40);
  }
  EXPECT_THAT(engine.calls(), IsEmpty());
}

TEST_F(PoEd, EmptyNameFindsThePolicyWithoutAName) {
  addPolicy(0, "");
  EXPECT_EQ(process("", 0, "x").text(), transformed("x", policy(3)));
}

TEST_F(PoEd, EmptyTableGivesTheEmptyText) {
  g_numberOfEncPolicy[0] = 0;
  EXPECT_TRUE(process("p", 0, "x").isEmptyText());
  EXPECT_TRUE(process("p", 1, "x").isEmptyText());
}

TEST_F(PoEd, ActiveSlotCounts) {
  addPolicy(4, "only");
  g_encPolicyArray_flag = 4;
  EXPECT_TRUE(process("p", 0, "x").isEmptyText());
  EXPECT_FALSE(process("only", 0, "x").isEmptyText());
}

TEST_F(PoEd, LastOf2000PoliciesIsFound) {
  for (int i = 3; i < kMaxPolicies; ++i) {
    addPolicy(0, "p" + std::to_string(i), false);
  }
  EXPECT_EQ(process("p1999", 0, "x").text(), transformed("x", policy(1999)));
}

TEST_F(PoEd, WalkDoesNotStopAtAMatchAndTheLastOutputWins) {
  addPolicy(0, "p");
  engine.answerCipher({CipherAnswer::text("first"), CipherAnswer::text("2nd")});
  EXPECT_EQ(process("p", 0, "x").text(), "2nd");
  ASSERT_EQ(engine.cipherCalls().size(), 2U);
  EXPECT_EQ(engine.cipherCalls()[0].key, g_makeKeyArray[0][1]);
  EXPECT_EQ(engine.cipherCalls()[1].key, g_makeKeyArray[0][3]);
  EXPECT_THAT(inputs(), ElementsAre("x", "x"));
}

TEST_F(PoEd, LastOutputWinsEvenWhenItIsEmpty) {
  addPolicy(0, "p");
  engine.answerCipher({CipherAnswer::text("first"), CipherAnswer{"", 0, 1}});
  EXPECT_TRUE(process("p", 1, "x").isEmptyText());
}

TEST_F(PoEd, EmptyOutputGivesTheEmptyText) {
  EXPECT_TRUE(process("p", 1, "garbage").isEmptyText());
  engine.answerCipher({CipherAnswer{"", 0, 0}});
  EXPECT_TRUE(process("p", 0, "x").isEmptyText());
}

TEST_F(PoEd, EnginesReturnValueIsNotUsed) {
  engine.answerCipher({CipherAnswer{"output", 6, -1}});
  EXPECT_EQ(process("p", 0, "x").text(), "output");
}

TEST_F(PoEd, NullInAnyPositionIsNullWithoutCallingTheEngine) {
  for (std::size_t position = 0; position < 3; ++position) {
    expectNull(call(data_process_po_ed, Arguments{"p"}.number(0).text("x").setNull(position)));
  }
  EXPECT_THAT(engine.calls(), IsEmpty());
}

TEST_F(PoEd, NeitherChecksASessionNorReloads) {
  process("p", 0, "x");
  process("p", 1, "x");
  EXPECT_THAT(engine.operations(), ElementsAre("Q7_EncryptBinaryExt", "Q7_DecryptBinaryExt"));
}

TEST_F(PoEd, ResultsOf8192BytesAreReturnedLongerOnesAreNullNeverCut) {
  for (const long long mode : {0LL, 1LL}) {
    const std::string longest = unprintable(kLongest);
    engine.answerCipher({CipherAnswer::text(longest)});
    EXPECT_EQ(process("p", mode, "x").text(), longest);
    for (const std::size_t length : {kLongest + 1, kLongest + 64, kLongest + 65, std::size_t{100000}}) {
      engine.answerCipher({CipherAnswer::text(unprintable(length))});
      expectNull(process("p", mode, "x"));
    }
    engine.answerCipher({CipherAnswer{"x", 0xFFFFFFFFU, 1}});
    expectNull(process("p", mode, "x"));
    EXPECT_EQ(process("p", 0, "after").text(), transformed("after", policy(1))) << "a later row";
  }
}

TEST_F(PoEd, LongDataMayHaveAShortResult) {
  engine.answerCipher({CipherAnswer::text("short")});
  EXPECT_EQ(process("p", 1, unprintable(100000)).text(), "short");
}

TEST_F(PoEd, ExceptionBecomesTheErrorFlag) {
  engine.onCall("Q7_EncryptBinaryExt", [] { throw std::bad_alloc(); });
  const StringResult result = process("p", 0, "x");
  EXPECT_EQ(result.pointer, nullptr);
  EXPECT_TRUE(result.error);
  engine.onCall("Q7_EncryptBinaryExt", nullptr);
  EXPECT_EQ(process("p", 0, "x").text(), transformed("x", policy(1))) << "a later statement";
}

// --- Printable text ---

class Check : public DataProcess {};

TEST_F(Check, PrintableBytesAre32To127AndTabLineFeedReturn) {
  for (int byte = 0; byte < 256; ++byte) {
    SCOPED_TRACE(byte);
    const bool printable = (byte >= 33 && byte <= 127) || byte == 9 || byte == 10 || byte == 13 || byte == 32;
    for (const std::string& data : {std::string(1, static_cast<char>(byte)), std::string("a") + static_cast<char>(byte),
                                    static_cast<char>(byte) + std::string("a")}) {
      engine.clearJournal();
      EXPECT_EQ(checkInt("unknown", data), value(printable ? 0 : 1));
      EXPECT_EQ(checkText("unknown", data).text(), printable ? data : "");
      checkInt("p", data);
      EXPECT_EQ(engine.calls().empty(), printable) << "whether decryption was tried";
    }
  }
}

TEST_F(Check, OutputIsJudgedByTheSameRule) {
  for (int byte = 0; byte < 256; ++byte) {
    SCOPED_TRACE(byte);
    const bool printable = (byte >= 33 && byte <= 127) || byte == 9 || byte == 10 || byte == 13 || byte == 32;
    engine.answerCipher({CipherAnswer::text(std::string("ab") + static_cast<char>(byte)), CipherAnswer::text("z")});
    EXPECT_EQ(checkInt("p", "\x80"), value(printable ? 1 : 2));
  }
}

TEST_F(Check, PrintableDataIsReturnedUnchangedWithoutDecryption) {
  for (const std::string& data : {std::string("hello"), std::string(" \t\r\n"), std::string(255, 'a'),
                                  std::string(256, 'a'), std::string(kLongest, 'a')}) {
    EXPECT_EQ(checkText("p", data).text(), data);
    EXPECT_EQ(checkInt("p", data), value(0));
  }
  EXPECT_THAT(engine.calls(), IsEmpty());
}

TEST_F(Check, EmptyDataIsEmptyAndZero) {
  EXPECT_TRUE(checkText("p", "").isEmptyText());
  EXPECT_TRUE(checkText("unknown", "").isEmptyText());
  EXPECT_EQ(checkInt("p", ""), value(0));
  EXPECT_THAT(engine.calls(), IsEmpty());
}

TEST_F(Check, PrintableDataAbove8192BytesIsNullAsTextAndZeroAsNumber) {
  expectNull(checkText("p", std::string(kLongest + 1, 'a')));
  expectNull(checkText("p", std::string(100000, 'a')));
  EXPECT_EQ(checkInt("p", std::string(kLongest + 1, 'a')), value(0));
}

TEST_F(Check, Utf8TextIsPutThroughDecryption) {
  EXPECT_EQ(checkInt("p", "h\xC3\xA9llo"), value(-1));
  EXPECT_THAT(inputs(), ::testing::Contains("h\xC3\xA9llo"));
}

// --- Rounds ---

TEST_F(Check, OneToTenLayersAreCountedAndPeeledOff) {
  for (int layers = 1; layers <= 10; ++layers) {
    const std::string data = layered("clear text", layers);
    engine.clearJournal();
    EXPECT_EQ(checkInt("p", data), value(layers));
    EXPECT_EQ(engine.cipherCalls().size(), static_cast<std::size_t>(layers));
    EXPECT_EQ(checkText("p", data).text(), "clear text") << layers;
  }
}

TEST_F(Check, ElevenLayersAreMinusOneAndTheTenthRoundsBytes) {
  const std::string data = layered("clear text", 11);
  EXPECT_EQ(checkInt("p", data), value(-1));
  EXPECT_EQ(engine.cipherCalls().size(), 10U);
  EXPECT_EQ(checkText("p", data).text(), layered("clear text", 1));
  EXPECT_EQ(engine.cipherCalls().size(), 20U);
}

TEST_F(Check, EachRoundDecryptsTheOutputOfTheOneBefore) {
  expectCheck({CipherAnswer::text("\x91"), CipherAnswer::text("\x92\x93"), CipherAnswer::text("done")}, "\x90", 3,
              "done");
  EXPECT_THAT(inputs(), ElementsAre("\x90", "\x91", "\x92\x93", "\x90", "\x91", "\x92\x93"));
}

TEST_F(Check, TenthRoundCanStillBeTheLast) {
  std::vector<CipherAnswer> script(9, CipherAnswer::text("\x99"));
  script.push_back(CipherAnswer::text("done"));
  expectCheck(script, "\x90", 10, "done");
}

TEST_F(Check, TenUnprintableRoundsGiveTheTenthRoundsBytes) {
  std::vector<CipherAnswer> script;
  for (int i = 0; i < 10; ++i) {
    script.push_back(CipherAnswer::text(std::string("\x80") + static_cast<char>('0' + i)));
  }
  script.push_back(CipherAnswer::text("an eleventh round"));
  expectCheck(script, "\x90", -1, std::string("\x80") + "9");
  EXPECT_EQ(engine.cipherCalls().size(), 20U);
}

TEST_F(Check, EmptyOutputCountsAsARound) {
  expectCheck(std::vector<CipherAnswer>(20, CipherAnswer{"", 0, 1}), "\x90", -1, "");
  EXPECT_EQ(engine.cipherCalls().size(), 20U) << "ten rounds each";
}

TEST_F(Check, EmptyOutputAfterAnUnprintableOneCountsAsARound) {
  std::vector<CipherAnswer> script = {CipherAnswer::text("\x91"), CipherAnswer{"", 0, 1}, CipherAnswer::text("done")};
  expectCheck(script, "\x90", 3, "done");
  EXPECT_THAT(inputs(), ElementsAre("\x90", "\x91", "", "\x90", "\x91", ""));
}

TEST_F(Check, UnknownPolicyGivesOneAndTheEmptyText) {
  for (const std::string& name :
       {std::string("q"), std::string("P"), std::string(), bytes("p\0"), std::string("pp"), std::string(100000, 'p')}) {
    EXPECT_EQ(checkInt(name, "\x90"), value(1));
    EXPECT_TRUE(checkText(name, "\x90").isEmptyText());
  }
  EXPECT_THAT(engine.calls(), IsEmpty());
}

TEST_F(Check, EmptyTableGivesOneAndTheEmptyText) {
  g_numberOfEncPolicy[0] = 0;
  EXPECT_EQ(checkInt("p", "\x90"), value(1));
  EXPECT_TRUE(checkText("p", "\x90").isEmptyText());
}

TEST_F(Check, ActiveSlotCounts) {
  addPolicy(2, "p");
  g_encPolicyArray_flag = 2;
  g_numberOfEncPolicy[0] = 0;
  EXPECT_EQ(checkInt("p", transformed("clear", g_encPolicyArray[2][0])), value(1));
  EXPECT_EQ(engine.cipherCalls()[0].key, g_makeKeyArray[2][0]);
}

TEST_F(Check, EnginesReturnValueIsNotUsed) {
  expectCheck({CipherAnswer{"done", 4, -1}}, "\x90", 1, "done");
}

// --- Two policies of one name ---

class TwoPolicies : public DataProcess {
 protected:
  void SetUp() override {
    DataProcess::SetUp();
    addPolicy(0, "p");
  }
  std::vector<BCipherKey> keys() {
    std::vector<BCipherKey> all;
    for (const CipherCall& call : engine.cipherCalls()) {
      all.push_back(call.key);
    }
    return all;
  }
};

TEST_F(TwoPolicies, SecondIsTriedOnTheDataAgainAfterTheFirstSucceededAtOnce) {
  expectCheck({CipherAnswer::text("by the first"), CipherAnswer::text("by the second")}, "\x90", 1, "by the second");
  EXPECT_THAT(inputs(), ElementsAre("\x90", "\x90", "\x90", "\x90"));
  BCipherKey first = g_makeKeyArray[0][1];
  BCipherKey second = g_makeKeyArray[0][3];
  EXPECT_THAT(keys(), ElementsAre(first, second, first, second));
}

TEST_F(TwoPolicies, SecondGoesOnFromTheOutputOfALaterRound) {
  expectCheck({CipherAnswer::text("\x91"), CipherAnswer::text("by the first"), CipherAnswer::text("by the second")},
              "\x90", 2, "by the second");
  EXPECT_THAT(inputs(), ElementsAre("\x90", "\x91", "by the first", "\x90", "\x91", "by the first"));
}

TEST_F(TwoPolicies, EmptyOutputOfTheSecondEndsTheWalkAfterTheFirstSucceeded) {
  expectCheck({CipherAnswer::text("by the first"), CipherAnswer{"", 0, 1}, CipherAnswer::text("never")}, "\x90", 1, "");
  EXPECT_EQ(engine.cipherCalls().size(), 4U);
}

TEST_F(TwoPolicies, UnprintableOutputOfTheSecondGoesOnCounting) {
  expectCheck({CipherAnswer::text("by the first"), CipherAnswer::text("\x91"), CipherAnswer::text("done")}, "\x90", 2,
              "done");
}

TEST_F(TwoPolicies, SecondIsNotTriedAfterTenRounds) {
  expectCheck(std::vector<CipherAnswer>(20, CipherAnswer::text("\x91")), "\x90", -1, "\x91");
  EXPECT_EQ(engine.cipherCalls().size(), 20U);
  EXPECT_THAT(keys(), ::testing::Each(g_makeKeyArray[0][1]));
}

// --- Limits of the check functions ---

TEST_F(Check, OutputOf8192BytesIsReturnedALongerOneIsNull) {
  const std::string longest(kLongest, 'a');
  expectCheck({CipherAnswer::text(longest)}, "\x90", 1, longest);
  for (const std::size_t length : {kLongest + 1, kLongest + 65, std::size_t{100000}}) {
    engine.answerCipher({CipherAnswer::text(std::string(length, 'a'))});
    expectNull(checkText("p", "\x90"));
    EXPECT_EQ(engine.cipherCalls().back().input, "\x90") << "the output was decrypted again";
    engine.answerCipher({CipherAnswer::text(std::string(length, 'a'))});
    EXPECT_EQ(checkInt("p", "\x90"), sqlNull());
  }
}

TEST_F(Check, UnprintableOutputOf8192BytesGoesThroughTheNextRoundWhole) {
  const std::string longest = unprintable(kLongest);
  expectCheck({CipherAnswer::text(longest), CipherAnswer::text("done")}, "\x90", 2, "done");
  EXPECT_EQ(inputs()[1], longest);
  engine.answerCipher({CipherAnswer::text(unprintable(kLongest + 1)), CipherAnswer::text("done")});
  expectNull(checkText("p", "\x90"));
}

TEST_F(Check, TenthRoundsBytesAbove8192AreNull) {
  std::vector<CipherAnswer> script(9, CipherAnswer::text("\x91"));
  script.push_back(CipherAnswer::text(unprintable(kLongest + 1)));
  engine.answerCipher(script);
  expectNull(checkText("p", "\x90"));
}

TEST_F(Check, DataAbove8192BytesIsDecrypted) {
  const std::string data = unprintable(100000);
  expectCheck({CipherAnswer::text("short")}, data, 1, "short");
  EXPECT_EQ(inputs()[0], data);
}

TEST_F(Check, NullInEitherPositionIsNull) {
  for (std::size_t position = 0; position < 2; ++position) {
    expectNull(call(data_process_ed_check_str, Arguments{"p", "\x90"}.setNull(position)));
    EXPECT_EQ(call(data_process_ed_check_int, Arguments{"p", "\x90"}.setNull(position)), sqlNull());
    expectNull(call(data_process_ed_check_str, Arguments{"p", "plain"}.setNull(position)));
    EXPECT_EQ(call(data_process_ed_check_int, Arguments{"p", "plain"}.setNull(position)), sqlNull());
  }
  EXPECT_THAT(engine.calls(), IsEmpty());
}

TEST_F(Check, ExceptionBecomesTheErrorFlag) {
  engine.onCall("Q7_DecryptBinaryExt", [] { throw std::bad_alloc(); });
  EXPECT_EQ(checkInt("p", "\x90"), failure());
  const StringResult result = checkText("p", "\x90");
  EXPECT_EQ(result.pointer, nullptr);
  EXPECT_TRUE(result.error);
}

// --- Where results live ---

class Results : public DataProcess {
 protected:
  // A result of this length and letter from each function in turn.
  StringResult make(int function, std::size_t length, char letter) {
    const std::string text(length, letter);
    engine.answerCipher({CipherAnswer::text(text)});
    switch (function) {
      case 0:
        return process("p", 1, "\x90");
      case 1:
        return checkText("p", "\x90");
      default:
        return checkText("p", text);
    }
  }
  static constexpr int kFunctions = 3;
};

TEST_F(Results, UpTo255BytesGoIntoTheServersBufferAndNoFurther) {
  for (int function = 0; function < kFunctions; ++function) {
    for (const std::size_t length : {1U, 2U, 254U, 255U}) {
      const StringResult result = make(function, length, 'r');
      EXPECT_TRUE(result.isInServerBuffer()) << function << " " << length;
      EXPECT_EQ(result.text(), std::string(length, 'r'));
      EXPECT_TRUE(result.isGuardIntact()) << function << " " << length;
    }
  }
}

TEST_F(Results, LongerOnesLeaveTheServersBufferAlone) {
  for (int function = 0; function < kFunctions; ++function) {
    for (const std::size_t length : {std::size_t{256}, std::size_t{257}, std::size_t{4000}, kLongest}) {
      const StringResult result = make(function, length, 'r');
      EXPECT_FALSE(result.isInServerBuffer()) << function << " " << length;
      EXPECT_EQ(result.text(), std::string(length, 'r'));
      EXPECT_TRUE(result.isGuardIntact(0)) << function << " " << length;
    }
  }
}

TEST_F(Results, EightOfOneFunctionAreAliveAtOnce) {
  for (int function = 0; function < kFunctions; ++function) {
    for (const std::size_t length : {std::size_t{10}, std::size_t{255}, std::size_t{256}, kLongest}) {
      std::vector<StringResult> results;
      for (int i = 0; i < 8; ++i) {
        results.push_back(make(function, length, static_cast<char>('a' + i)));
      }
      for (std::size_t i = 0; i < results.size(); ++i) {
        EXPECT_EQ(results[i].text(), std::string(length, static_cast<char>('a' + i))) << function << " " << length;
      }
    }
  }
}

// Eight results later the buffer is used again: nothing of the clear text is in it when the engine gets it.
TEST_F(Results, LeaveNoClearTextInABufferThatIsUsedAgain) {
  const std::string operation = "Q7_DecryptBinaryExt";
  for (const int function : {0, 1}) {
    const char* secret = make(function, 600, 's').pointer;
    for (int i = 0; i < 7; ++i) {
      make(function, 300, 'o');
    }
    std::string before;
    engine.onCall(operation, [&] { before.assign(secret, 600); });
    EXPECT_EQ(make(function, 300, 'o').pointer, secret) << function;
    engine.onCall(operation, nullptr);
    EXPECT_EQ(before, std::string(600, '\0')) << function;
  }
}

TEST_F(Results, LeaveNoPrintableDataBehindAShorterText) {
  const char* secret = checkText("p", std::string(600, 's')).pointer;
  for (int i = 0; i < 7; ++i) {
    checkText("p", std::string(300, 'o'));
  }
  EXPECT_EQ(checkText("p", std::string(300, 'o')).pointer, secret);
  EXPECT_EQ(std::string(secret + 300, 300), std::string(300, '\0'));
}

TEST_F(Results, NumbersOfTheCheckLeaveNoClearText) {
  for (const std::size_t length : {std::size_t{5}, std::size_t{600}}) {
    engine.answerCipher({CipherAnswer::text(std::string(length, 's'))});
    EXPECT_EQ(checkInt("p", "\x90"), value(1));
    const auto* output = reinterpret_cast<const char*>(engine.cipherCalls().back().output);
    EXPECT_EQ(std::string(output, length), std::string(length, '\0'));
  }
}

TEST_F(Results, ShortAndLongOnesOfOneFunctionAreAliveAtOnce) {
  for (int function = 0; function < kFunctions; ++function) {
    const StringResult first = make(function, 300, 'a');
    const StringResult second = make(function, 20, 'b');
    const StringResult third = make(function, 301, 'c');
    EXPECT_EQ(first.text(), std::string(300, 'a'));
    EXPECT_EQ(second.text(), std::string(20, 'b'));
    EXPECT_EQ(third.text(), std::string(301, 'c'));
  }
}

TEST_F(Results, NumbersOfTheCheckDoNotDisturbTexts) {
  const StringResult text = checkText("p", layered(std::string(300, 'a'), 1));
  EXPECT_EQ(checkInt("p", layered(std::string(400, 'b'), 2)), value(2));
  EXPECT_EQ(text.text(), std::string(300, 'a'));
}

TEST_F(Results, DifferentFunctionsDoNotDisturbEachOther) {
  std::vector<StringResult> results;
  for (int i = 0; i < 6; ++i) {
    results.push_back(make(i % kFunctions, 500, static_cast<char>('a' + i)));
  }
  for (std::size_t i = 0; i < results.size(); ++i) {
    EXPECT_EQ(results[i].text(), std::string(500, static_cast<char>('a' + i)));
  }
}

TEST_F(Results, ThreadsNeverSeeEachOthers) {
  constexpr int kRows = 300;
  auto work = [this](char letter, int& wrong) {
    for (int i = 0; i < kRows; ++i) {
      const std::string clear(static_cast<std::size_t>(200 + i), letter);
      const StringResult encrypted = process("p", 0, clear);
      const StringResult decrypted = process("p", 1, encrypted.text());
      const StringResult peeled = checkText("p", layered(clear, 2));
      const bool counted = checkInt("p", encrypted.text()) == value(1);
      std::this_thread::yield();
      wrong += decrypted.text() != clear || peeled.text() != clear || !counted ||
                       encrypted.text() != transformed(clear, policy(1))
                   ? 1
                   : 0;
    }
  };
  std::array<int, 4> wrong = {};
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < wrong.size(); ++i) {
    threads.emplace_back(work, static_cast<char>('A' + i), std::ref(wrong[i]));
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_THAT(wrong, ::testing::Each(0));
}

TEST_F(Results, AreNotSharedByTwoThreads) {
  StringResult here = process("p", 0, std::string(300, 'h'));
  std::string there;
  std::thread other([&] {
    for (int i = 0; i < 20; ++i) {
      there = process("p", 0, std::string(300, 't')).text();
    }
  });
  other.join();
  EXPECT_EQ(here.text(), transformed(std::string(300, 'h'), policy(1)));
  EXPECT_EQ(there, transformed(std::string(300, 't'), policy(1)));
}

}  // namespace
}  // namespace conformance
