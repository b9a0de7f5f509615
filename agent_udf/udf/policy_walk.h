// SPDX-License-Identifier: Apache-2.0
//
// Finding the policy of a value, on the per-row path.
#pragma once

#include <openssl/crypto.h>

#include <algorithm>
#include <string_view>

#include "kezu/engine.h"
#include "kezu/shared.h"

// Calls use(policy, key) for every policy of the active slot whose name equals `name` exactly, in order. Both stay
// usable until it returns: the record is a copy, and a key handle that is wiped meanwhile gives empty results. The copy
// keeps a slot that is rebuilt under a slow reader from changing the policy between the comparison and the use.
template <typename Use>
void forEachPolicyNamed(std::string_view name, Use use) {
  const int slot = kezu::observe(g_encPolicyArray_flag);
  const int count = std::min(kezu::observe(g_numberOfEncPolicy[slot]), kMaxPolicies);
  for (int i = 0; i < count; ++i) {
    if (!kezu::fieldEquals(g_encPolicyArray[slot][i].policyID, name)) {
      continue;
    }
    Q7EncPolicyInfo policy;
    kezu::loadRecord(policy, g_encPolicyArray[slot][i]);
    if (kezu::fieldEquals(policy.policyID, name)) {
      use(policy, kezu::observe(g_makeKeyArray[slot][i]));
    }
    OPENSSL_cleanse(policy.columnKey, sizeof policy.columnKey);
  }
}
