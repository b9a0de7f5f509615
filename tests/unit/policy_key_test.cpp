// SPDX-License-Identifier: Apache-2.0
//
// Which parameters make a policy.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>

#include "engine/policy/policy_key.h"
#include "tests/unit/crypto_fixture.h"

namespace {

using test::Data;
using test::Policy;
using test::PolicyParameters;

// A letter per block mode, in the order of the codes: ECB CBC CFB OFB CTR GCM CCM SIV CBC-HMAC CFB8 CTR-HMAC OCB.
//   b  both IV types
//   d  DETERMINISTIC only
//   -  refused
constexpr const char* kAccepted[] = {
    "dbbbbbbbbbbb",  // AES128
    "dbbbbbbbbbbb",  // AES192
    "dbbbbbbbbbbb",  // AES256
    "dbbbbbb-bbb-",  // ARIA128
    "dbbbbbb-bbb-",  // ARIA192
    "dbbbbbb-bbb-",  // ARIA256
    "dbbb----b---",  // SEED128
    "dbbbb---bbb-",  // CAMELLIA128
    "dbbbb---bbb-",  // CAMELLIA192
    "dbbbb---bbb-",  // CAMELLIA256
    "dbbbb---b-b-",  // SM4
    "db------b---",  // TDES168
    "bbbbbbbbbbbb",  // CHACHA20
    "dddddddddddd",  // HMAC-SHA256
    "dddddddddddd",  // HMAC-SHA512
    "dddddddddddd",  // HMAC-HAS160
    "------------",  // reserved
    "------------",  // reserved
    "------------",  // reserved
    "dbbbbbbbbbbb",  // AES128-NI
    "dbbbbbbbbbbb",  // AES256-NI
};

// Audit events and kezu-admin show the names; stored policies hold the codes.
TEST(PolicyKey, CodesHaveTheseNames) {
  const std::vector<std::string> algorithms = {
      "AES128",      "AES192",      "AES256", "ARIA128", "ARIA192",  "ARIA256",     "SEED128",     "CAMELLIA128",
      "CAMELLIA192", "CAMELLIA256", "SM4",    "TDES168", "CHACHA20", "HMAC-SHA256", "HMAC-SHA512", "HMAC-HAS160"};
  const std::vector<std::string> modes = {"ECB", "CBC", "CFB",      "OFB",  "CTR",      "GCM",
                                          "CCM", "SIV", "CBC-HMAC", "CFB8", "CTR-HMAC", "OCB"};
  for (std::size_t code = 0; code < algorithms.size(); ++code) {
    EXPECT_EQ(Q7EncryptionAlgorithmStr[code], algorithms[code]);
  }
  EXPECT_STREQ(Q7EncryptionAlgorithmStr[19], "AES128-NI");
  EXPECT_STREQ(Q7EncryptionAlgorithmStr[20], "AES256-NI");
  for (std::size_t code = 0; code < modes.size(); ++code) EXPECT_EQ(Q7EncryptionBlockModeTypeStr[code], modes[code]);
  EXPECT_STREQ(Q7EncryptionIVTypeStr[0], "DETERMINISTIC");
  EXPECT_STREQ(Q7EncryptionIVTypeStr[1], "RANDOM");
  EXPECT_STREQ(Q7EncryptionStrModeStr[0], "RAW");
  EXPECT_STREQ(Q7EncryptionStrModeStr[1], "BASE64");
  EXPECT_STREQ(Q7EncryptionStrModeStr[2], "HEX");
}

TEST(PolicyKey, AcceptsTheseCombinations) {
  if (Check_CPU_support_AES() == 0) GTEST_LOG_(INFO) << "no AES instructions: codes 19 and 20 are refused";
  for (int algorithm = 0; algorithm < kAlgorithmCount; ++algorithm) {
    for (int mode = 0; mode < kBlockModeCount; ++mode) {
      const char rule = algorithm >= test::AES128_NI && Check_CPU_support_AES() == 0 ? '-' : kAccepted[algorithm][mode];
      for (int encoding = 0; encoding < kStrModeCount; ++encoding) {
        const Policy deterministic({algorithm, mode, test::DETERMINISTIC, encoding});
        const Policy random({algorithm, mode, test::RANDOM, encoding});
        EXPECT_EQ(static_cast<bool>(deterministic), rule == 'b' || rule == 'd') << algorithm << ", " << mode;
        EXPECT_EQ(static_cast<bool>(random), rule == 'b') << algorithm << ", " << mode;
      }
    }
  }
}

TEST(PolicyKey, RefusesCodesOutOfRange) {
  for (const int code : {-1, -2147483647 - 1, 2147483647}) {
    EXPECT_FALSE(Policy({.algorithm = code}));
    EXPECT_FALSE(Policy({.blockMode = code}));
    EXPECT_FALSE(Policy({.ivMode = code}));
    EXPECT_FALSE(Policy({.strMode = code}));
    EXPECT_FALSE(Policy({.algorithm = test::CHACHA20, .blockMode = code}));
  }
  EXPECT_FALSE(Policy({.algorithm = kAlgorithmCount}));
  EXPECT_FALSE(Policy({.blockMode = kBlockModeCount}));
  EXPECT_FALSE(Policy({.algorithm = test::HMAC_SHA256, .blockMode = kBlockModeCount, .ivMode = test::DETERMINISTIC}));
  EXPECT_FALSE(Policy({.ivMode = kIvTypeCount}));
  EXPECT_FALSE(Policy({.strMode = kStrModeCount}));
}

TEST(PolicyKey, FillsTheRecord) {
  const Policy policy({test::ARIA192, test::CTR_HMAC, test::RANDOM, test::HEX, 3, 4, "{flag}", {}, "Policy0123456789"});
  ASSERT_TRUE(policy);
  EXPECT_STREQ(policy.record.policyID, "Policy0123456789");
  EXPECT_EQ(policy.record.algID, 4);
  EXPECT_EQ(policy.record.blockMode, 10);
  EXPECT_EQ(policy.record.ivMode, 1);
  EXPECT_EQ(policy.record.strMode, 2);
  EXPECT_EQ(policy.record.encPos, 3);
  EXPECT_EQ(policy.record.encLen, 4);
  EXPECT_EQ(policy.record.encFlagLen, 6);
  EXPECT_EQ(std::memcmp(policy.record.encFlag, "{flag}", 6), 0);
  EXPECT_EQ(policy.record.keyLength, 32);
  EXPECT_NE(policy.handle, nullptr);
  EXPECT_EQ(engine::policyFault(policy.record), nullptr);
}

TEST(PolicyKey, NameHasSixteenBytesAtMost) {
  EXPECT_TRUE(Policy({.name = ""}));
  EXPECT_TRUE(Policy({.name = "x"}));
  EXPECT_TRUE(Policy({.name = std::string(16, 'x')}));
  EXPECT_FALSE(Policy({.name = std::string(17, 'x')}));
}

TEST(PolicyKey, FlagHasSixteenBytesAtMost) {
  const Policy longest({.flag = std::string(16, 'f')});
  ASSERT_TRUE(longest);
  EXPECT_EQ(longest.record.encFlagLen, 16);
  EXPECT_FALSE(Policy({.flag = std::string(17, 'f')}));
}

TEST(PolicyKey, RangeIsNotNegative) {
  EXPECT_FALSE(Policy({.encPos = -1}));
  EXPECT_FALSE(Policy({.encLen = -1}));
  EXPECT_TRUE(Policy({.encPos = 2147483647, .encLen = 2147483647}));
}

// Calls with what the fixture does not pass.
struct RawCall {
  Q7EncPolicyInfo record;
  BCipherKey key = nullptr;
  int result = 0;

