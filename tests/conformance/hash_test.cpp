// SPDX-License-Identifier: Apache-2.0
//
// Digests: hash_raw_data, hash_b64_data and hmac_b64_data.
//
// Expected digests are those of FIPS 180-4 ("abc" and the empty message) and RFC 4231 and RFC 2202 (test case 2); the
// recording engine has RIPEMD-160 in HAS-160's place.
#include <thread>

#include "init_checks.h"
#include "listing_checks.h"

namespace conformance {
namespace {

using namespace std::string_literals;

constexpr const char* kSha1OfAbc = "qZk+NkcGgWq6PiVxeFDCbJzQ2J0=";
constexpr const char* kSha256OfAbc = "ungWv48Bz+pBQUDeXa4iI7ADYaOWF3qctBD/YfIAFa0=";
constexpr const char* kSha512OfAbc =
    "3a81oZNherrMQXNJriBBMRLm+k6JqX6iCp7u5ktV05ohkpkqJ0/BqDa6PCOj/uu9RU1EI2Q86A4qmslPpUyknw==";
constexpr const char* kRipemd160OfAbc = "jrII9+BdmHqbBEqOmMawh/FaC/w=";
constexpr const char* kSha256OfNothing = "47DEQpj8HBSa+/TImW+5JCeuQeRkm5NMpJWZG3hSuFU=";

constexpr const char* kMessage = "what do ya want for nothing?";
constexpr const char* kHmacSha1 = "7/zfauXrL6LSdBbV8YTfnCWafHk=";
constexpr const char* kHmacSha256 = "W9zBRr9gdU5qBCQmCJV1x1oAPwidJzmDnexYuWTsOEM=";
constexpr const char* kHmacSha512 =
    "Fkt6e/z4GeLjlfvnO1bgo4e9ZCIugx/WECcM1+olBVSXWL91wFqZSm0DT2X48Ob9yuqxo01Ka0tjbgcKOLznNw==";
constexpr const char* kHmacRipemd160 = "3abAITpIWp4k9HQgZKfwM7Q8QGk=";

struct NamedDigest {
  std::vector<std::string> names;
  int id;
  unsigned int capacity;
  const char* of_abc;
  const char* keyed;
};
const std::vector<NamedDigest> kDigests = {
    {{"SHA1", "sha1", "Sha1", "sHA1"}, 1, 64, kSha1OfAbc, kHmacSha1},
    {{"SHA256", "sha256", "Sha256", "shA256"}, 2, 64, kSha256OfAbc, kHmacSha256},
    {{"SHA512", "sha512", "Sha512", "sHa512"}, 3, 128, kSha512OfAbc, kHmacSha512},
    {{"HAS160", "has160", "Has160", "haS160"}, 4, 64, kRipemd160OfAbc, kHmacRipemd160},
};
const std::vector<std::string> kUnknownNames = {"MD5",     "SHA",
                                                "SHA-256", "SHA2560",
                                                " SHA256", "SHA256 ",
                                                "sha 1",   std::string(5000, 'S'),
                                                "",        bytes("SHA256\0"),
                                                "HAS-160", "NULL"};

class Hash : public Conformance {
 protected:
  void SetUp() override {
    Conformance::SetUp();
    zeroCounters();
  }
  void TearDown() override {
    engine.reset();
    zeroCounters();
    Conformance::TearDown();
  }
  // Counters of the library live as long as the process.
  void zeroCounters() {
    UDF_INIT init = {};
    hash_raw_data_deinit(&init);
    hash_b64_data_deinit(&init);
    hmac_b64_data_deinit(&init);
    engine.clearJournal();
  }

  static StringResult raw(std::string_view data) { return call(hash_raw_data, {data}); }
  static StringResult b64(std::string_view data) { return call(hash_b64_data, {data}); }
  static StringResult b64(std::string_view data, std::string_view algorithm) {
    return call(hash_b64_data, {data, algorithm});
  }
  static StringResult keyed(std::string_view data, std::string_view policy) {
    return call(hmac_b64_data, {data, policy});
  }
  static StringResult keyed(std::string_view data, std::string_view policy, std::string_view algorithm) {
    return call(hmac_b64_data, {data, policy, algorithm});
  }

