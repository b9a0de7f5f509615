// SPDX-License-Identifier: Apache-2.0
//
// Key handles: their life, and who may use them.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <vector>

#include "cipher/key_slot.h"
#include "engine/policy/policy_key.h"
#include "tests/unit/crypto_fixture.h"

namespace {

using test::Data;
using test::Policy;
using test::Result;

const test::PolicyParameters kParameters = {test::AES256, test::GCM, test::RANDOM};

bool works(const Q7EncPolicyInfo& record, BCipherKey handle) {
  const Data value = test::bytesOf("value");
  const Result encrypted = test::run(Q7_EncryptBinaryExt, value, record, handle, 100);
  if (encrypted.code != 0) {
    EXPECT_EQ(encrypted.length, 0U);
    return false;
  }
  return test::run(Q7_DecryptBinaryExt, encrypted.bytes, record, handle, 100).bytes == value;
}

// What a caller does that presents these bytes.
auto presenting(const Data& bytes) {
  return [bytes](const cipher::Binding& binding) {
    Data bound(cipher::kMaxBindingSize);
    for (std::size_t i = 0; i < bound.size() / 8; ++i) {
      const std::uint64_t word = binding.word(i);
      std::memcpy(bound.data() + 8 * i, &word, sizeof word);
    }
    EXPECT_TRUE(std::all_of(bound.begin() + static_cast<std::ptrdiff_t>(binding.size()), bound.end(),
                            [](unsigned char byte) { return byte == 0; }));
    bound.resize(binding.size());
    return bound == bytes;
  };
}

TEST(KeyHandle, NullIsAccepted) {
  EXPECT_EQ(BCIPHER_DupKey(nullptr), nullptr);
  BCIPHER_WipeKey(nullptr);
  BCIPHER_DelKey(nullptr);
}

TEST(KeyHandle, WipedGivesNothing) {
  const Policy policy(kParameters);
  const auto before = test::encrypt(policy, test::bytesOf("value"));
  ASSERT_TRUE(works(policy.record, policy.handle));
  BCIPHER_WipeKey(policy.handle);
  EXPECT_FALSE(works(policy.record, policy.handle));
  EXPECT_FALSE(test::decrypt(policy, *before));
  EXPECT_EQ(BCIPHER_DupKey(policy.handle), nullptr);
  BCIPHER_WipeKey(policy.handle);
}

TEST(KeyHandle, WipingLeavesNoKeyMaterial) {
  const Policy policy({.blockMode = test::GCM, .columnKey = test::fromHex("c0ffee00c0ffee00c0ffee00c0ffee00")});
  ASSERT_NE(policy.handle->keyMat, nullptr);
  const unsigned char* material = policy.handle->keyMat;
  const std::size_t size = policy.handle->keyMatLen;
  const Data key = test::fromHex("c0ffee00c0ffee00c0ffee00c0ffee00");
  ASSERT_NE(std::search(material, material + size, key.begin(), key.end()), material + size);
  BCIPHER_WipeKey(policy.handle);
  EXPECT_TRUE(std::all_of(material, material + size, [](unsigned char byte) { return byte == 0; }));
  EXPECT_EQ(policy.handle->keyMat, nullptr);
  EXPECT_EQ(policy.handle->keyMatLen, 0U);
}

TEST(KeyHandle, DeletedGivesNothing) {
  Policy policy(kParameters);
  BCIPHER_DelKey(policy.handle);
  EXPECT_FALSE(works(policy.record, policy.handle));
  EXPECT_EQ(BCIPHER_DupKey(policy.handle), nullptr);
  BCIPHER_WipeKey(policy.handle);
  BCIPHER_DelKey(policy.handle);
  EXPECT_FALSE(works(policy.record, policy.handle));
}

TEST(KeyHandle, BelongsToItsPolicyOnly) {
  const Policy one(kParameters);
  const Policy other(kParameters);
  EXPECT_FALSE(works(one.record, other.handle));
  EXPECT_FALSE(works(other.record, one.handle));
  EXPECT_TRUE(works(one.record, one.handle));
  Q7EncPolicyInfo changed = one.record;
  changed.encPos = 1;
  EXPECT_FALSE(works(changed, one.handle));
  changed = one.record;
  changed.columnKey[63] = 1;
  EXPECT_FALSE(works(changed, one.handle));
  changed = one.record;
  changed.policyID[16] = 1;
  EXPECT_FALSE(works(changed, one.handle));
}

TEST(KeyHandle, DuplicateLivesOnItsOwn) {
  const Policy policy(kParameters);
  BCipherKey copy = BCIPHER_DupKey(policy.handle);
  ASSERT_NE(copy, nullptr);
  EXPECT_NE(copy, policy.handle);
  EXPECT_TRUE(works(policy.record, copy));
  BCIPHER_WipeKey(policy.handle);
  EXPECT_TRUE(works(policy.record, copy));
  BCipherKey copyOfCopy = BCIPHER_DupKey(copy);
  BCIPHER_DelKey(copy);
  EXPECT_FALSE(works(policy.record, copy));
  EXPECT_TRUE(works(policy.record, copyOfCopy));
  BCIPHER_DelKey(copyOfCopy);
}

// Handles are made until the memory of a deleted one is used again: the old handle is then a handle of the new policy.
TEST(KeyHandle, ReusedMemoryIsNotTheOldKey) {
  Policy old(kParameters);
  BCIPHER_DelKey(old.handle);
  std::vector<std::unique_ptr<Policy>> policies;
  do {
    policies.push_back(std::make_unique<Policy>(kParameters));
    ASSERT_LT(policies.size(), 1000U);
  } while (policies.back()->handle != old.handle);
  EXPECT_FALSE(works(old.record, old.handle));
  EXPECT_TRUE(works(policies.back()->record, old.handle));
  old.handle = nullptr;  // it is the new policy's
}

TEST(KeyHandle, TwoThousandDuplicatesTakeLittleTime) {
  const Policy policy(kParameters);
  std::vector<BCipherKey> copies(2000);
  const auto start = std::chrono::steady_clock::now();
  for (BCipherKey& copy : copies) copy = BCIPHER_DupKey(policy.handle);
  for (BCipherKey copy : copies) {
    BCIPHER_WipeKey(copy);
    BCIPHER_DelKey(copy);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  EXPECT_EQ(std::count(copies.begin(), copies.end(), nullptr), 0);
}

TEST(KeyHandle, BindingHasAHundredThirtySixBytesAtMost) {
  const cipher::Suite* suite = cipher::findSuite(test::AES256, test::GCM);
  const cipher::KeyMaterial material{};
  EXPECT_EQ(cipher::makeKey(test::AES256, suite, material, Data(137)), nullptr);
  EXPECT_EQ(cipher::makeKey(test::AES256, nullptr, material, Data(1)), nullptr);
  BCipherKey longest = cipher::makeKey(test::AES256, suite, material, Data(136, 7));
  ASSERT_NE(longest, nullptr);
  EXPECT_TRUE(cipher::Session(longest, presenting(Data(136, 7))));
  EXPECT_FALSE(cipher::Session(longest, presenting(Data(135, 7))));
  EXPECT_FALSE(cipher::Session(longest, presenting(Data(137, 7))));
  EXPECT_FALSE(cipher::Session(longest, presenting({})));
  BCIPHER_DelKey(longest);
  BCipherKey unbound = cipher::makeKey(test::AES256, suite, material, {});
  EXPECT_TRUE(cipher::Session(unbound, presenting({})));
  EXPECT_FALSE(cipher::Session(unbound, presenting(Data(1))));
  BCIPHER_DelKey(unbound);
}

// A session's copy of its policy: every field but the column key, whatever lies between the fields.
TEST(KeySession, CopiesThePolicyWithoutItsKey) {
  const Policy policy({.encPos = 3, .encLen = 4, .flag = "0123456789abcdef", .name = "sixteenletters16"});
  Q7EncPolicyInfo record = policy.record;
  reinterpret_cast<unsigned char*>(&record)[sizeof record.policyID] = 0xEE;
  const engine::PolicySession session(policy.handle, record);
  ASSERT_TRUE(session);
  Q7EncPolicyInfo expected = policy.record;
  std::memset(expected.columnKey, 0, sizeof expected.columnKey);
  const Q7EncPolicyInfo& copy = session.policy();
  EXPECT_STREQ(copy.policyID, expected.policyID);
  EXPECT_EQ(std::memcmp(&copy.algID, &expected.algID, sizeof expected - offsetof(Q7EncPolicyInfo, algID)), 0);
}

TEST(KeySession, EndsWithoutAResultWhenTheKeyGoes) {
  const Data binding = test::bytesOf("binding");
  const cipher::Suite* suite = cipher::findSuite(test::AES256, test::GCM);
  for (int how = 0; how < 3; ++how) {
    BCipherKey key = cipher::makeKey(test::AES256, suite, {}, binding);
    cipher::Session session(key, presenting(binding));
    cipher::Session untouched(key, presenting(binding));
    ASSERT_TRUE(session);
    ASSERT_TRUE(untouched);
    EXPECT_TRUE(untouched.finish());
    EXPECT_FALSE(untouched.finish());
    if (how == 0) BCIPHER_WipeKey(key);
    if (how == 1) BCIPHER_DelKey(key);
    if (how == 2) {
      BCIPHER_WipeKey(key);
      EXPECT_FALSE(cipher::Session(key, presenting(binding)));
    }
    EXPECT_FALSE(session.finish());
    BCIPHER_DelKey(key);
  }
}

// The prepared key comes back from the pool: the second session has the first one's.
TEST(KeySession, UsesThePreparedKeyAgain) {
  const Data binding = test::bytesOf("binding");
  BCipherKey key = cipher::makeKey(test::AES256, cipher::findSuite(test::AES256, test::GCM), {}, binding);
  cipher::Session first(key, presenting(binding));
  const cipher::PreparedKey* prepared = &first.key();
  cipher::Session besideIt(key, presenting(binding));
  EXPECT_NE(&besideIt.key(), prepared);
  EXPECT_TRUE(first.finish());
  cipher::Session second(key, presenting(binding));
  EXPECT_EQ(&second.key(), prepared);
  EXPECT_TRUE(second.finish());
  EXPECT_TRUE(besideIt.finish());
  BCIPHER_DelKey(key);
}

TEST(KeySession, MoreAtOnceThanThePoolHolds) {
  const Data binding = test::bytesOf("binding");
  BCipherKey key = cipher::makeKey(test::AES256, cipher::findSuite(test::AES256, test::GCM), {}, binding);
  std::vector<std::unique_ptr<cipher::Session>> sessions;
  for (int i = 0; i < 600; ++i) {
    sessions.push_back(std::make_unique<cipher::Session>(key, presenting(binding)));
    ASSERT_TRUE(*sessions.back());
  }
  for (const auto& session : sessions) EXPECT_TRUE(session->finish());
  BCIPHER_DelKey(key);
}

}  // namespace
