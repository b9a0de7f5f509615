// SPDX-License-Identifier: Apache-2.0
//
// The policy table's slots: reading the active one, and putting a whole new table into the next.
#pragma once

#include <optional>
#include <span>
#include <vector>

#include "cipher/secret.h"
#include "kezu/engine.h"

namespace engine {

using Policies = std::vector<Q7EncPolicyInfo, cipher::CleansingAllocator<Q7EncPolicyInfo>>;

// A copy of the policies in use.
Policies activePolicies();

// Whether every policy in use has its key.
bool activeKeysComplete() noexcept;

// When no policy is in use, wipes the ones that the other slots still hold, with their keys. A thread that is on its
// way through one of them finds nothing there any more, as it does in the active slot.
void forgetDiscardedPolicies() noexcept;

// A policy table with its keys, not in use yet.
class PreparedPolicies {
 public:
  // Creates the keys. Nothing when one can't be created, or there are more policies than a slot takes.
  static std::optional<PreparedPolicies> prepare(Policies policies);

  PreparedPolicies(PreparedPolicies&&) noexcept = default;
  PreparedPolicies& operator=(PreparedPolicies&&) = delete;
  ~PreparedPolicies();

  // Puts the table into the slot after the active one, whose old keys are wiped, and makes that slot the active one. To
  // be called once. A thread that uses the slot that was active goes on with it: it is next written by the fourth
  // change after this one.
  void publish() noexcept;

 private:
  PreparedPolicies() = default;

  Policies policies_;
  std::vector<BCipherKey> keys_;
};

}  // namespace engine
