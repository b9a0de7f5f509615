// SPDX-License-Identifier: Apache-2.0
//
// A policy on the key management server: its name is the key's Name, its column key the key's material, and everything
// else one line of text, the key's Application Specific Information in a namespace of its own.
//
//   v1 algorithm=2 iv=1 position=0 length=0 block=5 encoding=1 flag=4b21
//
// The numbers are the codes that kezu_conf_set_policy takes, in decimal; `flag` is the encryption flag, each byte as
// two lower-case hexadecimal digits. A policy has exactly one text: the fields are all there, in this order, one space
// apart, numbers without sign or leading zeros. A text that differs in anything is refused; `v1` is the version of this
// form, and a later form begins with another.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "engine/store/result.h"
#include "kezu/engine.h"

namespace engine::kms {

inline constexpr std::string_view kPolicyNamespace = "orvanta-policy";
inline constexpr std::size_t kMaxPolicyName = sizeof(Q7EncPolicyInfo::policyID) - 1;  // bytes
inline constexpr std::size_t kMaxPolicyKey = sizeof(Q7EncPolicyInfo::columnKey);      // bytes
inline constexpr std::size_t kMaxPolicyText = 160;  // bytes; the longest text that a policy can have is shorter

// The text of a policy. Holds neither its name nor its key. Empty for a record whose flag length is out of range.
std::string policyText(const Q7EncPolicyInfo& policy);

// Sets every field of `policy` but its name and its key from a text. The ranges are those of the policy's file, and the
// fields must go together as those of a policy that is added. The error's text is the reason alone, to follow the
// policy's name; `policy` is unchanged then.
store::Status readPolicyText(std::string_view text, Q7EncPolicyInfo& policy);

// Sets the name of `policy`: 0 to 16 letters or digits, as kezu_conf_set_policy takes them.
store::Status setPolicyName(std::string_view name, Q7EncPolicyInfo& policy);

// Sets the column key of `policy`: 1 to 64 bytes.
store::Status setPolicyKey(std::span<const unsigned char> key, Q7EncPolicyInfo& policy);

// An error when a policy can't be used here, or has a name that can't be fetched: the checks of Q7_AddPolicyInfo() and
// of setPolicyName().
store::Status checkPolicy(const Q7EncPolicyInfo& policy);

}  // namespace engine::kms
