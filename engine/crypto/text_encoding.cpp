// SPDX-License-Identifier: Apache-2.0
//
// Base64 and hexadecimal text.
#include "engine/crypto/text_encoding.h"

#include <array>
#include <cstdint>
#include <string_view>

namespace engine {
namespace {

constexpr std::string_view kBase64Digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::string_view kLowerDigits = "0123456789abcdef";
constexpr std::string_view kUpperDigits = "0123456789ABCDEF";
constexpr unsigned char kPadding = '=';
constexpr unsigned char kNoDigit = 0xff;

constexpr std::array<unsigned char, 256> valuesOf(std::string_view digits) {
  std::array<unsigned char, 256> values{};
  values.fill(kNoDigit);
  for (std::size_t i = 0; i < digits.size(); ++i) {
    values[static_cast<unsigned char>(digits[i])] = static_cast<unsigned char>(i);
  }
  return values;
}

constexpr auto kBase64Values = valuesOf(kBase64Digits);
constexpr auto kHexValues = valuesOf(kLowerDigits);

unsigned char base64Digit(std::uint32_t bits) noexcept {
  return static_cast<unsigned char>(kBase64Digits[bits & 0x3f]);
}

std::size_t paddingOf(Bytes text) noexcept {
  std::size_t padding = 0;
  while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == kPadding) ++padding;
  return padding;
}

// Decodes four digits, of which the last `padding` are padding, to 3 - padding bytes.
bool decodeGroup(unsigned char* out, Bytes digits, std::size_t padding) noexcept {
  std::uint32_t bits = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    const unsigned char value = i < 4 - padding ? kBase64Values[digits[i]] : 0;
    if (value == kNoDigit) return false;
    bits = bits << 6 | value;
  }
  const std::size_t size = 3 - padding;
  for (std::size_t i = 0; i < size; ++i) out[i] = static_cast<unsigned char>(bits >> (16 - 8 * i));
  return (bits & ((std::uint32_t{1} << (8 * padding)) - 1)) == 0;
}

}  // namespace

void encodeBase64(unsigned char* out, Bytes data) noexcept {
  std::size_t at = 0;
  for (; at + 3 <= data.size(); at += 3, out += 4) {
    const std::uint32_t bits = std::uint32_t{data[at]} << 16 | std::uint32_t{data[at + 1]} << 8 | data[at + 2];
    out[0] = base64Digit(bits >> 18);
    out[1] = base64Digit(bits >> 12);
    out[2] = base64Digit(bits >> 6);
    out[3] = base64Digit(bits);
  }
  const std::size_t left = data.size() - at;
  if (left == 0) return;
  const std::uint32_t bits = std::uint32_t{data[at]} << 16 | (left == 2 ? std::uint32_t{data[at + 1]} << 8 : 0);
  out[0] = base64Digit(bits >> 18);
  out[1] = base64Digit(bits >> 12);
  out[2] = left == 2 ? base64Digit(bits >> 6) : kPadding;
  out[3] = kPadding;
}

void encodeHex(unsigned char* out, Bytes data, bool upperCase) noexcept {
  const std::string_view digits = upperCase ? kUpperDigits : kLowerDigits;
  for (std::size_t i = 0; i < data.size(); ++i) {
    const unsigned char byte = data[i];
    out[2 * i] = static_cast<unsigned char>(digits[byte >> 4]);
    out[2 * i + 1] = static_cast<unsigned char>(digits[byte & 0x0f]);
  }
}

std::size_t base64DecodedSize(Bytes text) noexcept {
  return text.size() / 4 * 3 - (text.size() < 4 ? 0 : paddingOf(text));
}

bool decodeBase64(unsigned char* out, Bytes text) noexcept {
  if (text.size() % 4 != 0) return false;
  for (std::size_t at = 0; at < text.size(); at += 4, out += 3) {
    const bool last = at + 4 == text.size();
    if (!decodeGroup(out, text.subspan(at, 4), last ? paddingOf(text) : 0)) return false;
  }
  return true;
}

bool decodeHex(unsigned char* out, Bytes text) noexcept {
  if (text.size() % 2 != 0) return false;
  for (std::size_t i = 0; i < text.size() / 2; ++i) {
    const unsigned char high = kHexValues[text[2 * i]];
    const unsigned char low = kHexValues[text[2 * i + 1]];
    if (high == kNoDigit || low == kNoDigit) return false;
    out[i] = static_cast<unsigned char>(high << 4 | low);
  }
  return true;
}

}  // namespace engine
