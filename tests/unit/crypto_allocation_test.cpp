// SPDX-License-Identifier: Apache-2.0
//
// A row allocates nothing. Counted at malloc itself, which the sanitizers replace with their own; under them there is
// nothing to count here.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

#include <gtest/gtest.h>

#include <cstddef>

#include "kezu/engine.h"
#include "tests/unit/crypto_fixture.h"

extern "C" {
void* __libc_malloc(std::size_t size);                     // NOLINT(bugprone-reserved-identifier): glibc's name
void* __libc_calloc(std::size_t count, std::size_t size);  // NOLINT(bugprone-reserved-identifier): glibc's name
void* __libc_realloc(void* memory, std::size_t size);      // NOLINT(bugprone-reserved-identifier): glibc's name
}

namespace {

thread_local unsigned long allocations = 0;

}  // namespace

extern "C" {

void* malloc(std::size_t size) noexcept {
  ++allocations;
  return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) noexcept {
  ++allocations;
  return __libc_calloc(count, size);
}
void* realloc(void* memory, std::size_t size) noexcept {
  ++allocations;
  return __libc_realloc(memory, size);
}

}  // extern "C"

namespace {

constexpr unsigned char kValue[400] = "some value";
constexpr unsigned int kShort = 11;
constexpr unsigned int kLong = sizeof kValue;  // goes another way through some ciphers

template <typename Row>
unsigned long allocationsOf(Row row) {
  for (int i = 0; i < 3; ++i) row();
  const unsigned long before = allocations;
  for (int i = 0; i < 300; ++i) row();  // more than a block of random vectors holds
  return allocations - before;
}

void thereAndBack(test::Policy& policy, unsigned int valueSize) {
  unsigned char encrypted[1000];
  unsigned char clear[1000];
  unsigned int size = sizeof encrypted;
  Q7_EncryptBinaryExt(encrypted, &size, kValue, valueSize, &policy.record, policy.handle);
  const unsigned int encryptedSize = size;
  size = sizeof clear;
  Q7_DecryptBinaryExt(clear, &size, encrypted, encryptedSize, &policy.record, policy.handle);
}

TEST(CryptoAllocation, ThereIsNonePerValue) {
  ASSERT_EQ(allocationsOf([] { test::Data(100); }), 300U);  // the counter counts
  for (int algorithm = 0; algorithm < kAlgorithmCount; ++algorithm) {
    for (int mode = 0; mode < kBlockModeCount; ++mode) {
      if (mode == test::SIV && algorithm != test::CHACHA20) continue;  // OpenSSL's context is copied for each text
      for (int iv = 0; iv < kIvTypeCount; ++iv) {
        for (int encoding = 0; encoding < kStrModeCount; ++encoding) {
          for (const int length : {0, 3}) {
            test::Policy policy({algorithm, mode, iv, encoding, length, length, "#"});
            if (!policy) continue;
            for (const unsigned int size : {kShort, kLong}) {
              EXPECT_EQ(allocationsOf([&policy, size] { thereAndBack(policy, size); }), 0U)
                  << algorithm << ", " << mode << ", " << iv << ", " << size << " bytes";
            }
          }
        }
      }
    }
  }
}

TEST(CryptoAllocation, ThereIsNonePerDigest) {
  const test::Policy policy({.blockMode = test::GCM});
  g_encPolicyArray[2][5] = policy.record;
  g_makeKeyArray[2][5] = policy.handle;
  for (int algorithm = kHashSha1; algorithm <= kHashHas160; ++algorithm) {
    EXPECT_EQ(allocationsOf([algorithm] {
                unsigned char out[64];
                unsigned int size = 0;
                kezuHashBinary(out, &size, kValue, kShort, algorithm);
                kezuHmacBinary(out, &size, kValue, kShort, algorithm, &g_encPolicyArray[2][5]);
              }),
              0U)
        << algorithm;
  }
  g_makeKeyArray[2][5] = nullptr;
  g_encPolicyArray[2][5] = {};
}

}  // namespace

#endif
