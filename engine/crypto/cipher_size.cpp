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

namespace engine {
namespace {

constexpr std::size_t kErrorSize = 256;  // bytes that callers hold ready for a reason

int refuse(char* error, const char* reason) noexcept {
  if (error != nullptr) std::snprintf(error, kErrorSize, "%s", reason);
  return 1;
}

// Whether the named policy exists and encrypts values whole, with a text encoding that `encodingFits` accepts.
bool encryptsWhole(const char* name, bool (*encodingFits)(int)) noexcept {
  const Q7EncPolicyInfo* policy = name == nullptr ? nullptr : findActivePolicy(name);
  if (policy == nullptr) return false;
  const PolicyCopy own(*policy);
  return own->encPos == 0 && own->encLen == 0 && encodingFits(own->strMode);
}

}  // namespace
}  // namespace engine

extern "C" {

int kezuGetCipherSize(int size, char* policy, int* out, char* error) {
  if (out == nullptr) return engine::refuse(error, "there is no place for the size");
  if (size < 0) return engine::refuse(error, "the size is negative");
  const Q7EncPolicyInfo* found = policy == nullptr ? nullptr : engine::findActivePolicy(policy);
  if (found == nullptr) return engine::refuse(error, "there is no policy of that name");
  const engine::PolicyCopy own(*found);
  if (const char* fault = engine::policyFault(*own)) return engine::refuse(error, fault);
  const engine::ValueFormat format(*own, *cipher::findSuite(own->algID, own->blockMode));
  const std::optional<unsigned int> total = format.valueSize(static_cast<std::size_t>(size));
  if (!total) return engine::refuse(error, "an encrypted value of that size is longer than 2147483647 bytes");
  *out = static_cast<int>(*total);
  return 0;
}

int checkNumericEnc(char* policy) {
  return engine::encryptsWhole(policy, [](int) { return true; }) ? 1 : 0;
}

int checkBlobEnc(char* policy) {
  return engine::encryptsWhole(policy, [](int encoding) { return encoding == engine::kTextRaw; }) ? 1 : 0;
}

}  // extern "C"
