// SPDX-License-Identifier: Apache-2.0
#include "cipher/hidden_memory.h"

#include <openssl/crypto.h>
#include <sys/mman.h>

#include <cstdlib>

namespace cipher {
namespace {

constexpr std::size_t wholePages(std::size_t size) noexcept {
  return (size + kPageSize - 1) / kPageSize * kPageSize;
}

}  // namespace

void hideFromDumps(void* memory, std::size_t size) noexcept {
  madvise(memory, wholePages(size), MADV_DONTDUMP);
}

void* allocateHidden(std::size_t size) noexcept {
  void* memory = std::aligned_alloc(kPageSize, wholePages(size));
  if (memory != nullptr) {
    hideFromDumps(memory, size);
  }
  return memory;
}

void freeHidden(void* memory, std::size_t size) noexcept {
  if (memory != nullptr) {
    OPENSSL_cleanse(memory, size);
    madvise(memory, wholePages(size), MADV_DODUMP);  // who gets the pages next has nothing to hide
    std::free(memory);
  }
}

}  // namespace cipher
