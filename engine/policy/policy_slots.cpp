// SPDX-License-Identifier: Apache-2.0
#include "engine/policy/policy_slots.h"

#include <algorithm>

#include "engine/policy/policy_key.h"
#include "kezu/shared.h"

namespace engine {
namespace {

int activeSlot() noexcept {
  return std::clamp(kezu::observe(g_encPolicyArray_flag), 0, kPolicySlots - 1);
}

int slotCount(int slot) noexcept {
  return std::clamp(kezu::observe(g_numberOfEncPolicy[slot]), 0, kMaxPolicies);
}

void destroyKey(BCipherKey key) noexcept {
  BCIPHER_WipeKey(key);
  BCIPHER_DelKey(key);
}

void emptySlot(int slot) noexcept {
  for (BCipherKey& handle : g_makeKeyArray[slot]) {
    destroyKey(std::atomic_ref(handle).exchange(nullptr, std::memory_order_acq_rel));
  }
  for (Q7EncPolicyInfo& record : g_encPolicyArray[slot]) {
    kezu::clearRecord(record);
  }
}

bool holdsKeys(int slot) noexcept {
  const auto& keys = g_makeKeyArray[slot];
  return std::any_of(std::begin(keys), std::end(keys),
                     [](const BCipherKey& key) { return kezu::observe(key) != nullptr; });
}

}  // namespace

Policies activePolicies() {
  const int slot = activeSlot();
  Policies policies(static_cast<std::size_t>(slotCount(slot)));
  for (std::size_t i = 0; i < policies.size(); ++i) {
    kezu::loadRecord(policies[i], g_encPolicyArray[slot][i]);
  }
  return policies;
}

bool activeKeysComplete() noexcept {
  const int slot = activeSlot();
  const BCipherKey* keys = g_makeKeyArray[slot];
  return std::all_of(keys, keys + slotCount(slot), [](const BCipherKey& key) { return kezu::observe(key) != nullptr; });
}

void forgetDiscardedPolicies() noexcept {
  const int active = activeSlot();
  if (slotCount(active) != 0) {
    return;
  }
  for (int slot = 0; slot < kPolicySlots; ++slot) {
    if (slot != active && holdsKeys(slot)) {
      emptySlot(slot);
    }
  }
}

std::optional<PreparedPolicies> PreparedPolicies::prepare(Policies policies) {
  if (policies.size() > static_cast<std::size_t>(kMaxPolicies)) {
    return std::nullopt;
  }
  PreparedPolicies prepared;
  prepared.policies_ = std::move(policies);
  prepared.keys_.reserve(prepared.policies_.size());
  for (const Q7EncPolicyInfo& policy : prepared.policies_) {
    BCipherKey key = createPolicyKey(policy);
    if (key == nullptr) {
      return std::nullopt;
    }
    prepared.keys_.push_back(key);
  }
  return prepared;
}

PreparedPolicies::~PreparedPolicies() {
  for (BCipherKey key : keys_) {
    destroyKey(key);
  }
}

void PreparedPolicies::publish() noexcept {
  const int next = (activeSlot() + 1) % kPolicySlots;
  emptySlot(next);
  for (std::size_t i = 0; i < policies_.size(); ++i) {
    kezu::storeRecord(g_encPolicyArray[next][i], policies_[i]);
    kezu::publish(g_makeKeyArray[next][i], keys_[i]);
  }
  kezu::publishSlot(g_numberOfEncPolicy, g_encPolicyArray_flag, next, static_cast<int>(policies_.size()));
  keys_.clear();
  forgetDiscardedPolicies();
}

}  // namespace engine
