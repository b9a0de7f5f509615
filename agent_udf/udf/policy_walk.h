// SPDX-License-Identifier: Apache-2.0
//
// Finding the policy of a value, on the per-row path.
#pragma once

#include <algorithm>
#include <string_view>

#include "kezu/engine.h"
#include "kezu/shared.h"
#include "udf/policy_name.h"

// Where a walk found its policy. An administrator's changes move the active slot on, and rebuild the one that a slow
// reader is still in; then a key handle may be gone before it is used.
class PolicyWalk {
 public:
  // Calls use(policy, key) for every policy of the active slot whose name equals `text` exactly, in order. The policy
  // is the record in the table and `key` its handle, which gives empty results once the policy has changed. What came
  // of the calls is worth nothing when disturbed() says so afterwards.
  //
  // A name that one policy alone has is looked for where the calling thread found it last: the table has 2000 records,
  // and going through them takes longer than encrypting a value.
  template <typename Use>
  void run(std::string_view text, Use use) {
    const PolicyName name(text);
    slot_ = kezu::observe(g_encPolicyArray_flag);
    const int count = std::min(kezu::observe(g_numberOfEncPolicy[slot_]), kMaxPolicies);
    PolicyHint& hint = PolicyHint::of(name);
    if (hint.slot == slot_ && hint.count == count && hint.key == kezu::observe(g_makeKeyArray[slot_][hint.index]) &&
        name.isOf(g_encPolicyArray[slot_][hint.index])) {
      visit(hint.index, name, use);
      return;
    }
    int found = 0;
    for (int i = 0; i < count; ++i) {
      if (name.isOf(g_encPolicyArray[slot_][i])) {
        visit(i, name, use);
        hint = {slot_, count, i, key_};
        ++found;
      }
    }
    if (found != 1) {
      hint = {};
    }
  }

  // Whether a policy that was used was replaced before its use had ended: the result may be another policy's.
  bool disturbed() const { return disturbed_; }

  // Whether the policies moved on while the walk ran, so that an empty result may say nothing about the value.
  bool overtaken() const {
    return disturbed_ || kezu::observe(g_encPolicyArray_flag) != slot_ ||
           (used_ != nullptr && kezu::observe(*used_) != key_);
  }

 private:
  // A slot's keys are all taken out before any of its records is written again, and none of them comes back before the
  // slot's next turn. So a record that has the name afterwards, with the key that was used, had it all the while.
  template <typename Use>
  void visit(int index, const PolicyName& name, Use& use) {
    Q7EncPolicyInfo& policy = g_encPolicyArray[slot_][index];
    used_ = &g_makeKeyArray[slot_][index];
    key_ = kezu::observe(*used_);
    use(policy, key_);
    disturbed_ = disturbed_ || !name.isOf(policy) || kezu::observe(*used_) != key_;
  }

  int slot_ = 0;
  const BCipherKey* used_ = nullptr;  // the place of the last key that was used
  BCipherKey key_ = nullptr;
  bool disturbed_ = false;
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
