// SPDX-License-Identifier: Apache-2.0
//
// Memory for secrets: small blocks are malloc's, large ones come from the kernel and go back to it.
#include "cipher/secret.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <limits>

namespace {

using Allocator = cipher::CleansingAllocator<unsigned char>;

// Whether a page of the process is there.
bool mapped(std::uintptr_t address) {
  unsigned char resident = 0;
  const auto page = address / 4096 * 4096;
  return mincore(reinterpret_cast<void*>(page), 1, &resident) == 0;  // NOLINT(performance-no-int-to-ptr)
}

TEST(CipherSecretTest, EverySizeIsWritableToItsEnd) {
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, cipher::kMappedSize - 1, cipher::kMappedSize,
                                 cipher::kMappedSize + 1, 3 * cipher::kMappedSize + 4095}) {
    cipher::SecretBytes bytes(size, 0xa5);
    EXPECT_EQ(std::count(bytes.begin(), bytes.end(), 0xa5), static_cast<std::ptrdiff_t>(size));
    bytes.push_back(1);
    EXPECT_EQ(bytes.back(), 1);
    EXPECT_EQ(std::count(bytes.begin(), bytes.end(), 0xa5), static_cast<std::ptrdiff_t>(size));
  }
}

TEST(CipherSecretTest, LargeBlocksGoBackToTheKernel) {
  Allocator allocator;
  for (const std::size_t size : {cipher::kMappedSize, cipher::kMappedSize + 1}) {
    unsigned char* const block = allocator.allocate(size);
    const auto first = reinterpret_cast<std::uintptr_t>(block);
    std::fill_n(block, size, static_cast<unsigned char>(1));
    EXPECT_TRUE(mapped(first));
    EXPECT_TRUE(mapped(first + size - 1));
    allocator.deallocate(block, size);
    EXPECT_FALSE(mapped(first));
    EXPECT_FALSE(mapped(first + size - 1));
  }
}

TEST(CipherSecretTest, WhatThereIsNoMemoryForIsRefused) {
  Allocator allocator;
  EXPECT_THROW(static_cast<void>(allocator.allocate(std::numeric_limits<std::size_t>::max() / 2)), std::bad_alloc);
}

}  // namespace
