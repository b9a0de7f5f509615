// SPDX-License-Identifier: Apache-2.0
//
// Finding the policy of a value, on the per-row path.
#pragma once

#include <openssl/crypto.h>

#include <algorithm>
#include <string_view>

#include "kezu/engine.h"
#include "kezu/shared.h"

// Where a walk found its policy. An administrator's changes move the active slot on, and rebuild the one that a slow
// reader is still in; then a key handle may be gone before it is used.
class PolicyWalk {
 public:
  // Calls use(policy, key) for every policy of the active slot whose name equals `name` exactly, in order. Both stay
  // usable until it returns: the record is a copy, and a key handle that is wiped meanwhile gives empty results. The
  // copy keeps a slot that is rebuilt from changing the policy between the comparison and the use.
  template <typename Use>
  void run(std::string_view name, Use use) {
    slot_ = kezu::observe(g_encPolicyArray_flag);
    used_ = nullptr;
    const int count = std::min(kezu::observe(g_numberOfEncPolicy[slot_]), kMaxPolicies);
    for (int i = 0; i < count; ++i) {
      if (!kezu::fieldEquals(g_encPolicyArray[slot_][i].policyID, name)) {
        continue;
      }
      Q7EncPolicyInfo policy;
      kezu::loadRecord(policy, g_encPolicyArray[slot_][i]);
      if (kezu::fieldEquals(policy.policyID, name)) {
        used_ = &g_makeKeyArray[slot_][i];
        key_ = kezu::observe(*used_);
        use(policy, key_);
      }
      OPENSSL_cleanse(policy.columnKey, sizeof policy.columnKey);
    }
  }

  // Whether the policies moved on while the walk ran, so that an empty result may say nothing about the value.
  bool overtaken() const {
    return kezu::observe(g_encPolicyArray_flag) != slot_ || (used_ != nullptr && kezu::observe(*used_) != key_);
  }

 private:
  int slot_ = 0;
  const BCipherKey* used_ = nullptr;  // the place of the last key that was used
  BCipherKey key_ = nullptr;
};
