// SPDX-License-Identifier: Apache-2.0
//
// A policy as the text that travels with its key on the key management server.
#include "engine/kms/policy_fields.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using namespace engine::kms;

Q7EncPolicyInfo somePolicy() {
  Q7EncPolicyInfo policy{};
  policy.algID = 2;
  policy.ivMode = 1;
  policy.encPos = 3;
  policy.encLen = 40;
  policy.blockMode = 5;
  policy.strMode = 1;
  policy.encFlagLen = 3;
  std::memcpy(policy.encFlag, "K!\xff", 3);
  return policy;
}

constexpr const char* kText = "v1 algorithm=2 iv=1 position=3 length=40 block=5 encoding=1 flag=4b21ff";

TEST(KmsPolicyFields, TextHoldsEveryFieldButNameAndKey) {
  Q7EncPolicyInfo policy = somePolicy();
  EXPECT_EQ(kText, policyText(policy));
  std::strcpy(policy.policyID, "name");
  std::memcpy(policy.columnKey, "secret", 6);
  policy.keyLength = 6;
  EXPECT_EQ(kText, policyText(policy));
  Q7EncPolicyInfo read{};
  ASSERT_TRUE(readPolicyText(kText, read).ok());
  const Q7EncPolicyInfo expected = somePolicy();
  EXPECT_EQ(0, std::memcmp(&expected, &read, sizeof read));
}

TEST(KmsPolicyFields, LimitsOfEveryField) {
  Q7EncPolicyInfo policy = somePolicy();
  policy.algID = 9;
  policy.encPos = 2147483647;
  policy.encLen = 2147483647;
  policy.blockMode = 11;
  policy.strMode = 2;
  policy.encFlagLen = 16;
  std::memset(policy.encFlag, 0xf0, 16);
  policy.algID = 2;
  const std::string text = policyText(policy);
  EXPECT_EQ(
      "v1 algorithm=2 iv=1 position=2147483647 length=2147483647 block=11 encoding=2 "
      "flag=f0f0f0f0f0f0f0f0f0f0f0f0f0f0f0f0",
      text);
  EXPECT_LT(text.size() + 1, kMaxPolicyText);
  Q7EncPolicyInfo read{};
  ASSERT_TRUE(readPolicyText(text, read).ok());
  EXPECT_EQ(text, policyText(read));

  policy.encFlagLen = 0;
  EXPECT_TRUE(policyText(policy).ends_with(" flag="));
  ASSERT_TRUE(readPolicyText(policyText(policy), read).ok());
  EXPECT_EQ(0, read.encFlagLen);
  for (const int length : {-1, 17}) {
    policy.encFlagLen = length;
    EXPECT_EQ("", policyText(policy));
  }
}

TEST(KmsPolicyFields, EveryOtherTextIsRefusedAndChangesNothing) {
  const std::string text = kText;
  const auto with = [&text](const std::string& part, const std::string& other) {
    std::string changed = text;
    return changed.replace(changed.find(part), part.size(), other);
  };
  const std::string bad[] = {"",
                             " ",
                             "v1",
                             "v2" + text.substr(2),
                             "V1" + text.substr(2),
                             text.substr(3),
                             " " + text,
                             text + " ",
                             text + "\n",
                             text + " more=1",
                             text + " flag=",
                             with("algorithm=2 iv=1", "iv=1 algorithm=2"),
                             with(" iv=1", ""),
                             with(" iv=1", "  iv=1"),
                             with("iv=1", "iv=01"),
                             with("iv=1", "iv=+1"),
                             with("iv=1", "iv=-0"),
                             with("iv=1", "iv="),
                             with("iv=1", "iv= 1"),
                             with("iv=1", "iv=1x"),
                             with("iv=1", "iv=0x1"),
                             with("iv=1", "iv=2"),
                             with("iv=1", "iv"),
                             with("iv=1", "iv:1"),
                             with("iv=1", "ivv=1"),
                             with("algorithm=2", "algorithm=-1"),
                             with("algorithm=2", "algorithm=21"),
                             with("algorithm=2", "algorithm=16"),
                             with("algorithm=2", "algorithm=4294967298"),
                             with("algorithm=2", "algorithm=99999999999999999999"),
                             with("position=3", "position=-1"),
                             with("position=3", "position=2147483648"),
                             with("length=40", "length=2147483648"),
                             with("block=5", "block=12"),
                             with("block=5", "block=0"),
                             with("encoding=1", "encoding=3"),
                             with("4b21ff", "4b21f"),
                             with("4b21ff", "4B21FF"),
                             with("4b21ff", "4b21fg"),
                             with("4b21ff", std::string(34, '0')),
                             text + std::string(kMaxPolicyText, ' '),
                             text.substr(0, 20) + std::string(1, '\0') + text.substr(20)};
  for (const std::string& one : bad) {
    Q7EncPolicyInfo policy = somePolicy();
    policy.algID = 12;
    const Q7EncPolicyInfo before = policy;
    const auto status = readPolicyText(one, policy);
    EXPECT_FALSE(status.ok()) << one;
    EXPECT_TRUE(status.ok() || !status.error().text.empty());
    EXPECT_EQ(0, std::memcmp(&before, &policy, sizeof policy)) << one;
  }
  Q7EncPolicyInfo policy{};
  EXPECT_EQ("'position' is out of range", readPolicyText(with("position=3", "position=-1"), policy).error().text);
  EXPECT_EQ("'iv' is missing", readPolicyText(with(" iv=1", ""), policy).error().text);
}

