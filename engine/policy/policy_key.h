// SPDX-License-Identifier: Apache-2.0
//
// From a policy record to the key handle that its values are encrypted with.
#pragma once

#include "kezu/engine.h"

namespace engine {

// Why a record can't be a policy: a constant text, or null when it can. Checks every field: the codes, their combination,
// the ranges, the key's length, the texts' terminators.
const char* policyFault(const Q7EncPolicyInfo& policy) noexcept;

// The key handle of a policy, for a record of the table or a copy. Null when policyFault() finds one or memory runs out. The
// caller owns it (BCIPHER_WipeKey, then BCIPHER_DelKey).
BCipherKey createPolicyKey(const Q7EncPolicyInfo& policy) noexcept;

}  // namespace engine