  static void addPolicy(int slot, std::string_view name, std::string_view key) {
    Q7EncPolicyInfo& policy = g_encPolicyArray[slot][g_numberOfEncPolicy[slot]++];
    setField(policy.policyID, name);
    std::memcpy(policy.columnKey, key.data(), key.size());
    policy.keyLength = static_cast<int>(key.size());
  }

  // What the deinit of a function reports.
  void expectCount(void (*deinit)(UDF_INIT*), const char* name, int count) {
    UDF_INIT init = {};
    engine.clearJournal();
    deinit(&init);
    EXPECT_THAT(engine.events(),
                ElementsAre(IsEvent(2, "group", "status", "udf", name, "number of hash", std::to_string(count))));
  }
};

// --- hash_raw_data ---

TEST_F(Hash, RawIsTheSha256DigestInTheServersBuffer) {
  const StringResult result = raw("abc");
  EXPECT_THAT(result, IsText("\xBA\x78\x16\xBF\x8F\x01\xCF\xEA\x41\x41\x40\xDE\x5D\xAE\x22\x23\xB0\x03\x61\xA3\x96\x17"
                             "\x7A\x9C\xB4\x10\xFF\x61\xF2\x00\x15\xAD"s));
  EXPECT_EQ(result.length, 32U);
  EXPECT_TRUE(result.isInServerBuffer());
  EXPECT_THAT(engine.calls(), ElementsAre("kezuHashBinary(\"abc\", 2)"));
}

TEST_F(Hash, RawOfTheEmptyTextIsTheDigestOfNothing) {
  const StringResult result = raw("");
  EXPECT_EQ(result.length, 32U);
  EXPECT_EQ(result.text().substr(0, 4), "\xE3\xB0\xC4\x42");
  EXPECT_FALSE(result.is_null);
}

TEST_F(Hash, RawTakesAnyBytesOfAnyLength) {
  raw(bytes("a\0b\xFF"));
  EXPECT_THAT(engine.calls(), ElementsAre("kezuHashBinary(\"a\\x00b\\xff\", 2)"));
  EXPECT_EQ(raw(std::string(1000000, 'a')).text().substr(0, 4), "\xCD\xC7\x6E\x5C");
}

TEST_F(Hash, RawOfNullIsNullAndNotCounted) {
  const StringResult result = call(hash_raw_data, Arguments().null());
  EXPECT_THAT(result, IsNullWithNullFlag());
  EXPECT_THAT(engine.calls(), IsEmpty());
  expectCount(hash_raw_data_deinit, "hash_raw_data", 0);
}

TEST_F(Hash, RawIsTheEmptyTextWhenTheDigestFails) {
  for (const int result : {1, -1}) {
    engine.answer("kezuHashBinary", result);
    EXPECT_TRUE(raw("abc").isEmptyText()) << result;
  }
  expectCount(hash_raw_data_deinit, "hash_raw_data", 2);
}

// --- hash_b64_data ---

TEST_F(Hash, B64IsTheSha256DigestInBase64) {
  const StringResult result = b64("abc");
  EXPECT_THAT(result, IsText(kSha256OfAbc));
  EXPECT_TRUE(result.isInServerBuffer());
  EXPECT_THAT(b64(""), IsText(kSha256OfNothing));
  ASSERT_EQ(engine.count("Q7_GetEncode64"), 2U);
  EXPECT_THAT(engine.calls("Q7_GetEncode64")[0], ::testing::StartsWith("Q7_GetEncode64(64, \"\\xbax\\x16"));
}

TEST_F(Hash, B64TakesTheAlgorithmByNameWithoutRegardToCase) {
  for (const NamedDigest& digest : kDigests) {
    for (const std::string& name : digest.names) {
      engine.clearJournal();
      EXPECT_THAT(b64("abc", name), IsText(digest.of_abc)) << name;
      EXPECT_THAT(engine.calls("kezuHashBinary"),
                  ElementsAre("kezuHashBinary(\"abc\", " + std::to_string(digest.id) + ")"));
      EXPECT_THAT(engine.calls("Q7_GetEncode64"),
                  ElementsAre(::testing::StartsWith("Q7_GetEncode64(" + std::to_string(digest.capacity) + ", ")));
    }
  }
}

TEST_F(Hash, B64OfAnUnknownAlgorithmIsTheEmptyTextAndCounted) {
  for (const std::string& name : kUnknownNames) {
    EXPECT_TRUE(b64("abc", name).isEmptyText()) << name.substr(0, 20);
  }
  EXPECT_TRUE(call(hash_b64_data, Arguments{"abc"}.null()).isEmptyText());
  EXPECT_THAT(engine.calls(), IsEmpty());
  expectCount(hash_b64_data_deinit, "hash_b64_data", static_cast<int>(kUnknownNames.size()) + 1);
}

TEST_F(Hash, B64OfNullIsNullAndNotCounted) {
  EXPECT_THAT(call(hash_b64_data, Arguments().null()), IsNullWithNullFlag());
  EXPECT_THAT(call(hash_b64_data, Arguments().null().text("SHA1")), IsNullWithNullFlag());
  EXPECT_THAT(engine.calls(), IsEmpty());
  expectCount(hash_b64_data_deinit, "hash_b64_data", 0);
}

TEST_F(Hash, B64IsTheEmptyTextWhenTheDigestFails) {
  engine.answer("kezuHashBinary", 1);
  EXPECT_TRUE(b64("abc").isEmptyText());
  EXPECT_TRUE(b64("abc", "SHA512").isEmptyText());
  EXPECT_EQ(engine.count("Q7_GetEncode64"), 0U);
  expectCount(hash_b64_data_deinit, "hash_b64_data", 2);
}

TEST_F(Hash, B64IsTheEmptyTextWhenTheEncodingFails) {
  engine.answer("Q7_GetEncode64", 1);
  EXPECT_TRUE(b64("abc").isEmptyText());
}

TEST_F(Hash, B64WithMoreArgumentsIsNullWithoutAFlagAndNotCounted) {
  EXPECT_THAT(call(hash_b64_data, {"abc", "SHA1", "SHA1"}), IsNull());
  EXPECT_THAT(engine.calls(), IsEmpty());
  expectCount(hash_b64_data_deinit, "hash_b64_data", 0);
}

// --- hmac_b64_data ---

class Hmac : public Hash {
 protected:
  void SetUp() override {
    Hash::SetUp();
    addPolicy(0, "before", "x");
    addPolicy(0, "pol", "Jefe");
    addPolicy(0, "after", "y");
  }
};

TEST_F(Hmac, IsKeyedByThePolicyOfTheName) {
  const StringResult result = keyed(kMessage, "pol");
  EXPECT_THAT(result, IsText(kHmacSha256));
  EXPECT_TRUE(result.isInServerBuffer());
  EXPECT_THAT(engine.calls("kezuHmacBinary"),
              ElementsAre("kezuHmacBinary(\"what do ya want for nothing?\", 2, \"pol\")"));
}

TEST_F(Hmac, TakesTheAlgorithmByNameWithoutRegardToCase) {
  for (const NamedDigest& digest : kDigests) {
    for (const std::string& name : digest.names) {
      engine.clearJournal();
      EXPECT_THAT(keyed(kMessage, "pol", name), IsText(digest.keyed)) << name;
      EXPECT_THAT(engine.calls("Q7_GetEncode64"),
                  ElementsAre(::testing::StartsWith("Q7_GetEncode64(" + std::to_string(digest.capacity) + ", ")));
    }
  }
}

TEST_F(Hmac, OfNullOrUnderNullIsNullAndNotCounted) {
  EXPECT_THAT(call(hmac_b64_data, Arguments().null().text("pol")), IsNullWithNullFlag());
  EXPECT_THAT(call(hmac_b64_data, Arguments{kMessage}.null()), IsNullWithNullFlag());
  EXPECT_THAT(call(hmac_b64_data, Arguments().null().text("pol").text("SHA1")), IsNullWithNullFlag());
  EXPECT_THAT(call(hmac_b64_data, Arguments{kMessage}.null().text("SHA1")), IsNullWithNullFlag());
  EXPECT_THAT(engine.calls(), IsEmpty());
  expectCount(hmac_b64_data_deinit, "hmac_b64_data", 0);
}

TEST_F(Hmac, OfTheEmptyTextIsADigest) {
  EXPECT_EQ(keyed("", "pol").length, 44U);
  EXPECT_THAT(engine.calls("kezuHmacBinary"), ElementsAre("kezuHmacBinary(\"\", 2, \"pol\")"));
}

TEST_F(Hmac, UnderAnUnknownPolicyIsTheEmptyTextAndCounted) {
  for (const std::string& name :
       {std::string("nosuchpolicy"), std::string("Pol"), std::string("POL"), std::string("po"), std::string("pol "),
        std::string(), bytes("pol\0"), std::string(100, 'p')}) {
    EXPECT_TRUE(keyed(kMessage, name).isEmptyText()) << name;
  }
  EXPECT_THAT(engine.calls(), IsEmpty());
  expectCount(hmac_b64_data_deinit, "hmac_b64_data", 8);
}

TEST_F(Hmac, WithAnEmptyPolicyTableIsTheEmptyTextAndCounted) {
  for (const int count : {0, -1}) {
    g_numberOfEncPolicy[0] = count;
    EXPECT_TRUE(keyed(kMessage, "pol").isEmptyText());
  }
  expectCount(hmac_b64_data_deinit, "hmac_b64_data", 2);
}

TEST_F(Hmac, UnderAnUnknownAlgorithmIsTheEmptyTextAndNotCounted) {
  for (const std::string& name : kUnknownNames) {
    EXPECT_TRUE(keyed(kMessage, "pol", name).isEmptyText()) << name.substr(0, 20);
  }
  EXPECT_THAT(engine.calls(), IsEmpty());
  expectCount(hmac_b64_data_deinit, "hmac_b64_data", 0);
}

TEST_F(Hmac, OnlyTheActiveSlotIsWalked) {
  g_encPolicyArray_flag = 4;
  EXPECT_TRUE(keyed(kMessage, "pol").isEmptyText());
  addPolicy(4, "pol", "other key");
  const std::string other = keyed(kMessage, "pol").text();
  EXPECT_EQ(other.size(), 44U);
  EXPECT_NE(other, kHmacSha256);
}

TEST_F(Hmac, EveryPolicyOfTheNameIsProcessedAndTheLastWins) {
  g_numberOfEncPolicy[0] = 0;
  addPolicy(0, "pol", "first key");
  addPolicy(0, "other", "x");
  addPolicy(0, "pol", "Jefe");
  EXPECT_THAT(keyed(kMessage, "pol"), IsText(kHmacSha256));
  EXPECT_EQ(engine.count("kezuHmacBinary"), 2U);
  EXPECT_EQ(engine.count("Q7_GetEncode64"), 1U);
}

TEST_F(Hmac, FailureEndsTheWalkWithTheEmptyText) {
  addPolicy(0, "pol", "second");
  addPolicy(0, "pol", "third");
  engine.answerNext("kezuHmacBinary", {0, 1, 0});
  EXPECT_TRUE(keyed(kMessage, "pol").isEmptyText());
  EXPECT_EQ(engine.count("kezuHmacBinary"), 2U);
  EXPECT_EQ(engine.count("Q7_GetEncode64"), 0U);
  expectCount(hmac_b64_data_deinit, "hmac_b64_data", 1);
}

TEST_F(Hmac, LastOfAFullSlotIsFound) {
  g_numberOfEncPolicy[0] = 0;
  for (int i = 0; i < kMaxPolicies; ++i) {
    addPolicy(0, "p" + std::to_string(i), i == 1999 ? "Jefe" : "x");
  }
  EXPECT_THAT(keyed(kMessage, "p1999"), IsText(kHmacSha256));
}

// An administrator's changes move the table on while a value is worked on: the slot that is read may be rebuilt.
TEST_F(Hmac, SlotThatIsRebuiltUnderTheWalkIsReadAgain) {
  addPolicy(1, "pol", "Jefe");
  bool rebuilt = false;
  engine.onCall("kezuHmacBinary", [&] {
    if (!rebuilt) {
      rebuilt = true;
      setField(g_encPolicyArray[0][1].policyID, "other");
      g_encPolicyArray[0][1].columnKey[0] = 'j';
      g_encPolicyArray_flag = 1;
    }
  });
  EXPECT_THAT(keyed(kMessage, "pol"), IsText(kHmacSha256));
  EXPECT_EQ(engine.count("kezuHmacBinary"), 2U);
  expectCount(hmac_b64_data_deinit, "hmac_b64_data", 1);
}

TEST_F(Hmac, RecordThatBecomesAnotherPolicysGivesTheEmptyText) {
  engine.onCall("kezuHmacBinary", [] { setField(g_encPolicyArray[0][1].policyID, "other"); });
  EXPECT_TRUE(keyed(kMessage, "pol").isEmptyText());
}

TEST_F(Hmac, IsTheEmptyTextWhenTheEncodingFails) {
  engine.answer("Q7_GetEncode64", 1);
  EXPECT_TRUE(keyed(kMessage, "pol").isEmptyText());
}

TEST_F(Hmac, WithMoreArgumentsIsNullWithoutAFlagAndNotCounted) {
  EXPECT_THAT(call(hmac_b64_data, {kMessage, "pol", "SHA1", "SHA1"}), IsNull());
  EXPECT_THAT(engine.calls(), IsEmpty());
  expectCount(hmac_b64_data_deinit, "hmac_b64_data", 0);
}

TEST_F(Hmac, NeedsNoSession) {
  ASSERT_EQ(g_numberOfUserInfo, 0);
  EXPECT_THAT(keyed(kMessage, "pol"), IsText(kHmacSha256));
  EXPECT_EQ(engine.count("Q7_ReloadAllInfoIfChanged"), 0U);
  EXPECT_EQ(engine.count("Q7_ReloadAllInfoIfChanged3"), 0U) << "the reload is made when the statement is prepared";
}

TEST_F(Hmac, TwoResultsOfOneStatementAreAliveAtOnce) {
  const StringResult one = b64("abc");
  const StringResult two = b64("");
  EXPECT_EQ(one.text(), kSha256OfAbc);
  EXPECT_EQ(two.text(), kSha256OfNothing);
}

// --- The counters ---

TEST_F(Hmac, EndOfAStatementReportsTheCallsOfItsFunctionAndStartsAgain) {
  for (int i = 0; i < 3; ++i) {
    raw("a");
  }
  b64("a");
  b64("a", "SHA1");
  keyed("a", "pol");
  expectCount(hash_raw_data_deinit, "hash_raw_data", 3);
  expectCount(hash_b64_data_deinit, "hash_b64_data", 2);
  expectCount(hmac_b64_data_deinit, "hmac_b64_data", 1);
  expectCount(hash_raw_data_deinit, "hash_raw_data", 0);
  expectCount(hash_b64_data_deinit, "hash_b64_data", 0);
  expectCount(hmac_b64_data_deinit, "hmac_b64_data", 0);
}

TEST_F(Hash, EndOfAStatementLooksTheCategoryUpAndLogs) {
  UDF_INIT init = {};
  hash_raw_data_deinit(&init);
  EXPECT_THAT(engine.operations(), ElementsAre("logwCategory", "lw_get_category", "lw_log"));
}

// More threads than a server's connections usually need, one after the other.
TEST_F(Hash, CountsOfAllThreadsAreReportedTogether) {
  constexpr int kThreads = 150;
  for (int i = 0; i < kThreads; ++i) {
    std::thread([this] { raw("abc"); }).join();
  }
  raw("abc");
  b64("abc");
  expectCount(hash_raw_data_deinit, "hash_raw_data", kThreads + 1);
  expectCount(hash_raw_data_deinit, "hash_raw_data", 0);
  expectCount(hash_b64_data_deinit, "hash_b64_data", 1);
}

TEST_F(Hmac, ThreadsMayHashAtOnce) {
  const auto work = [] {
    for (int i = 0; i < 200; ++i) {
      EXPECT_EQ(raw("abc").length, 32U);
      EXPECT_EQ(b64("abc").text(), kSha256OfAbc);
      EXPECT_EQ(keyed(kMessage, "pol").text(), kHmacSha256);
    }
  };
  std::thread first(work);
  std::thread second(work);
  first.join();
  second.join();
  expectCount(hash_raw_data_deinit, "hash_raw_data", 400);
  expectCount(hash_b64_data_deinit, "hash_b64_data", 400);
  expectCount(hmac_b64_data_deinit, "hmac_b64_data", 400);
}

TEST_F(Hmac, ExceptionBecomesTheErrorFlag) {
  engine.onCall("kezuHashBinary", [] { throw std::bad_alloc(); });
  engine.onCall("kezuHmacBinary", [] { throw 1; });
  EXPECT_THAT(raw("a"), IsNullWithError());
  EXPECT_THAT(b64("a"), IsNullWithError());
  EXPECT_THAT(keyed("a", "pol"), IsNullWithError());
}

TEST_F(Hash, ExceptionDoesNotLeaveTheEndOfAStatement) {
  UDF_INIT init = {};
  engine.onCall("lw_log", [] { throw std::bad_alloc(); });
  EXPECT_NO_THROW(hash_raw_data_deinit(&init));
  EXPECT_NO_THROW(hash_b64_data_deinit(&init));
  EXPECT_NO_THROW(hmac_b64_data_deinit(&init));
  engine.onCall("lw_log", nullptr);
}

// --- The inits ---

struct HashInit {
  const char* name;
  InitFunction init;
  std::vector<std::string> without_algorithm;
  bool reloads;
  InitRule rule;
};

const std::vector<HashInit> kInits = {
    {"hash_b64_data",
     hash_b64_data_init,
     {"data"},
     false,
     {"hash_b64_data",
      hash_b64_data_init,
      {"S", "SS"},
      "hash_b64_data('string data') or hash_b64_data('string data','ALGORITHM')"}},
    {"hmac_b64_data",
     hmac_b64_data_init,
     {"data", "policy"},
     true,
     {"hmac_b64_data",
      hmac_b64_data_init,
      {"SS", "SSS"},
      "hash_raw_data_init('string data','policy id', 'algorithm')"}},
};

class HashInitOf : public Hash, public ::testing::WithParamInterface<std::size_t> {
 protected:
  struct Outcome {
    bool refused;
    UDF_INIT init;
    MessageBuffer message;
  };
  const HashInit& function = kInits[GetParam()];

