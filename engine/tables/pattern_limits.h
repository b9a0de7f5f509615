// SPDX-License-Identifier: Apache-2.0
//
// Which patterns of query-privilege rules are small enough to be compiled inside a server.
#pragma once

#include <cstddef>
#include <string_view>

namespace engine {

// regcomp copies what a repetition repeats, and recurses over groups and over parts that may be empty: a pattern of
// thirty bytes can take all memory, one of a kilobyte the whole stack of a connection thread. The limits keep
// compilation within some ten milliseconds, a dozen megabytes, and half of a stack of 192 KiB, the smallest that
// servers use.
inline constexpr std::size_t kMaxPatternSize = 8192;  // bytes
inline constexpr std::size_t kMaxPatternDepth = 64;   // parentheses inside each other
inline constexpr std::size_t kMaxPatternCost = 8192;  // of what it expands to: a character or bracket expression 1, an
                                                      // alternative 2, a group or repetition 16, each times its copies

// Whether regcomp may have the pattern (a POSIX extended regular expression, right or wrong): it is within the limits,
// holds no zero byte, at which regcomp would take it for ended, and no back-reference (\1 to \9), which extended
// expressions don't have and which takes exponential time where a library offers it.
bool patternIsBounded(std::string_view pattern) noexcept;

}  // namespace engine
