// SPDX-License-Identifier: Apache-2.0
#include "conf/policy_table.h"

#include "kezu/engine.h"
#include "kezu/shared.h"

int activePolicySlot() {
  return kezu::observe(g_encPolicyArray_flag);
}

int activePolicyCount() {
  return kezu::observe(g_numberOfEncPolicy[activePolicySlot()]);
}

int findPolicyIn(int slot, std::string_view name) {
  const int count = kezu::observe(g_numberOfEncPolicy[slot]);
  for (int i = 0; i < count; ++i) {
    if (kezu::fieldEquals(g_encPolicyArray[slot][i].policyID, name)) {
      return i;
    }
  }
  return -1;
}

void clearPolicySlot(int slot) {
  for (BCipherKey& handle : g_makeKeyArray[slot]) {
    BCipherKey key = kezu::observe(handle);
    BCIPHER_WipeKey(key);
    BCIPHER_DelKey(key);
    kezu::publish(handle, BCipherKey{nullptr});
  }
  for (Q7EncPolicyInfo& record : g_encPolicyArray[slot]) {
    kezu::clearRecord(record);
  }
}
