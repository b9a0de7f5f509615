// SPDX-License-Identifier: Apache-2.0
//
// Looking for a policy by its name, on the per-row path.
#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "kezu/engine.h"
#include "kezu/shared.h"

// A name to compare with those of the table's records. It is held in two words: taking it into a buffer first would
// cost more than the comparison.
class PolicyName {
 public:
  explicit PolicyName(std::string_view name) noexcept
      : fits_(name.size() < kField && name.find('\0') == std::string_view::npos), fills_(name.size() == kField - 1) {
    if (!fits_) {
      return;
    }
    name_ = {wordOf(name.substr(0, 8)), wordOf(name.size() < 8 ? std::string_view() : name.substr(8))};
    compared_ = {bytesOf(name.size() + 1), name.size() < 8 ? 0 : bytesOf(name.size() - 7)};
  }

  // Whether the record has exactly this name; never for a name that no record can have. As kezu::fieldEquals: bytes
  // behind the field's terminating zero don't count, and each word is read atomically.
  bool isOf(const Q7EncPolicyInfo& policy) const noexcept {
    const auto* words = kezu::detail::words(const_cast<Q7EncPolicyInfo&>(policy));
    return ((halfAt(words) ^ name_[0]) & compared_[0]) == 0 && ((halfAt(words + 2) ^ name_[1]) & compared_[1]) == 0 &&
           fits_ && (!fills_ || (at(words + 4) & 0xFF) == 0);
  }

  // A number below 256 that differs for most names.
  std::size_t hash() const noexcept {
    return ((name_[0] * 0x9E3779B97F4A7C15U) ^ (name_[1] * 0xC2B2AE3D27D4EB4FU)) >> 56;
  }

 private:
  static constexpr std::size_t kField = sizeof Q7EncPolicyInfo::policyID;
  static_assert(offsetof(Q7EncPolicyInfo, policyID) == 0 && kField == 17 && alignof(Q7EncPolicyInfo) == 4);
  static_assert(std::endian::native == std::endian::little);

  template <typename Word>
  static std::uint64_t load(const char* from) noexcept {
    Word word;
    std::memcpy(&word, from, sizeof word);
    return word;
  }

  // Up to eight bytes as a word, the first of them lowest and the rest zero. Of pieces that overlap the bits are equal.
  static std::uint64_t wordOf(std::string_view bytes) noexcept {
    const char* first = bytes.data();
    const std::size_t size = bytes.size();
    switch (size) {
      case 0:
        return 0;
      case 1:
        return load<unsigned char>(first);
      case 2:
      case 3:
        return load<std::uint16_t>(first) | load<std::uint16_t>(first + size - 2) << 8 * (size - 2);
      case 8:
        return load<std::uint64_t>(first);
      default:
        return load<std::uint32_t>(first) | load<std::uint32_t>(first + size - 4) << 8 * (size - 4);
    }
  }

  // The lowest `count` bytes of a word, all of it from 8 on.
  static constexpr std::uint64_t bytesOf(std::size_t count) noexcept {
    return count >= 8 ? ~std::uint64_t{0} : (std::uint64_t{1} << 8 * count) - 1;
  }

  static std::uint32_t at(const std::uint32_t* shared) noexcept {
    return std::atomic_ref(const_cast<std::uint32_t&>(*shared)).load(std::memory_order_relaxed);
  }
  static std::uint64_t halfAt(const std::uint32_t* shared) noexcept {
    return at(shared) | std::uint64_t{at(shared + 1)} << 32;
  }

  std::array<std::uint64_t, 2> name_{};
  std::array<std::uint64_t, 2> compared_{};  // bits set where the field is compared: the name and its terminating zero
  bool fits_;
  bool fills_;  // the field, so that the terminating zero is its last byte
};

// Where the calling thread found a policy last: the only one of its name, in a table of this count in this slot, with
// this key. A table that was changed has another slot or, five changes later, other keys.
struct PolicyHint {
  int slot = -1;  // no slot: nothing is known
  int count = 0;
  int index = 0;
  BCipherKey key = nullptr;

  // The thread's hint for a name. Another name may have the same: it is for the caller to compare.
  static PolicyHint& of(const PolicyName& name) noexcept {
    static thread_local constinit PolicyHint hints[256];
    return hints[name.hash()];
  }
};
