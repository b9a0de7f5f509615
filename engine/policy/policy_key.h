// SPDX-License-Identifier: Apache-2.0
//
// From a policy record to the key handle that its values are encrypted with.
#pragma once

#include <cstdint>
#include <span>

#include "cipher/digest.h"
#include "cipher/key_slot.h"
#include "kezu/engine.h"

namespace engine {

// A policy record copied out of the table, where another thread may store it at the same time: then the copy may mix
// two records, and no key handle is bound to it. Wiped when it goes.
class PolicyCopy {
 public:
  explicit PolicyCopy(const Q7EncPolicyInfo& shared) noexcept;
  PolicyCopy(const PolicyCopy&) = delete;
  PolicyCopy& operator=(const PolicyCopy&) = delete;
  ~PolicyCopy();

  const Q7EncPolicyInfo& operator*() const noexcept { return record_; }
  const Q7EncPolicyInfo* operator->() const noexcept { return &record_; }

  // What a key handle is bound to: every byte of the record, those between its fields zeroed. They hold the column key.
  [[nodiscard]] cipher::Bytes binding() const noexcept {
    return {reinterpret_cast<const unsigned char*>(&record_), sizeof record_};
  }

 private:
  Q7EncPolicyInfo record_;
};

// One operation under a policy, as cipher::Session: with the key handle that was made for the policy. The record may
// lie in the table, where another thread stores it at the same time: it is read in place, each word of it once, and
// compared with what the handle was made for. Where all of it is equal, it was that policy.
class PolicySession {
 public:
  PolicySession(BCipherKey key, const Q7EncPolicyInfo& shared) noexcept;

  // As cipher::Session has them.
  explicit operator bool() const noexcept { return static_cast<bool>(session_); }
  cipher::PreparedKey& key() noexcept { return session_.key(); }
  bool finish() noexcept { return session_.finish(); }

  // The policy, with zeros for its column key, which is not copied.
  [[nodiscard]] const Q7EncPolicyInfo& policy() const noexcept { return policy_; }

 private:
  alignas(std::uint64_t) Q7EncPolicyInfo policy_;
  cipher::Session session_;  // after policy_, which making it fills
};

// Why a record can't be a policy: a constant text, or null when it can. Checks every field: the codes, their
// combination, the ranges, the key's length, the texts' terminators. `policy` is the caller's own memory.
const char* policyFault(const Q7EncPolicyInfo& policy) noexcept;

// The key handle of a policy, for a record of the table or a copy. Null when policyFault() finds one or memory runs
// out. The caller owns it (BCIPHER_WipeKey, then BCIPHER_DelKey).
BCipherKey createPolicyKey(const Q7EncPolicyInfo& policy) noexcept;

// Derives a policy's HMAC key, 32 bytes, from its column key. `policy` is the caller's own memory. False, with `key`
// wiped, for a key length out of range or when OpenSSL fails.
bool deriveHmacKey(const Q7EncPolicyInfo& policy, std::span<unsigned char> key) noexcept;

}  // namespace engine
