// SPDX-License-Identifier: Apache-2.0
//
// How values of a policy look when they are encrypted. docs/ciphertext.md describes it for readers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "cipher/suite.h"
#include "engine/crypto/text_encoding.h"
#include "kezu/engine.h"

namespace engine {

inline constexpr unsigned char kVersionByte = 0x81;  // first byte of every raw encrypted value

// The bytes of a raw encrypted value: version byte, initialization vector, cipher text, tag.
struct RawParts {
  Bytes iv;
  Bytes cipherText;
  Bytes tag;
};

// A value and which of it is encrypted. For a policy that encrypts whole values, before and after are empty.
struct ValueParts {
  Bytes before;  // clear
  Bytes middle;  // clear text to encrypt, or the encoded text of it
  Bytes after;   // clear
};

// The format of one policy's values.
class ValueFormat {
 public:
  // `policy` is free of faults and `suite` is its suite.
  ValueFormat(const Q7EncPolicyInfo& policy, const cipher::Suite& suite) noexcept;

  // Whether only a part of each value is encrypted.
  [[nodiscard]] bool partial() const noexcept { return partial_; }

  // Whether the initialization vector is computed from the value.
  [[nodiscard]] bool computesIv() const noexcept { return computesIv_; }

  // Bytes of the initialization vector in a raw value.
  [[nodiscard]] std::size_t ivSize() const noexcept { return ivSize_; }

  [[nodiscard]] Bytes flag() const noexcept { return {flag_, flagSize_}; }

  // Whether a value of `size` bytes, clear or encrypted, is stored as it is: one that ends before the range to encrypt
  // begins.
  [[nodiscard]] bool leavesAsIs(std::size_t size) const noexcept { return partial_ && size <= position_; }

  // Bytes that a text of `size` bytes becomes: raw, and with flag and text encoding. At most 2^34.
  [[nodiscard]] std::uint64_t rawSize(std::uint64_t size) const noexcept;
  [[nodiscard]] std::uint64_t encodedSize(std::uint64_t size) const noexcept;

  // Bytes that a value of `size` bytes becomes, or nothing where that is past 2^31 - 1.
  [[nodiscard]] std::optional<unsigned int> valueSize(std::size_t size) const noexcept;

  // Splits a clear value. Not for one that stays as it is.
  [[nodiscard]] ValueParts splitClear(Bytes value) const noexcept;

  // Splits an encrypted value. Not for one that stays as it is.
  [[nodiscard]] ValueParts splitEncrypted(Bytes value) const noexcept;

  // Whether a clear middle part of this size, with or without something after it, is what a clear value splits into.
  [[nodiscard]] bool fits(std::size_t middle, bool somethingAfter) const noexcept;

  // Whether a text begins as an encoded one does: the flag, then the version byte in the policy's encoding.
  [[nodiscard]] bool looksEncoded(Bytes text) const noexcept;

  // Writes the text encoding of `raw` to `out`. Raw may be the last bytes of the room that the text takes.
  void encode(unsigned char* out, Bytes raw) const noexcept;

  // Bytes that encoded text, its flag left off, takes when it is decoded.
  [[nodiscard]] std::size_t decodedSize(Bytes text) const noexcept;

  // Decodes text, its flag left off, into `room` (decodedSize() bytes, not used by the raw encoding). Returns the raw
  // bytes, nothing when the text is not of the encoding's form.
  std::optional<Bytes> decode(unsigned char* room, Bytes text) const noexcept;

  // The parts of a raw value; nothing when its version is another or it is too short.
  [[nodiscard]] std::optional<RawParts> splitRaw(Bytes raw) const noexcept;

 private:
  cipher::Suite suite_;
  unsigned char flag_[sizeof Q7EncPolicyInfo::encFlag];
  std::size_t flagSize_;
  std::size_t position_;
  std::size_t length_;  // 0 for all from the position on
  std::size_t ivSize_;
  int encoding_;
  bool partial_;
  bool computesIv_;
};

}  // namespace engine