  Outcome run(Arguments& made, UDF_INIT init = serversInit()) const {
    Outcome outcome{false, init, {}};
    outcome.refused = function.init(&outcome.init, made.get(), outcome.message.data()) != 0;
    return outcome;
  }
  Arguments withoutAlgorithm() const {
    Arguments made;
    for (const std::string& text : function.without_algorithm) {
      made.text(text);
    }
    return made;
  }
  Outcome runWith(std::string_view algorithm) const {
    Arguments made = withoutAlgorithm();
    made.text(algorithm);
    return run(made);
  }
};

TEST_P(HashInitOf, WithoutAnAlgorithmSetsNothing) {
  for (const char maybe_null : {'\0', '\1'}) {
    UDF_INIT init = serversInit();
    init.maybe_null = maybe_null;
    Arguments made = withoutAlgorithm();
    const Outcome outcome = run(made, init);
    EXPECT_FALSE(outcome.refused);
    EXPECT_TRUE(outcome.init == init);
    EXPECT_TRUE(outcome.message.isUntouched());
  }
}

TEST_P(HashInitOf, WithoutAnAlgorithmTheArgumentsNeedNoValues) {
  Arguments made = Arguments::ofTypes(function.rule.forms[0]);
  EXPECT_FALSE(run(made).refused);
}

TEST_P(HashInitOf, AlgorithmSetsTheLengthAndThatTheResultMayBeNull) {
  for (const NamedDigest& digest : kDigests) {
    for (const std::string& name : digest.names) {
      UDF_INIT expected = serversInit();
      expected.max_length = digest.capacity;
      expected.maybe_null = 1;
      const Outcome outcome = runWith(name);
      EXPECT_FALSE(outcome.refused) << name;
      EXPECT_TRUE(outcome.init == expected) << name;
      EXPECT_TRUE(outcome.message.isUntouched());
    }
  }
}

TEST_P(HashInitOf, UnknownAlgorithmIsRefusedBeforeTheEngineStarts) {
  inNewProcess([&] {
    for (const std::string& name : kUnknownNames) {
      const Outcome outcome = runWith(name);
      EXPECT_TRUE(outcome.refused) << name.substr(0, 20);
      EXPECT_TRUE(outcome.init == serversInit());
      EXPECT_TRUE(outcome.message.holdsOnly("Incorrect Algorithm Name")) << outcome.message.text();
    }
    EXPECT_THAT(engine.calls(), IsEmpty());
  });
}

TEST_P(HashInitOf, AlgorithmWithoutAValueIsRefused) {
  Arguments made = Arguments::ofTypes(function.rule.forms[1]);
  const Outcome outcome = run(made);
  EXPECT_TRUE(outcome.refused);
  EXPECT_TRUE(outcome.init == serversInit());
  EXPECT_TRUE(outcome.message.holdsOnly("Incorrect Algorithm Name"));
}

TEST_P(HashInitOf, OtherCountsAreRefusedWithTheUsageMessage) {
  expectEveryOtherCountRefused(function.rule);
}

TEST_P(HashInitOf, OtherTypesAreRefusedSilently) {
  expectEveryOtherTypeRefused(function.rule);
}

TEST_P(HashInitOf, ReloadsOnEveryInitOnceTheEngineRunsIfItReadsPolicies) {
  inNewProcess([&] {
    std::vector<std::string> expected = {"kezuInitialize(1, scratch, message)"};
    for (int i = 0; i < 3; ++i) {
      EXPECT_FALSE(runWith("SHA1").refused);
      if (function.reloads) {
        expected.emplace_back("Q7_ReloadAllInfoIfChanged3()");
      }
    }
    EXPECT_EQ(engine.calls(), expected);
  });
}

TEST_P(HashInitOf, ReloadIsNotLookedAt) {
  engine.answer("Q7_ReloadAllInfoIfChanged3", -1);
  EXPECT_FALSE(runWith("SHA1").refused);
  Arguments made = withoutAlgorithm();
  EXPECT_FALSE(run(made).refused);
}

TEST_P(HashInitOf, RefusedStartDoesNotReload) {
  inNewProcess([&] {
    engine.answer("kezuInitialize", 1);
    engine.answerText("kezuInitialize", "reason");
    const Outcome outcome = runWith("SHA1");
    EXPECT_TRUE(outcome.refused);
    EXPECT_TRUE(outcome.message.holdsOnly("reason"));
    EXPECT_EQ(engine.count("Q7_ReloadAllInfoIfChanged3"), 0U);
  });
}

INSTANTIATE_TEST_SUITE_P(EachFunction, HashInitOf, ::testing::Values(0U, 1U),
                         [](const auto& info) { return std::string(kInits[info.param].name); });

TEST_F(Hash, RawInitDoesNotReload) {
  UDF_INIT init = serversInit();
  MessageBuffer message;
  Arguments made{"data"};
  EXPECT_EQ(hash_raw_data_init(&init, made.get(), message.data()), 0);
  EXPECT_EQ(engine.count("Q7_ReloadAllInfoIfChanged3"), 0U);
}

}  // namespace
}  // namespace conformance
