// SPDX-License-Identifier: Apache-2.0
//
// The bytes that libFuzzer makes up, read from front to back.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>

namespace fuzz {

using Bytes = std::span<const unsigned char>;

// Past the end there are only zeros.
class Input {
 public:
  explicit Input(Bytes bytes) : bytes_(bytes) {}

  bool empty() const { return bytes_.empty(); }

  unsigned byte() {
    const Bytes one = take(1);
    return one.empty() ? 0 : one[0];
  }

  // `count` bytes, most significant first.
  std::uint64_t number(unsigned count) {
    std::uint64_t value = 0;
    for (unsigned i = 0; i < count; ++i) {
      value = value << 8 | byte();
    }
    return value;
  }

  // The next `count` bytes, or what there is of them.
  Bytes take(std::size_t count) {
    const Bytes taken = bytes_.first(std::min(count, bytes_.size()));
    bytes_ = bytes_.subspan(taken.size());
    return taken;
  }

  Bytes rest() { return take(bytes_.size()); }

 private:
  Bytes bytes_;
};

}  // namespace fuzz
