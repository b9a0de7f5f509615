// SPDX-License-Identifier: Apache-2.0
//
// Encrypting one value.
#include <algorithm>

#include "cipher/iv_source.h"
#include "engine/crypto/authenticated_parts.h"
#include "engine/crypto/value_call.h"
#include "engine/crypto/value_format.h"
#include "engine/policy/policy_key.h"
#include "kezu/engine.h"
#include "kezu/shared.h"

namespace engine {
namespace {

// The keyed digest that a one-way algorithm puts in the place of a text.
bool digestInto(unsigned char* out, cipher::PreparedKey& key, Bytes text) noexcept {
  return key.keyedDigest(key.suite().digest, out, {&text, 1});
}

// Writes the raw form of a value's middle part to `raw`, of format.rawSize() bytes.
bool seal(std::span<unsigned char> raw, const ValueFormat& format, cipher::PreparedKey& key,
          const ValueParts& parts) noexcept {
  raw[0] = kVersionByte;
  if (key.suite().form == cipher::Form::kOneWay) return digestInto(raw.data() + 1, key, parts.middle);
  const auto iv = raw.subspan(1, format.ivSize());
  if (format.computesIv()) {
    computeIv(iv, key, parts);
  } else if (!iv.empty() && !cipher::randomIv(iv)) {
    return false;
  }
  unsigned char* cipherText = iv.data() + iv.size();
  unsigned char* tag = cipherText + key.suite().cipherSize(parts.middle.size());
  const AssociatedData associated(format, key.suite(), parts);
  return associated.valid() && key.encrypt(cipherText, tag, iv, associated.bytes(), parts.middle);
}

int encryptParts(ValueCall& call, const ValueFormat& format, PolicySession& session) noexcept {
  const ValueParts parts = format.splitClear(call.value());
  const std::optional<unsigned int> total = format.valueSize(call.value().size());
  if (!total) return call.noResult();
  if (*total > call.capacity()) return call.doesNotFit(*total);
  const std::span<unsigned char> out(call.out(), *total);
  const auto encoded = out.subspan(parts.before.size(), *total - parts.before.size() - parts.after.size());
  const auto raw = encoded.last(static_cast<std::size_t>(format.rawSize(parts.middle.size())));
  const bool sealed = seal(raw, format, session.key(), parts);
  if (!session.finish() || !sealed) return call.withdraw(*total);
  format.encode(std::copy(format.flag().begin(), format.flag().end(), encoded.data()), raw);
  std::copy(parts.before.begin(), parts.before.end(), out.begin());
  std::copy(parts.after.begin(), parts.after.end(), out.end() - static_cast<std::ptrdiff_t>(parts.after.size()));
  return call.done(*total);
}

int encryptValue(ValueCall& call, const ValueFormat& format, PolicySession& session) noexcept {
  const Bytes value = call.value();
  if (format.leavesAsIs(value.size())) return call.passOn();
  if (!format.flag().empty() && format.looksEncoded(format.splitEncrypted(value).middle)) {
    return kezu::observe(g_doubleEncryptMode) == kDoubleEncryptError ? call.noResult() : call.passOn();
  }
  return encryptParts(call, format, session);
}

}  // namespace
}  // namespace engine

extern "C" int Q7_EncryptBinaryExt(unsigned char* out, unsigned int* outLen, const unsigned char* in,
                                   unsigned int inLen, Q7EncPolicyInfo* policy, _BCipherKey* key) {
  engine::ValueCall call(out, outLen, in, inLen);
  if (!call.valid() || policy == nullptr) return call.noResult();
  engine::PolicySession session(key, *policy);
  if (!session) return call.noResult();
  return engine::encryptValue(call, engine::ValueFormat(session.policy(), session.key().suite()), session);
}
