// SPDX-License-Identifier: Apache-2.0
//
// Working memory of a thread: kept from value to value, without what was in it.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

#include "engine/crypto/scratch.h"
#include "tests/unit/crypto_fixture.h"

namespace {

using engine::Scratch;
using engine::ScratchUse;
using test::Data;

TEST(CryptoScratch, IsTheSameMemoryAgainButWiped) {
  for (const std::size_t size : {std::size_t{1}, std::size_t{512}, std::size_t{513}, std::size_t{64} * 1024}) {
    unsigned char* first = nullptr;
    {
      Scratch scratch(ScratchUse::kClearParts);
      first = scratch.take(size);
      ASSERT_NE(first, nullptr);
      std::memset(first, 0x5a, size);
    }
    Scratch scratch(ScratchUse::kClearParts);
    unsigned char* second = scratch.take(size);
    EXPECT_EQ(second, first) << size;
    EXPECT_EQ(Data(second, second + size), Data(size)) << size;
  }
}

TEST(CryptoScratch, UsesDoNotShareMemory) {
  Scratch text(ScratchUse::kDecodedText);
  Scratch parts(ScratchUse::kClearParts);
  EXPECT_NE(text.take(100), parts.take(100));
}

TEST(CryptoScratch, LargeMemoryIsUsableAndSmallMemoryAfterIt) {
  for (const std::size_t size : {std::size_t{64} * 1024 + 1, std::size_t{1} << 20, std::size_t{10}}) {
    Scratch scratch(ScratchUse::kDecodedText);
    unsigned char* bytes = scratch.take(size);
    ASSERT_NE(bytes, nullptr);
    std::memset(bytes, 0x5a, size);
    EXPECT_EQ(bytes[size - 1], 0x5a);
  }
}

}  // namespace
