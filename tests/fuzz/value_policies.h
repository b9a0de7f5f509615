// SPDX-License-Identifier: Apache-2.0
//
// Policies by numbers, with one column key for all of them.
#pragma once

#include <array>
#include <climits>
#include <map>
#include <memory>

#include "tests/unit/crypto_fixture.h"

namespace fuzz {

struct Range {
  int position;
  int length;
};
inline constexpr Range kRanges[] = {{0, 0}, {2, 3}, {4, 0}, {0, 5}, {2, INT_MAX}, {INT_MAX, 0}, {16, 16}};
inline constexpr const char* kFlags[] = {"", "#", "{e}", "0123456789abcdef"};

// Each taken modulo what there is of it.
struct PolicyNumbers {
  unsigned algorithm;
  unsigned blockMode;
  unsigned ivMode;
  unsigned encoding;
  unsigned range;
  unsigned flag;
};

inline test::PolicyParameters parametersOf(const PolicyNumbers& numbers) {
  const Range range = kRanges[numbers.range % std::size(kRanges)];
  return {static_cast<int>(numbers.algorithm % kAlgorithmCount),
          static_cast<int>(numbers.blockMode % kBlockModeCount),
          static_cast<int>(numbers.ivMode % kIvTypeCount),
          static_cast<int>(numbers.encoding % kStrModeCount),
          range.position,
          range.length,
          kFlags[numbers.flag % std::size(kFlags)],
          test::patternOf(32)};
}

// Valid until the next call. False in a condition where the ciphers do not offer the combination.
inline const test::Policy& policyOf(const PolicyNumbers& numbers) {
  constexpr std::size_t kKept = 1000;
  static std::map<std::array<std::size_t, 6>, std::unique_ptr<test::Policy>> all;
  if (all.size() > kKept) all.clear();
  const std::array<std::size_t, 6> key = {numbers.algorithm % kAlgorithmCount, numbers.blockMode % kBlockModeCount,
                                          numbers.ivMode % kIvTypeCount,       numbers.encoding % kStrModeCount,
                                          numbers.range % std::size(kRanges),  numbers.flag % std::size(kFlags)};
  std::unique_ptr<test::Policy>& policy = all[key];
  if (!policy) policy = std::make_unique<test::Policy>(parametersOf(numbers));
  return *policy;
}

}  // namespace fuzz