  RawCall(const char* name, unsigned char* keyBytes, unsigned int keyLength, const char* flag) {
    std::memset(&record, 0x5a, sizeof record);
    result = Q7_AddPolicyInfo(record, &key, name, test::AES256, test::RANDOM, keyBytes, keyLength, 0, 0, test::GCM,
                              test::RAW, flag);
  }
  ~RawCall() { BCIPHER_DelKey(key); }

  bool untouched() const {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&record);
    return std::all_of(bytes, bytes + sizeof record, [](unsigned char byte) { return byte == 0x5a; });
  }
};

TEST(PolicyKey, KeyBytesAreOneToSixtyFourOrDrawn) {
  unsigned char bytes[65] = {1, 2, 3};
  for (const unsigned int length : {1U, 32U, 63U, 64U}) {
    const RawCall call("p", bytes, length, nullptr);
    EXPECT_NE(call.result, 0) << length;
    EXPECT_EQ(call.record.keyLength, static_cast<int>(length));
    EXPECT_EQ(std::memcmp(call.record.columnKey, bytes, length), 0);
    EXPECT_EQ(call.record.encFlagLen, 0);
  }
  for (const unsigned int length : {0U, 65U, 0xFFFFFFFFU}) {
    const RawCall call("p", bytes, length, nullptr);
    EXPECT_EQ(call.result, 0) << length;
    EXPECT_EQ(call.key, nullptr);
    EXPECT_TRUE(call.untouched());
  }
  for (const unsigned int length : {0U, 1U, 32U, 0xFFFFFFFEU})
    EXPECT_EQ(RawCall("p", nullptr, length, nullptr).result, 0);
  const RawCall first("p", nullptr, 0xFFFFFFFF, "");
  const RawCall second("p", nullptr, 0xFFFFFFFF, "");
  ASSERT_NE(first.result, 0);
  EXPECT_EQ(first.record.keyLength, 32);
  EXPECT_NE(std::memcmp(first.record.columnKey, second.record.columnKey, 32), 0);
}

