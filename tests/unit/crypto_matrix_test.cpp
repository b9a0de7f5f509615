// SPDX-License-Identifier: Apache-2.0
//
// Every accepted combination of algorithm, block mode, IV type, text encoding and length, whole and partial: there and
// back, in the size that was promised, with exactly the room that is needed.
#include <gtest/gtest.h>

#include <cstring>
#include <set>

#include "kezu/engine.h"
#include "tests/unit/crypto_fixture.h"

namespace {

using test::Data;
using test::Policy;
using test::PolicyParameters;
using test::Result;

constexpr std::size_t kLengths[] = {0, 1, 15, 16, 17, 31, 32, 33, 255, 256, 4000};

bool isOneWay(int algorithm) {
  return algorithm >= test::HMAC_SHA256 && algorithm <= test::HMAC_HAS160;
}

// Puts a policy and its key into the active slot of the table for as long as it lives.
class Published {
 public:
  explicit Published(const Policy& policy) {
    g_encPolicyArray[0][0] = policy.record;
    g_makeKeyArray[0][0] = policy.handle;
    g_encPolicyArray_flag = 0;
    g_numberOfEncPolicy[0] = 1;
  }
  Published(const Published&) = delete;
  Published& operator=(const Published&) = delete;
  ~Published() {
    g_numberOfEncPolicy[0] = 0;
    g_makeKeyArray[0][0] = nullptr;
    std::memset(&g_encPolicyArray[0][0], 0, sizeof g_encPolicyArray[0][0]);
  }
};

int promisedSize(const Policy& policy, std::size_t size) {
  const Published published(policy);
  int promised = -1;
  char name[17];
  std::memcpy(name, policy.record.policyID, sizeof name);
  EXPECT_EQ(kezuGetCipherSize(static_cast<int>(size), name, &promised, nullptr), 0);
  return promised;
}

template <typename Check>
int forEveryPolicy(PolicyParameters parameters, Check check) {
  int accepted = 0;
  for (parameters.algorithm = 0; parameters.algorithm < kAlgorithmCount; ++parameters.algorithm) {
    for (parameters.blockMode = 0; parameters.blockMode < kBlockModeCount; ++parameters.blockMode) {
      for (parameters.ivMode = 0; parameters.ivMode < kIvTypeCount; ++parameters.ivMode) {
        for (parameters.strMode = 0; parameters.strMode < kStrModeCount; ++parameters.strMode) {
          const Policy policy(parameters);
          if (!policy) continue;
          ++accepted;
          SCOPED_TRACE(testing::Message() << "algorithm " << parameters.algorithm << ", mode " << parameters.blockMode
                                          << ", IV " << parameters.ivMode << ", encoding " << parameters.strMode);
          check(policy);
          if (testing::Test::HasFatalFailure()) return accepted;
        }
      }
    }
  }
  return accepted;
}

void checkRoundTrip(const Policy& policy, const Data& value) {
  const auto promised = static_cast<unsigned int>(promisedSize(policy, value.size()));
  const Result encrypted = test::run(Q7_EncryptBinaryExt, value, policy.record, policy.handle, promised);
  ASSERT_EQ(encrypted.code, 0) << value.size();
  ASSERT_EQ(encrypted.length, promised) << value.size();
  const auto size = static_cast<unsigned int>(value.size());
  const Result back = test::run(Q7_DecryptBinaryExt, encrypted.bytes, policy.record, policy.handle, size);
  const bool storedAsIs = encrypted.bytes == value;
  if (isOneWay(policy.record.algID) && !storedAsIs) {
    EXPECT_NE(back.code, 0);
    EXPECT_EQ(back.length, 0U);
    return;
  }
  ASSERT_EQ(back.code, 0) << value.size();
  ASSERT_EQ(test::toHex(back.bytes), test::toHex(value));
}

// 3 text encodings for each of: 5 AES algorithms with 12 + 11, 3 ARIA with 10 + 9, SEED with 5 + 4, 3 Camellia with 8 +
// 7, SM4 with 7 + 6, TDES with 3 + 2, ChaCha20 with 12 + 12, and 3 one-way algorithms with 12 combinations of block
// mode and IV type.
constexpr int kCombinations = 3 * (5 * 23 + 3 * 19 + 9 + 3 * 15 + 13 + 5 + 24 + 3 * 12);

TEST(CryptoMatrix, WholeValues) {
  const int accepted = forEveryPolicy({}, [](const Policy& policy) {
    for (const std::size_t length : kLengths) checkRoundTrip(policy, test::patternOf(length));
  });
  EXPECT_EQ(accepted, Check_CPU_support_AES() != 0 ? kCombinations : kCombinations - 3 * 2 * 23);
}

TEST(CryptoMatrix, WholeValuesBehindAFlag) {
  forEveryPolicy({.flag = "0123456789abcdef"}, [](const Policy& policy) {
    for (const std::size_t length : {0U, 16U, 33U}) checkRoundTrip(policy, test::patternOf(length));
  });
}

TEST(CryptoMatrix, PartialValues) {
  const std::pair<int, int> ranges[] = {{0, 1}, {0, 16}, {1, 0}, {5, 0}, {3, 4}, {16, 16}};
  for (const auto& [position, length] : ranges) {
    SCOPED_TRACE(testing::Message() << "position " << position << ", length " << length);
    forEveryPolicy({.encPos = position, .encLen = length, .flag = "#"}, [](const Policy& policy) {
      for (const std::size_t size :
           {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U, 8U, 15U, 16U, 17U, 31U, 32U, 33U, 255U, 256U, 4000U}) {
        checkRoundTrip(policy, test::patternOf(size));
      }
    });
  }
}

void checkCapacities(test::Operation operation, const Data& in, const Policy& policy, unsigned int exact) {
  for (const unsigned int capacity : {0U, exact == 0 ? 0 : exact - 1, exact}) {
    const Result result = test::run(operation, in, policy.record, policy.handle, capacity);
    if (capacity == exact) {
      EXPECT_EQ(result.code, 0);
      EXPECT_EQ(result.length, exact);
    } else {
      EXPECT_NE(result.code, 0);
      EXPECT_GT(result.length, capacity);
      EXPECT_LE(result.length, exact + 16);
      EXPECT_GE(result.length, exact);
    }
  }
}

TEST(CryptoMatrix, RoomOfEachSize) {
  for (const auto& [position, length] : {std::pair{0, 0}, std::pair{2, 3}, std::pair{2, 0}}) {
    forEveryPolicy({.encPos = position, .encLen = length, .flag = "f"}, [](const Policy& policy) {
      for (const std::size_t size : {0U, 1U, 2U, 3U, 16U, 20U}) {
        const Data value = test::patternOf(size);
        const auto encrypted = test::encrypt(policy, value);
        ASSERT_TRUE(encrypted);
        checkCapacities(Q7_EncryptBinaryExt, value, policy, static_cast<unsigned int>(encrypted->size()));
        if (isOneWay(policy.record.algID)) continue;
        checkCapacities(Q7_DecryptBinaryExt, *encrypted, policy, static_cast<unsigned int>(size));
      }
    });
  }
}

TEST(CryptoMatrix, DeterministicValuesAreEqualAndRandomOnesAreNot) {
  forEveryPolicy({}, [](const Policy& policy) {
    for (const std::size_t size : {0U, 5U, 40U}) {
      std::set<Data> values;
      for (int i = 0; i < 20; ++i) values.insert(*test::encrypt(policy, test::patternOf(size)));
      EXPECT_EQ(values.size(), policy.record.ivMode == test::RANDOM ? 20U : 1U);
    }
    EXPECT_NE(test::encrypt(policy, test::bytesOf("value 1")), test::encrypt(policy, test::bytesOf("value 2")));
  });
}

TEST(CryptoMatrix, OtherKeyBytesGiveOtherValues) {
  forEveryPolicy({.columnKey = test::patternOf(32)}, [](const Policy& policy) {
    PolicyParameters other{policy.record.algID, policy.record.blockMode, policy.record.ivMode, policy.record.strMode};
    other.columnKey = test::patternOf(31);
    EXPECT_NE(test::encrypt(policy, test::patternOf(20)), test::encrypt(Policy(other), test::patternOf(20)));
  });
}

TEST(CryptoMatrix, OneWayValuesAreTheKeyedDigest) {
  for (const auto& [algorithm, digest] :
       {std::pair{test::HMAC_SHA256, kHashSha256}, std::pair{test::HMAC_SHA512, kHashSha512},
        std::pair{test::HMAC_HAS160, kHashHas160}}) {
    Policy policy({.algorithm = algorithm, .ivMode = test::DETERMINISTIC});
    unsigned char code[64];
    unsigned int size = 0;
    const Data value = test::bytesOf("value");
    ASSERT_EQ(kezuHmacBinary(code, &size, value.data(), 5, digest, &policy.record), 0);
    EXPECT_EQ(test::encrypt(policy, value), test::operator+(Data{0x81}, Data(code, code + size)));
  }
}

}  // namespace
