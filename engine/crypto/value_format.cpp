// SPDX-License-Identifier: Apache-2.0
//
// Sizes and parts of encrypted values.
#include "engine/crypto/value_format.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "engine/policy/policy_codes.h"

namespace engine {
namespace {

constexpr std::size_t kVersionSize = 1;

std::uint64_t textSize(int encoding, std::uint64_t raw) noexcept {
  switch (encoding) {
    case kTextBase64:
      return base64Size(raw);
    case kTextHex:
      return hexSize(raw);
    default:
      return raw;
  }
}

// SIV makes its initialization vector from the text by itself; only a random nonce is stored.
std::size_t storedIvSize(const cipher::Suite& suite, int ivMode) noexcept {
  return suite.form == cipher::Form::kSiv && ivMode == kIvDeterministic ? 0 : suite.ivSize;
}

}  // namespace

ValueFormat::ValueFormat(const Q7EncPolicyInfo& policy, const cipher::Suite& suite) noexcept
    : suite_(suite),
      flagSize_(static_cast<std::size_t>(policy.encFlagLen)),
      position_(static_cast<std::size_t>(policy.encPos)),
      length_(static_cast<std::size_t>(policy.encLen)),
      ivSize_(storedIvSize(suite, policy.ivMode)),
      encoding_(policy.strMode),
      partial_(policy.encPos != 0 || policy.encLen != 0),
      computesIv_(policy.ivMode == kIvDeterministic && ivSize_ != 0) {
  if (flagSize_ != 0) std::memcpy(flag_, policy.encFlag, sizeof flag_);
}

std::uint64_t ValueFormat::rawSize(std::uint64_t size) const noexcept {
  return kVersionSize + ivSize_ + suite_.cipherSize(size) + suite_.tagSize;
}

std::uint64_t ValueFormat::encodedSize(std::uint64_t size) const noexcept {
  return flagSize_ + textSize(encoding_, rawSize(size));
}

std::optional<unsigned int> ValueFormat::valueSize(std::size_t size) const noexcept {
  std::uint64_t total = size;
  if (!leavesAsIs(size)) {
    const std::size_t rest = size - position_;
    const std::size_t middle = length_ == 0 ? rest : std::min(length_, rest);
    total = size - middle + encodedSize(middle);
  }
  if (total > INT_MAX) return std::nullopt;
  return static_cast<unsigned int>(total);
}

ValueParts ValueFormat::splitClear(Bytes value) const noexcept {
  const std::size_t rest = value.size() - position_;
  const std::size_t middle = length_ == 0 ? rest : std::min(length_, rest);
  return {value.first(position_), value.subspan(position_, middle), value.subspan(position_ + middle)};
}

ValueParts ValueFormat::splitEncrypted(Bytes value) const noexcept {
  const std::uint64_t rest = value.size() - position_;
  const auto middle = static_cast<std::size_t>(length_ == 0 ? rest : std::min(encodedSize(length_), rest));
  return {value.first(position_), value.subspan(position_, middle), value.subspan(position_ + middle)};
}

bool ValueFormat::fits(std::size_t middle, bool somethingAfter) const noexcept {
  if (!partial_) return true;
  if (middle == 0 || (length_ != 0 && middle > length_)) return false;
  return !somethingAfter || middle == length_;
}

bool ValueFormat::looksEncoded(Bytes text) const noexcept {
  if (text.size() < flagSize_ || !std::equal(flag_, flag_ + flagSize_, text.begin())) return false;
  const Bytes encoded = text.subspan(flagSize_);
  switch (encoding_) {
    case kTextBase64: {
      unsigned char head[3];
      return encoded.size() >= 4 && decodeBase64(head, encoded.first(4)) && head[0] == kVersionByte;
    }
    case kTextHex: {
      static constexpr unsigned char kVersion[] = {kVersionByte};
      unsigned char digits[hexSize(kVersionSize)];
      encodeHex(digits, kVersion);
      return encoded.size() >= sizeof digits && std::equal(std::begin(digits), std::end(digits), encoded.begin());
    }
    default:
      return !encoded.empty() && encoded[0] == kVersionByte;
  }
}

void ValueFormat::encode(unsigned char* out, Bytes raw) const noexcept {
  switch (encoding_) {
    case kTextBase64:
      encodeBase64(out, raw);
      break;
    case kTextHex:
      encodeHex(out, raw);
      break;
    default:
      if (out != raw.data()) std::copy(raw.begin(), raw.end(), out);
  }
}

std::size_t ValueFormat::decodedSize(Bytes text) const noexcept {
  switch (encoding_) {
    case kTextBase64:
      return base64DecodedSize(text);
    case kTextHex:
      return text.size() / 2;
    default:
      return 0;
  }
}

std::optional<Bytes> ValueFormat::decode(unsigned char* room, Bytes text) const noexcept {
  switch (encoding_) {
    case kTextBase64:
      if (!decodeBase64(room, text)) return std::nullopt;
      return Bytes(room, base64DecodedSize(text));
    case kTextHex:
      if (!decodeHex(room, text)) return std::nullopt;
      return Bytes(room, text.size() / 2);
    default:
      return text;
  }
}

std::optional<RawParts> ValueFormat::splitRaw(Bytes raw) const noexcept {
  const std::size_t around = kVersionSize + ivSize_ + suite_.tagSize;
  if (raw.size() < around || raw[0] != kVersionByte) return std::nullopt;
  const std::size_t cipherSize = raw.size() - around;
  return RawParts{raw.subspan(kVersionSize, ivSize_), raw.subspan(kVersionSize + ivSize_, cipherSize),
                  raw.last(suite_.tagSize)};
}

}  // namespace engine
