// SPDX-License-Identifier: Apache-2.0
//
// Finding a policy by its name in the active slot of the table.
#include "engine/crypto/active_policy.h"

#include <algorithm>

#include "kezu/shared.h"

namespace engine {

const Q7EncPolicyInfo* findActivePolicy(std::string_view name) noexcept {
  const int slot = std::clamp(kezu::observe(g_encPolicyArray_flag), 0, kPolicySlots - 1);
  const int count = std::min(kezu::observe(g_numberOfEncPolicy[slot]), kMaxPolicies);
  for (int i = 0; i < count; ++i) {
    const Q7EncPolicyInfo& policy = g_encPolicyArray[slot][i];
    if (kezu::fieldEquals(policy.policyID, name)) return &policy;
  }
  return nullptr;
}

}  // namespace engine
