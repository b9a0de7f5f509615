// SPDX-License-Identifier: Apache-2.0
//
// The whole way from a column key to an encrypted value, compared with a second computation that shares no code with
// the first.
#include <gtest/gtest.h>

#include "tests/unit/crypto_fixture.h"
#include "tests/unit/independent_cipher.h"

namespace {

using test::Data;
using test::Policy;

void compare(const Policy& policy, const Data& value) {
  const auto encrypted = test::encrypt(policy, value);
  ASSERT_TRUE(encrypted);
  const test::independent::Parts parts = test::independent::split(policy.record, value);
  const auto begin = encrypted->begin() + static_cast<std::ptrdiff_t>(parts.before.size());
  const auto end = encrypted->end() - static_cast<std::ptrdiff_t>(parts.after.size());
  EXPECT_EQ(Data(encrypted->begin(), begin), parts.before);
  EXPECT_EQ(Data(end, encrypted->end()), parts.after);
  const auto ivSize = static_cast<std::ptrdiff_t>(test::independent::ivSizeOf(policy.record));
  ASSERT_GT(end - begin, ivSize);
  const Data expected = test::independent::rawOf(policy.record, parts, Data(begin + 1, begin + 1 + ivSize));
  EXPECT_EQ(test::toHex(Data(begin, end)), test::toHex(expected)) << "size " << value.size();
}

TEST(CryptoChain, ValuesAreWhatTheDescriptionGives) {
  int compared = 0;
  for (int algorithm = 0; algorithm < kAlgorithmCount; ++algorithm) {
    if (algorithm >= test::HMAC_SHA256 && algorithm < test::AES128_NI) continue;
    for (int mode = 0; mode < kBlockModeCount; ++mode) {
      for (int iv = 0; iv < kIvTypeCount; ++iv) {
        for (const auto& [position, length] : {std::pair{0, 0}, std::pair{0, 5}, std::pair{3, 5}, std::pair{2, 0}}) {
          const Policy policy({algorithm, mode, iv, test::RAW, position, length});
          if (!policy) continue;
          SCOPED_TRACE(testing::Message() << "algorithm " << algorithm << ", mode " << mode << ", IV " << iv
                                          << ", position " << position << ", length " << length);
          for (const std::size_t size : {0U, 1U, 4U, 15U, 16U, 17U, 33U, 116U, 117U, 255U, 256U, 257U, 272U, 300U}) {
            const bool storedAsIs = (position != 0 || length != 0) && size <= static_cast<std::size_t>(position);
            if (storedAsIs) continue;
            compare(policy, test::patternOf(size));
            ++compared;
          }
        }
      }
    }
  }
  EXPECT_GT(compared, 5000);
}

// A context goes on from value to value, also from one that did not decrypt.
TEST(CryptoChain, ValuesAfterOneThatFailsAreRight) {
  for (const auto& [algorithm, mode] : {std::pair{+test::AES256, +test::CBC}, std::pair{+test::AES256, +test::ECB},
                                        std::pair{+test::TDES168, +test::CBC}}) {
    const Policy policy({algorithm, mode, test::DETERMINISTIC});
    const Data value = test::patternOf(40);
    const Data encrypted = *test::encrypt(policy, value);
    for (std::size_t i = 1; i < encrypted.size(); i += 5) {
      Data damaged = encrypted;
      damaged[i] = static_cast<unsigned char>(damaged[i] ^ 0x80);
      EXPECT_TRUE(mode == test::ECB || !test::decrypt(policy, damaged)) << i;
      test::decrypt(policy, damaged);
      EXPECT_EQ(test::decrypt(policy, encrypted), value) << i;
      compare(policy, value);
    }
  }
}

// Of padding nothing stays behind the clear text.
TEST(CryptoChain, PaddingIsTakenOut) {
  const Policy policy({.algorithm = test::AES256, .blockMode = test::CBC});
  for (const std::size_t size : {0U, 1U, 15U, 16U, 17U, 300U}) {
    const Data encrypted = *test::encrypt(policy, test::patternOf(size));
    Data out(512, 0xEE);
    unsigned int length = static_cast<unsigned int>(out.size());
    Q7EncPolicyInfo record = policy.record;
    ASSERT_EQ(Q7_DecryptBinaryExt(out.data(), &length, encrypted.data(), static_cast<unsigned int>(encrypted.size()),
                                  &record, policy.handle),
              0);
    EXPECT_TRUE(std::all_of(out.begin() + length, out.end(), [](auto byte) { return byte == 0 || byte == 0xEE; }));
  }
}

TEST(CryptoChain, ColumnKeysOfEveryLength) {
  for (const std::size_t size : {1U, 31U, 32U, 33U, 64U}) {
    const Policy policy({.blockMode = test::CBC_HMAC, .columnKey = test::patternOf(size)});
    compare(policy, test::bytesOf("value"));
  }
}

TEST(CryptoChain, OneWayValuesAndHmacUseTheHmacKey) {
  Policy policy({.algorithm = test::HMAC_SHA256, .ivMode = test::DETERMINISTIC, .columnKey = test::patternOf(32)});
  const Data key = test::independent::hkdf(test::patternOf(32), "orvanta hmac key", 32);
  const Data expected = test::independent::hmacSha256(key, test::bytesOf("value"));
  EXPECT_EQ(test::encrypt(policy, test::bytesOf("value")), test::operator+(Data{0x81}, expected));
  Data code(64);
  unsigned int size = 0;
  ASSERT_EQ(kezuHmacBinary(code.data(), &size, reinterpret_cast<const unsigned char*>("value"), 5, kHashSha256,
                           &policy.record),
            0);
  code.resize(size);
  EXPECT_EQ(code, expected);
}

TEST(CryptoChain, OneWayPartsAreReplacedByTheirDigest) {
  const Policy policy({test::HMAC_SHA256, test::ECB, test::DETERMINISTIC, test::HEX, 2, 3, "#", test::patternOf(32)});
  const Data key = test::independent::hkdf(test::patternOf(32), "orvanta hmac key", 32);
  const std::string digest = test::toHex(test::independent::hmacSha256(key, test::bytesOf("cde")));
  EXPECT_EQ(test::encrypt(policy, test::bytesOf("abcdefg")), test::bytesOf("ab#81" + digest + "fg"));
}

}  // namespace