// What Q7_AddPolicyInfo takes, and nothing else, for every algorithm, block mode and IV type.
TEST(KmsPolicyFields, CombinationsAreThoseOfAnAddedPolicy) {
  int taken = 0;
  for (int algorithm = -1; algorithm <= kAlgorithmCount; ++algorithm) {
    for (int block = -1; block <= kBlockModeCount; ++block) {
      for (int iv = -1; iv <= kIvTypeCount; ++iv) {
        Q7EncPolicyInfo policy = somePolicy();
        policy.algID = algorithm;
        policy.blockMode = block;
        policy.ivMode = iv;
        Q7EncPolicyInfo added{};
        BCipherKey key = nullptr;
        const bool adds =
            Q7_AddPolicyInfo(added, &key, "p", algorithm, iv, nullptr, 0xFFFFFFFF, 3, 40, block, 1, "K!\xff") != 0;
        BCIPHER_WipeKey(key);
        BCIPHER_DelKey(key);
        Q7EncPolicyInfo read{};
        EXPECT_EQ(adds, readPolicyText(policyText(policy), read).ok()) << policyText(policy);
        taken += adds;
      }
    }
  }
  EXPECT_GT(taken, 50);
}

TEST(KmsPolicyFields, Names) {
  Q7EncPolicyInfo policy{};
  for (const char* name : {"", "a", "Zz09", "Sixteen9Letters1"}) {
    ASSERT_TRUE(setPolicyName(name, policy).ok()) << name;
    EXPECT_STREQ(name, policy.policyID);
  }
  for (const std::string& name : {std::string("SeventeenLetters1"), std::string("a_b"), std::string("a b"),
                                  std::string("a\0b", 3), std::string("\xc3\xa4"), std::string(1000, 'a')}) {
    EXPECT_FALSE(setPolicyName(name, policy).ok()) << name;
    EXPECT_STREQ("Sixteen9Letters1", policy.policyID);
  }
}

TEST(KmsPolicyFields, Keys) {
  Q7EncPolicyInfo policy{};
  const std::vector<unsigned char> bytes(65, 7);
  const std::span<const unsigned char> all(bytes);
  EXPECT_FALSE(setPolicyKey(all.first(0), policy).ok());
  EXPECT_FALSE(setPolicyKey(all, policy).ok());
  EXPECT_EQ(0, policy.keyLength);
  ASSERT_TRUE(setPolicyKey(all.first(64), policy).ok());
  EXPECT_EQ(64, policy.keyLength);
  ASSERT_TRUE(setPolicyKey(all.first(1), policy).ok());
  EXPECT_EQ(1, policy.keyLength);
  EXPECT_EQ(7, policy.columnKey[0]);
  EXPECT_EQ(0, policy.columnKey[1]);
}

}  // namespace
