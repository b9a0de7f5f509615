// SPDX-License-Identifier: Apache-2.0
//
// Buffers for long results: which one is handed out when, and what is left in it.
#include "frame/result_ring.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

namespace conformance {
namespace {

constexpr std::size_t kCapacity = 1000;
constexpr std::size_t kDepth = 3;
using Ring = frame::ResultRing<kCapacity, kDepth>;

struct Kept {
  char* pointer = nullptr;
  unsigned long length = 4711;
};

class RingTest : public ::testing::Test {
 protected:
  // A result of so many equal bytes, all of it secret.
  Kept make(std::size_t length, int byte) {
    std::memset(ring_.next(), byte, length);
    ring_.markSecret(length);
    Kept kept;
    kept.pointer = ring_.keep(length, frame::ServerBuffer(server_)).handOver(&kept.length);
    return kept;
  }

  static std::string bytesAt(const void* at, std::size_t length) { return {static_cast<const char*>(at), length}; }

  Ring ring_;
  char server_[frame::ServerBuffer::kSize] = {};
};

TEST_F(RingTest, NextIsTheSameUntilAResultIsKept) {
  unsigned char* first = ring_.next();
  EXPECT_EQ(ring_.next(), first);
  make(256, 'a');
  EXPECT_NE(ring_.next(), first);
}

TEST_F(RingTest, LongResultsGoRound) {
  std::vector<char*> pointers;
  for (int i = 0; i < 7; ++i) {
    const Kept kept = make(kCapacity, 'a' + i);
    EXPECT_EQ(kept.length, kCapacity);
    EXPECT_EQ(bytesAt(kept.pointer, kCapacity), std::string(kCapacity, static_cast<char>('a' + i)));
    pointers.push_back(kept.pointer);
  }
  EXPECT_EQ(std::set<char*>(pointers.begin(), pointers.end()).size(), kDepth);
  EXPECT_EQ(pointers[0], pointers[kDepth]);
  EXPECT_EQ(pointers[1], pointers[kDepth + 1]);
}

TEST_F(RingTest, SecretIsWipedWhenItsBufferComesRound) {
  const Kept secret = make(300, 'x');
  for (std::size_t i = 1; i < kDepth; ++i) make(300, 'y');
  EXPECT_EQ(bytesAt(secret.pointer, 300), std::string(300, 'x')) << "alive as long as the others";
  ASSERT_EQ(static_cast<void*>(ring_.next()), secret.pointer);
  EXPECT_EQ(bytesAt(secret.pointer, 300), std::string(300, '\0'));
}

TEST_F(RingTest, SecretThatTheServersBufferTookIsWipedAtOnce) {
  unsigned char* buffer = ring_.next();
  const Kept kept = make(255, 'x');
  EXPECT_EQ(kept.pointer, server_);
  EXPECT_EQ(bytesAt(server_, 255), std::string(255, 'x'));
  EXPECT_EQ(bytesAt(buffer, 255), std::string(255, '\0'));
  EXPECT_EQ(ring_.next(), buffer);
}

TEST_F(RingTest, TheLongestSecretOfARowCounts) {
  unsigned char* buffer = ring_.next();
  std::memset(buffer, 'x', 400);
  ring_.markSecret(400);
  ring_.markSecret(10);
  ring_.discard();
  EXPECT_EQ(bytesAt(buffer, 400), std::string(400, '\0'));
  EXPECT_EQ(ring_.next(), buffer);
}

}  // namespace
}  // namespace conformance
