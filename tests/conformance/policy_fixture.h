// SPDX-License-Identifier: Apache-2.0
//
// A policy table for tests.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "fixture.h"

namespace conformance {

// Puts a policy with a key of its own at the end of a slot. Every policy differs from every other in all its fields.
inline Q7EncPolicyInfo& addPolicy(int slot, std::string_view name, bool with_key = true) {
  const int i = g_numberOfEncPolicy[slot]++;
  Q7EncPolicyInfo& policy = g_encPolicyArray[slot][i];
  setField(policy.policyID, name);
  policy.algID = i % kAlgorithmCount;
  policy.ivMode = i % kIvTypeCount;
  std::memset(policy.columnKey, i % 97 + 1, sizeof policy.columnKey);
  policy.keyLength = 32 + i % 32;
  policy.encPos = 1000 + i;
  policy.encLen = 2000 + i;
  policy.blockMode = i % kBlockModeCount;
  policy.strMode = i % kStrModeCount;
  std::memset(policy.encFlag, 'f', sizeof policy.encFlag);
  policy.encFlagLen = i % 17;
  if (with_key) {
    g_makeKeyArray[slot][i] = RecordingEngine::get().makeKey("key of " + std::string(name));
  }
  return policy;
}

// Names of the policies of a slot.
inline std::vector<std::string> policyNames(int slot) {
  std::vector<std::string> names;
  for (int i = 0; i < g_numberOfEncPolicy[slot]; ++i) {
    names.emplace_back(g_encPolicyArray[slot][i].policyID);
  }
  return names;
}

inline std::vector<std::string> activePolicyNames() {
  return policyNames(g_encPolicyArray_flag);
}

// Names of the first `count` key handles of a slot.
inline std::vector<std::string> keyNames(int slot, int count) {
  std::vector<std::string> names;
  for (int i = 0; i < count; ++i) {
    names.push_back(RecordingEngine::get().keyName(g_makeKeyArray[slot][i]));
  }
  return names;
}

}  // namespace conformance
