// SPDX-License-Identifier: Apache-2.0
//
// Working memory of a thread.
#pragma once

#include <cstddef>

namespace engine {

// What a piece of working memory is for. A thread has one piece for each.
enum class ScratchUse { kDecodedText, kClearParts };

// Working memory of the calling thread's, from construction to destruction, when its contents are wiped. The memory is
// kept for the next time (up to 64 KB), so that the many rows of a statement allocate it once. One at a time for each
// use.
class Scratch {
 public:
  explicit Scratch(ScratchUse use) noexcept : use_(use) {}
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  ~Scratch();

  // `size` bytes, their contents unspecified; null when memory runs out. To be called at most once.
  unsigned char* take(std::size_t size) noexcept;

 private:
  ScratchUse use_;
  std::size_t taken_ = 0;
};

}  // namespace engine
