// SPDX-License-Identifier: Apache-2.0
#include "cipher/secret.h"

#include <sys/mman.h>

namespace cipher {

void* mapBlock(std::size_t size) {
  // Populated: all of it will be written, at the latest when it is wiped, and a fault for every page costs more.
  constexpr int kFlags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE;
  void* const block = mmap(nullptr, size, PROT_READ | PROT_WRITE, kFlags, -1, 0);
  return block != MAP_FAILED ? block : throw std::bad_alloc();
}

void unmapBlock(void* block, std::size_t size) noexcept {
  munmap(block, size);
}

}  // namespace cipher
