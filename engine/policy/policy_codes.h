// SPDX-License-Identifier: Apache-2.0
//
// Names for the codes in a policy record that decide how its values look.
#pragma once

namespace engine {

// Q7EncPolicyInfo::ivMode
inline constexpr int kIvDeterministic = 0;
inline constexpr int kIvRandom = 1;

// Q7EncPolicyInfo::strMode
inline constexpr int kTextRaw = 0;
inline constexpr int kTextBase64 = 1;
inline constexpr int kTextHex = 2;

}  // namespace engine