TEST(PolicyKey, RefusesNullNameAndNullHandlePlace) {
  EXPECT_EQ(RawCall(nullptr, nullptr, 0xFFFFFFFF, nullptr).result, 0);
  Q7EncPolicyInfo record;
  EXPECT_EQ(Q7_AddPolicyInfo(record, nullptr, "p", test::AES256, test::RANDOM, nullptr, 0xFFFFFFFF, 0, 0, test::GCM,
                             test::RAW, ""),
            0);
}

TEST(PolicyKey, FailureLeavesTheRecordAlone) {
  Q7EncPolicyInfo record;
  std::memset(&record, 0x5a, sizeof record);
  const Q7EncPolicyInfo before = record;
  auto* key = reinterpret_cast<BCipherKey>(&record);
  EXPECT_EQ(Q7_AddPolicyInfo(record, &key, "p", test::AES256, test::RANDOM, nullptr, 0xFFFFFFFF, 0, 0, test::ECB,
                             test::RAW, ""),
            0);
  EXPECT_EQ(std::memcmp(&record, &before, sizeof record), 0);
  EXPECT_EQ(key, nullptr);
}

// Each field of a good record spoilt in turn.
TEST(PolicyKey, FaultChecksEveryField) {
  const Policy good({.blockMode = test::GCM});
  ASSERT_TRUE(good);
  const auto faultOf = [&good](auto spoil) {
    Q7EncPolicyInfo record = good.record;
    spoil(record);
    EXPECT_EQ(engine::createPolicyKey(record), nullptr);
    return engine::policyFault(record);
  };
  EXPECT_NE(faultOf([](auto& r) { std::memset(r.policyID, 'x', sizeof r.policyID); }), nullptr);
  EXPECT_NE(faultOf([](auto& r) { r.algID = 16; }), nullptr);
  EXPECT_NE(faultOf([](auto& r) { r.algID = 21; }), nullptr);
  EXPECT_NE(faultOf([](auto& r) { r.ivMode = 2; }), nullptr);
  EXPECT_NE(faultOf([](auto& r) { r.blockMode = 12; }), nullptr);
  EXPECT_NE(faultOf([](auto& r) { r.blockMode = test::ECB; }), nullptr);
  EXPECT_NE(faultOf([](auto& r) { r.strMode = 3; }), nullptr);
  EXPECT_NE(faultOf([](auto& r) { r.keyLength = 0; }), nullptr);
  EXPECT_NE(faultOf([](auto& r) { r.keyLength = 65; }), nullptr);
  EXPECT_NE(faultOf([](auto& r) { r.keyLength = -1; }), nullptr);
  EXPECT_NE(faultOf([](auto& r) { r.encPos = -1; }), nullptr);
  EXPECT_NE(faultOf([](auto& r) { r.encLen = -1; }), nullptr);
  EXPECT_NE(faultOf([](auto& r) { r.encFlagLen = 17; }), nullptr);
  EXPECT_NE(faultOf([](auto& r) { r.encFlagLen = -1; }), nullptr);
}

TEST(PolicyKey, SameRecordGivesTheSameKey) {
  const Policy policy({.blockMode = test::GCM});
  BCipherKey again = engine::createPolicyKey(policy.record);
  ASSERT_NE(again, nullptr);
  const Data value = test::bytesOf("value");
  const auto encrypted = test::encrypt(policy, value);
  ASSERT_TRUE(encrypted);
  const test::Result result = test::run(Q7_DecryptBinaryExt, *encrypted, policy.record, again, 100);
  EXPECT_EQ(result.code, 0);
  EXPECT_EQ(result.bytes, value);
  BCIPHER_DelKey(again);
}

// A copy of a record need not carry the bytes between its fields.
TEST(PolicyKey, BytesBetweenTheFieldsDoNotMatter) {
  const Policy policy({.blockMode = test::GCM});
  Q7EncPolicyInfo record = policy.record;
  auto* bytes = reinterpret_cast<unsigned char*>(&record);
  std::memset(bytes + sizeof record.policyID, 0x5a, offsetof(Q7EncPolicyInfo, algID) - sizeof record.policyID);
  unsigned char out[100];
  unsigned int size = sizeof out;
  const unsigned char value[] = {'v'};
  EXPECT_EQ(Q7_EncryptBinaryExt(out, &size, value, sizeof value, &record, policy.handle), 0);
  EXPECT_EQ(size, 1U + 12 + 1 + 16);
}

}  // namespace
