// SPDX-License-Identifier: Apache-2.0
#include "udf/policy_hints.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace {

// Two of the few policies that a thread uses hardly ever share a place of this many. A power of two.
constexpr std::size_t kHints = 256;

constinit thread_local std::array<PolicyHint, kHints> hints;

// FNV-1a: names that differ in one character, as numbered ones do, lie apart.
std::size_t placeOf(std::string_view name) noexcept {
  std::uint32_t hash = 2166136261U;
  for (const char c : name) {
    hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
  }
  return (hash ^ (hash >> 16)) % kHints;
}

}  // namespace

PolicyHint& policyHint(std::string_view name) noexcept {
  return hints[placeOf(name)];
}
