// SPDX-License-Identifier: Apache-2.0
//
// What a named policy makes of values: their size, and which columns can hold them.
#include <cstddef>
#include <cstdio>
#include <optional>

#include "cipher/suite.h"
#include "engine/crypto/active_policy.h"
#include "engine/crypto/value_format.h"
#include "engine/policy/policy_codes.h"
#include "engine/policy/policy_key.h"
#include "kezu/engine.h"
#include "kezu/shared.h"

namespace engine {
namespace {

constexpr std::size_t kErrorSize = 256;  // bytes that callers hold ready for a reason

int refuse(char* error, const char* reason) noexcept {
  if (error != nullptr) std::snprintf(error, kErrorSize, "%s", reason);
  return 1;
}

// Calls use(policy) with a copy of the named policy, and returns whether there is one. The copy is of one policy: it is
// taken again when another thread rebuilt the slot, or emptied it, in between.
template <typename Use>
bool withActivePolicy(const char* name, Use use) noexcept {
  constexpr int kMaxTries = 100;
  for (int tries = 0; tries < kMaxTries; ++tries) {
    const int flag = kezu::observe(g_encPolicyArray_flag);
    const Q7EncPolicyInfo* found = name == nullptr ? nullptr : findActivePolicy(name);
    if (found == nullptr) return false;
    const std::ptrdiff_t index = found - &g_encPolicyArray[0][0];
    const BCipherKey& place = g_makeKeyArray[index / kMaxPolicies][index % kMaxPolicies];
    BCipherKey key = kezu::observe(place);
    const PolicyCopy own(*found);
    if (key != nullptr && kezu::fieldEquals(own->policyID, name) && kezu::observe(place) == key &&
        kezu::observe(g_encPolicyArray_flag) == flag) {
      use(*own);
      return true;
    }
  }
  return false;
}

// Whether the named policy exists and encrypts values whole, with a text encoding that `encodingFits` accepts.
bool encryptsWhole(const char* name, bool (*encodingFits)(int)) noexcept {
  bool whole = false;
  withActivePolicy(name, [&](const Q7EncPolicyInfo& policy) {
    whole = policyFault(policy) == nullptr && policy.encPos == 0 && policy.encLen == 0 && encodingFits(policy.strMode);
  });
  return whole;
}

}  // namespace
}  // namespace engine

extern "C" {

int kezuGetCipherSize(int size, char* policy, int* out, char* error) {
  if (out == nullptr) return engine::refuse(error, "there is no place for the size");
  if (size < 0) return engine::refuse(error, "the size is negative");
  const char* fault = "there is no policy of that name";
  engine::withActivePolicy(policy, [&](const Q7EncPolicyInfo& own) {
    fault = engine::policyFault(own);
    if (fault != nullptr) return;
    const engine::ValueFormat format(own, *cipher::findSuite(own.algID, own.blockMode));
    const std::optional<unsigned int> total = format.valueSize(static_cast<std::size_t>(size));
    if (total) {
      *out = static_cast<int>(*total);
    } else {
      fault = "an encrypted value of that size is longer than 2147483647 bytes";
    }
  });
  return fault == nullptr ? 0 : engine::refuse(error, fault);
}

int checkNumericEnc(char* policy) {
  return engine::encryptsWhole(policy, [](int) { return true; }) ? 1 : 0;
}

int checkBlobEnc(char* policy) {
  return engine::encryptsWhole(policy, [](int encoding) { return encoding == engine::kTextRaw; }) ? 1 : 0;
}

}  // extern "C"
