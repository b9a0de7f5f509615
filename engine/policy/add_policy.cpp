// SPDX-License-Identifier: Apache-2.0
//
// Making a policy from its parameters.
#include <openssl/crypto.h>

#include <cstring>
#include <span>

#include "cipher/kdf.h"
#include "engine/policy/policy_key.h"
#include "kezu/engine.h"
#include "kezu/shared.h"

namespace engine {
namespace {

constexpr unsigned int kDrawKey = 0xFFFFFFFF;  // key length of a caller that gives no key
constexpr int kDrawnKeySize = 32;

// A record that is wiped when it goes.
struct NewPolicy {
  Q7EncPolicyInfo record{};

  NewPolicy() = default;
  NewPolicy(const NewPolicy&) = delete;
  NewPolicy& operator=(const NewPolicy&) = delete;
  ~NewPolicy() { OPENSSL_cleanse(&record, sizeof record); }
};

bool setName(Q7EncPolicyInfo& policy, const char* name) noexcept {
  const std::size_t length = name == nullptr ? sizeof policy.policyID : strnlen(name, sizeof policy.policyID);
  if (length >= sizeof policy.policyID) return false;
  std::memcpy(policy.policyID, name, length);
  return true;
}

bool setFlag(Q7EncPolicyInfo& policy, const char* flag) noexcept {
  if (flag == nullptr) return true;
  const std::size_t length = strnlen(flag, sizeof policy.encFlag + 1);
  if (length > sizeof policy.encFlag) return false;
  std::memcpy(policy.encFlag, flag, length);
  policy.encFlagLen = static_cast<int>(length);
  return true;
}

bool setKey(Q7EncPolicyInfo& policy, const unsigned char* bytes, unsigned int length) noexcept {
  const std::span<unsigned char> key(reinterpret_cast<unsigned char*>(policy.columnKey), sizeof policy.columnKey);
  if (bytes == nullptr) {
    policy.keyLength = kDrawnKeySize;
    return length == kDrawKey && cipher::randomBytes(key.first(kDrawnKeySize));
  }
  if (length < 1 || length > key.size()) return false;
  std::memcpy(key.data(), bytes, length);
  policy.keyLength = static_cast<int>(length);
  return true;
}

}  // namespace
}  // namespace engine

extern "C" int Q7_AddPolicyInfo(Q7EncPolicyInfo& policy, _BCipherKey** key, const char* name, int algorithm, int ivMode,
                                unsigned char* keyBytes, unsigned int keyLength, int encPos, int encLen, int blockMode,
                                int strMode, const char* encFlag) {
  if (key == nullptr) return 0;
  *key = nullptr;
  engine::NewPolicy made;
  made.record.algID = algorithm;
  made.record.ivMode = ivMode;
  made.record.encPos = encPos;
  made.record.encLen = encLen;
  made.record.blockMode = blockMode;
  made.record.strMode = strMode;
  if (!engine::setName(made.record, name) || !engine::setFlag(made.record, encFlag) ||
      !engine::setKey(made.record, keyBytes, keyLength)) {
    return 0;
  }
  *key = engine::createPolicyKey(made.record);
  if (*key == nullptr) return 0;
  kezu::storeRecord(policy, made.record);
  return 1;
}
