// SPDX-License-Identifier: Apache-2.0
//
// Memory that nobody can read or write past: not the code under test, and not a library that no sanitizer looks into.
#pragma once

#include <sanitizer/asan_interface.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <new>

namespace test {

// A room in front of a page that may not be touched. Under the address sanitizer not before its first byte either.
class GuardedRoom {
 public:
  GuardedRoom() = default;
  GuardedRoom(const GuardedRoom&) = delete;
  GuardedRoom& operator=(const GuardedRoom&) = delete;
  ~GuardedRoom() { release(); }

  // Exactly `size` bytes, which hold anything. Until the next call.
  unsigned char* take(std::size_t size) {
    if (base_ == nullptr || size > capacity_) reserve(size);
    ASAN_UNPOISON_MEMORY_REGION(base_, capacity_);
    ASAN_POISON_MEMORY_REGION(base_, capacity_ - size);
    return base_ + capacity_ - size;
  }

 private:
  void reserve(std::size_t size) {
    release();
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t capacity = (size / page + 1) * page;
    void* const mapped = mmap(nullptr, capacity + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) throw std::bad_alloc();
    base_ = static_cast<unsigned char*>(mapped);
    capacity_ = capacity;
    mapped_ = capacity + page;
    if (mprotect(base_ + capacity_, page, PROT_NONE) != 0) throw std::bad_alloc();
  }

  void release() {
    if (base_ == nullptr) return;
    ASAN_UNPOISON_MEMORY_REGION(base_, capacity_);
    munmap(base_, mapped_);
    base_ = nullptr;
  }

  unsigned char* base_ = nullptr;
  std::size_t capacity_ = 0;
  std::size_t mapped_ = 0;
};

}  // namespace test
