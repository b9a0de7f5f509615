// SPDX-License-Identifier: Apache-2.0
//
// Numbers as results of string functions.
#pragma once

#include <array>
#include <cstdio>

#include "frame/answer.h"

namespace frame {

// Room for a 32-bit number in decimal and its terminating zero.
inline constexpr std::size_t kNumberSize = 17;

// `value` in decimal, in the server's buffer, with a terminating zero.
inline Answer number(int value, ServerBuffer buffer) noexcept {
  char text[kNumberSize];
  const int length = std::snprintf(text, sizeof text, "%d", value);
  return buffer.copyTerminated(std::string_view(text, static_cast<std::size_t>(length)));
}

// Storage for numbers of functions that leave the server's buffer alone: eight can be alive at once. Declare it
// thread_local.
class NumberRing {
 public:
  Answer keep(int value) noexcept {
    auto& text = texts_[next_];
    next_ = (next_ + 1) % texts_.size();
    const int length = std::snprintf(text.data(), text.size(), "%d", value);
    return Answer::text(text.data(), static_cast<std::size_t>(length));
  }

 private:
  std::array<std::array<char, kNumberSize>, 8> texts_ = {};
  std::size_t next_ = 0;
};

}  // namespace frame
