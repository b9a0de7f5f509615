// SPDX-License-Identifier: Apache-2.0
//
// What is authenticated besides the encrypted part of a value.
#pragma once

#include "cipher/prepared_key.h"
#include "cipher/suite.h"
#include "engine/crypto/scratch.h"
#include "engine/crypto/value_format.h"

namespace engine {

// The associated data of a partially encrypted value: the length of the clear part before the encrypted one (4 bytes,
// most significant first), that part, the length of the clear part after it, that part. Of a value that is encrypted
// whole, and where the suite has no tag, there is none.
class AssociatedData {
 public:
  AssociatedData(const ValueFormat& format, const cipher::Suite& suite, const ValueParts& parts) noexcept;

  // False when memory ran out.
  [[nodiscard]] bool valid() const noexcept { return valid_; }
  [[nodiscard]] Bytes bytes() const noexcept { return bytes_; }

 private:
  Scratch scratch_{ScratchUse::kClearParts};
  Bytes bytes_;
  bool valid_ = true;
};

// Computes the initialization vector of a value: the leading iv.size() bytes of HMAC-SHA256 over the three parts of the
// clear value, each with its length (4 bytes, most significant first) in front.
void computeIv(std::span<unsigned char> iv, cipher::PreparedKey& key, const ValueParts& clear) noexcept;

}  // namespace engine
