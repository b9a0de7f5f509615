// SPDX-License-Identifier: Apache-2.0
//
// Digests and keyed digests for callers of the engine.
#include <cstddef>
#include <cstdint>

#include "cipher/digest.h"
#include "cipher/kdf.h"
#include "cipher/secret.h"
#include "engine/policy/policy_key.h"
#include "kezu/engine.h"
#include "kezu/shared.h"

namespace engine {
namespace {

using cipher::Bytes;
using cipher::Digest;

bool usable(const unsigned char* out, const unsigned int* outLen, const unsigned char* in, unsigned int inLen,
            int algorithm) noexcept {
  return out != nullptr && outLen != nullptr && (in != nullptr || inLen == 0) && cipher::isDigest(algorithm);
}

int hash(unsigned char* out, unsigned int* outLen, const unsigned char* in, unsigned int inLen,
         int algorithm) noexcept {
  if (outLen != nullptr) *outLen = 0;
  if (!usable(out, outLen, in, inLen, algorithm)) return 1;
  const auto chosen = static_cast<Digest>(algorithm);
  if (!cipher::digest(chosen, out, {in, inLen})) return 1;
  *outLen = static_cast<unsigned int>(cipher::digestSize(chosen));
  return 0;
}

// The place of the key handle that belongs to a record of the table; null for a record elsewhere.
const BCipherKey* handlePlaceOf(const Q7EncPolicyInfo* policy) noexcept {
  const auto table = reinterpret_cast<std::uintptr_t>(&g_encPolicyArray);
  const auto record = reinterpret_cast<std::uintptr_t>(policy);
  if (record < table || record >= table + sizeof g_encPolicyArray) return nullptr;
  const std::size_t index = (record - table) / sizeof(Q7EncPolicyInfo);
  return &g_makeKeyArray[index / kMaxPolicies][index % kMaxPolicies];
}

// With the keyed state that the record's handle keeps. A record of the table without a handle has no key: it may be
// half written.
bool hmacWith(BCipherKey key, const Q7EncPolicyInfo& policy, Digest algorithm, unsigned char* out,
              Bytes data) noexcept {
  PolicySession session(key, policy);
  const bool done = session && session.key().keyedDigest(algorithm, out, {&data, 1});
  return session.finish() && done;
}

// With a key derived for this one value.
bool hmacOnce(const Q7EncPolicyInfo& policy, Digest algorithm, unsigned char* out, Bytes data) noexcept {
  const PolicyCopy own(policy);
  cipher::SecretArray<cipher::kSha256Size> key;
  return deriveHmacKey(*own, key.bytes) && cipher::Hmac(algorithm, key.bytes).compute(out, {&data, 1});
}

}  // namespace
}  // namespace engine

extern "C" {

int Q7_HashBinary(unsigned char* out, unsigned int* outLen, const unsigned char* in, unsigned int inLen,
                  int algorithm) {
  return engine::hash(out, outLen, in, inLen, algorithm);
}

int kezuHashBinary(unsigned char* out, unsigned int* outLen, const unsigned char* in, unsigned int inLen,
                   int algorithm) {
  return engine::hash(out, outLen, in, inLen, algorithm);
}

int kezuHmacBinary(unsigned char* out, unsigned int* outLen, const unsigned char* in, unsigned int inLen, int algorithm,
                   Q7EncPolicyInfo* policy) {
  if (outLen != nullptr) *outLen = 0;
  if (policy == nullptr || !engine::usable(out, outLen, in, inLen, algorithm)) return 1;
  const auto chosen = static_cast<cipher::Digest>(algorithm);
  const BCipherKey* place = engine::handlePlaceOf(policy);
  BCipherKey key = place == nullptr ? nullptr : kezu::observe(*place);
  const engine::Bytes data(in, inLen);
  const bool done = place != nullptr ? engine::hmacWith(key, *policy, chosen, out, data)
                                     : engine::hmacOnce(*policy, chosen, out, data);
  if (!done) return 1;
  *outLen = static_cast<unsigned int>(cipher::digestSize(chosen));
  return 0;
}

}  // extern "C"
