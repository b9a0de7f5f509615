// SPDX-License-Identifier: Apache-2.0
//
// What is authenticated besides the encrypted part of a value.
#include "engine/crypto/authenticated_parts.h"

#include <algorithm>

#include "cipher/big_endian.h"
#include "cipher/kdf.h"

namespace engine {
namespace {

using cipher::kLengthSize;

unsigned char* append(unsigned char* to, Bytes part) noexcept {
  unsigned char length[kLengthSize];
  cipher::storeLength(length, part.size());
  to = std::copy(std::begin(length), std::end(length), to);
  return std::copy(part.begin(), part.end(), to);
}

}  // namespace

AssociatedData::AssociatedData(const ValueFormat& format, const cipher::Suite& suite,
                               const ValueParts& parts) noexcept {
  if (!format.partial() || suite.tagSize == 0) return;
  const std::size_t size = 2 * kLengthSize + parts.before.size() + parts.after.size();
  unsigned char* room = scratch_.take(size);
  valid_ = room != nullptr;
  if (!valid_) return;
  append(append(room, parts.before), parts.after);
  bytes_ = {room, size};
}

void computeIv(std::span<unsigned char> iv, cipher::PreparedKey& key, const ValueParts& clear) noexcept {
  unsigned char before[kLengthSize];
  unsigned char middle[kLengthSize];
  unsigned char after[kLengthSize];
  cipher::storeLength(before, clear.before.size());
  cipher::storeLength(middle, clear.middle.size());
  cipher::storeLength(after, clear.after.size());
  const Bytes input[] = {before, clear.before, middle, clear.middle, after, clear.after};
  unsigned char code[cipher::kSha256Size];
  key.ivMac(code, input);
  std::copy_n(code, iv.size(), iv.begin());
}

}  // namespace engine
