// SPDX-License-Identifier: Apache-2.0
//
// Lengths as they go into authentication codes.
#pragma once

#include <cstddef>

namespace cipher {

inline constexpr std::size_t kLengthSize = 4;  // bytes of a stored length

// Stores a length below 2^32, most significant byte first.
inline void storeLength(unsigned char (&out)[kLengthSize], std::size_t length) noexcept {
  for (std::size_t i = 0; i < kLengthSize; ++i) {
    out[i] = static_cast<unsigned char>(length >> (8 * (kLengthSize - 1 - i)));
  }
}

}  // namespace cipher
