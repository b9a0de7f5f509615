// SPDX-License-Identifier: Apache-2.0
//
// Base64 (RFC 4648, section 4) and hexadecimal text.
#pragma once

#include <cstddef>
#include <span>

namespace engine {

using Bytes = std::span<const unsigned char>;

// Digits of Base64 text for `size` bytes, padding included.
constexpr std::size_t base64Size(std::size_t size) noexcept {
  return (size + 2) / 3 * 4;
}

// Digits of hexadecimal text for `size` bytes.
constexpr std::size_t hexSize(std::size_t size) noexcept {
  return 2 * size;
}

// Write base64Size() or hexSize() digits to `out`, without a terminating zero. The data may be the last bytes of the
// room that the text takes, so that a text can be made of bytes in place.
void encodeBase64(unsigned char* out, Bytes data) noexcept;
void encodeHex(unsigned char* out, Bytes data, bool upperCase = false) noexcept;

// Bytes that a text decodes to if it is valid; decodes of Base64 only by the length and the padding.
std::size_t base64DecodedSize(Bytes text) noexcept;

// Decode what the functions above write and nothing else: lower-case hexadecimal digits; Base64 with its padding, its
// unused bits zero and no white space. `out` holds base64DecodedSize() or text.size() / 2 bytes. False for a text that
// is not of this form, with the contents of out unspecified.
bool decodeBase64(unsigned char* out, Bytes text) noexcept;
bool decodeHex(unsigned char* out, Bytes text) noexcept;

}  // namespace engine
