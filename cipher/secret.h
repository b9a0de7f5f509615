// SPDX-License-Identifier: Apache-2.0
//
// Memory for secrets: wiped before it is given back.
#pragma once

#include <openssl/crypto.h>

#include <cstddef>
#include <new>
#include <vector>

namespace cipher {

// A block from this size on is mapped from the kernel, and goes back to it when it is freed. malloc does the same from
// its own M_MMAP_THRESHOLD (mallopt(3)), 128 KiB too, but only until the server has freed a larger block: from then on
// it would keep all that a reload takes for a while, tens of megabytes.
inline constexpr std::size_t kMappedSize = std::size_t{128} << 10;

// Memory of `size` bytes on pages of its own. Throws std::bad_alloc.
void* mapBlock(std::size_t size);
void unmapBlock(void* block, std::size_t size) noexcept;

// Allocator that overwrites memory before it frees it.
template <typename T>
struct CleansingAllocator {
  using value_type = T;

  CleansingAllocator() noexcept = default;
  template <typename U>
  CleansingAllocator(const CleansingAllocator<U>& /*other*/) noexcept {}  // NOLINT(google-explicit-constructor)

  T* allocate(std::size_t n) {
    const std::size_t size = n * sizeof(T);
    return static_cast<T*>(size < kMappedSize ? ::operator new(size) : mapBlock(size));
  }
  void deallocate(T* p, std::size_t n) noexcept {
    const std::size_t size = n * sizeof(T);
    OPENSSL_cleanse(p, size);
    if (size < kMappedSize) {
      ::operator delete(p);
    } else {
      unmapBlock(p, size);
    }
  }
  template <typename U>
  bool operator==(const CleansingAllocator<U>& /*other*/) const noexcept {
    return true;
  }
};

// Bytes of a key, a password or a clear text. Growing it wipes what it leaves behind.
using SecretBytes = std::vector<unsigned char, CleansingAllocator<unsigned char>>;

// Wipes a buffer of fixed size when the scope ends.
template <std::size_t N>
struct SecretArray {
  unsigned char bytes[N] = {};

  SecretArray() = default;
  SecretArray(const SecretArray&) = delete;
  SecretArray& operator=(const SecretArray&) = delete;
  ~SecretArray() { OPENSSL_cleanse(bytes, N); }
};

}  // namespace cipher
