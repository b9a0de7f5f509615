// SPDX-License-Identifier: Apache-2.0
//
// Memory for secrets: wiped before it is given back.
#pragma once

#include <openssl/crypto.h>

#include <cstddef>
#include <new>
#include <vector>

namespace cipher {

// Allocator that overwrites memory before it frees it.
template <typename T>
struct CleansingAllocator {
  using value_type = T;

  CleansingAllocator() noexcept = default;
  template <typename U>
  CleansingAllocator(const CleansingAllocator<U>& /*other*/) noexcept {}  // NOLINT(google-explicit-constructor)

  T* allocate(std::size_t n) { return static_cast<T*>(::operator new(n * sizeof(T))); }
  void deallocate(T* p, std::size_t n) noexcept {
    OPENSSL_cleanse(p, n * sizeof(T));
    ::operator delete(p);
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
