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
        record_ = &g_encPolicyArray[slot_][i];
        used_ = &g_makeKeyArray[slot_][i];
        key_ = kezu::observe(*used_);
        use(policy, key_);
      }
      OPENSSL_cleanse(policy.columnKey, sizeof policy.columnKey);
    }
  }

  // The record in the table that use() was called with a copy of. Another thread may rebuild its slot.
  Q7EncPolicyInfo& record() const { return *record_; }

  // Whether the policies moved on while the walk ran, so that an empty result may say nothing about the value.
  bool overtaken() const {
    return kezu::observe(g_encPolicyArray_flag) != slot_ || (used_ != nullptr && kezu::observe(*used_) != key_);
  }

 private:
  int slot_ = 0;
  Q7EncPolicyInfo* record_ = nullptr;
  const BCipherKey* used_ = nullptr;  // the place of the last key that was used
  BCipherKey key_ = nullptr;
};

// Runs one walk over the policies, and runs it again when it came to nothing because they changed under it: an
// administrator's work must not turn a value into an empty one. walk(policies) returns whether there was output.
template <typename Walk>
void withPolicies(Walk walk) {
  constexpr int kMaxTries = 100;
  for (int tries = 0; tries < kMaxTries; ++tries) {
    PolicyWalk policies;
    if (walk(policies) || !policies.overtaken()) {
      return;
    }
  }
}
