// SPDX-License-Identifier: Apache-2.0
//
// Working memory of a thread.
#include "engine/crypto/scratch.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <array>
#include <memory>
#include <new>

namespace engine {
namespace {

class ThreadMemory {
 public:
  static constexpr std::size_t kLeast = 512;
  static constexpr std::size_t kMostKept = 64 * std::size_t{1024};

  static ThreadMemory& of(ScratchUse use) noexcept {
    static thread_local std::array<ThreadMemory, 2> memories;
    return memories[static_cast<std::size_t>(use)];
  }

  unsigned char* reserve(std::size_t size) noexcept {
    if (size <= capacity_) return bytes_.get();
    const std::size_t wanted = std::max(size, kLeast);
    bytes_.reset(new (std::nothrow) unsigned char[wanted]);
    capacity_ = bytes_ == nullptr ? 0 : wanted;
    return bytes_.get();
  }

  void release(std::size_t used) noexcept {
    if (bytes_ == nullptr) return;
    OPENSSL_cleanse(bytes_.get(), used);
    if (capacity_ > kMostKept) {
      bytes_.reset();
      capacity_ = 0;
    }
  }

 private:
  std::unique_ptr<unsigned char[]> bytes_;
  std::size_t capacity_ = 0;
};

}  // namespace

Scratch::~Scratch() {
  if (taken_ != 0) ThreadMemory::of(use_).release(taken_);
}

unsigned char* Scratch::take(std::size_t size) noexcept {
  unsigned char* bytes = ThreadMemory::of(use_).reserve(size);
  taken_ = bytes == nullptr ? 0 : size;
  return bytes;
}

}  // namespace engine
