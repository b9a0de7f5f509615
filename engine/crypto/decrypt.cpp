// SPDX-License-Identifier: Apache-2.0
//
// Decrypting one value.
#include <openssl/crypto.h>

#include <algorithm>

#include "engine/crypto/authenticated_parts.h"
#include "engine/crypto/scratch.h"
#include "engine/crypto/value_call.h"
#include "engine/crypto/value_format.h"
#include "engine/policy/policy_key.h"
#include "kezu/engine.h"

namespace engine {
namespace {

// Whether the initialization vector is the one that encrypting the clear value would have computed.
bool ivMatches(Bytes iv, cipher::PreparedKey& key, const ValueParts& clear) noexcept {
  unsigned char expected[cipher::kMaxIvSize];
  computeIv({expected, iv.size()}, key, clear);
  return CRYPTO_memcmp(expected, iv.data(), iv.size()) == 0;
}

// Decrypts a raw value into the call's output, behind the clear part before it. Gives nothing for what this policy did
// not make.
cipher::Opened open(ValueCall& call, const ValueFormat& format, cipher::PreparedKey& key, const ValueParts& parts,
                    const RawParts& raw) noexcept {
  const AssociatedData associated(format, key.suite(), parts);
  if (!associated.valid()) return {};
  const std::size_t around = parts.before.size() + parts.after.size();
  const std::span<unsigned char> room(call.out() + (call.capacity() < around ? 0 : parts.before.size()),
                                      call.capacity() < around ? 0 : call.capacity() - around);
  const cipher::Opened opened = key.decrypt(room, raw.iv, associated.bytes(), raw.cipherText, raw.tag);
  if (!opened.valid || opened.size > room.size() || call.capacity() < around) return opened;
  const ValueParts clear{parts.before, room.first(opened.size), parts.after};
  const bool genuine =
      format.fits(opened.size, !parts.after.empty()) && (!format.computesIv() || ivMatches(raw.iv, key, clear));
  if (genuine) return opened;
  OPENSSL_cleanse(room.data(), opened.size);
  return {};
}

int decryptParts(ValueCall& call, const ValueFormat& format, PolicySession& session) noexcept {
  const ValueParts parts = format.splitEncrypted(call.value());
  const Bytes flag = format.flag();
  if (session.key().suite().form == cipher::Form::kOneWay || parts.middle.size() < flag.size() ||
      !std::equal(flag.begin(), flag.end(), parts.middle.begin())) {
    return call.noResult();
  }
  const Bytes text = parts.middle.subspan(flag.size());
  Scratch scratch(ScratchUse::kDecodedText);
  const std::size_t decodedSize = format.decodedSize(text);
  unsigned char* room = decodedSize == 0 ? nullptr : scratch.take(decodedSize);
  if (decodedSize != 0 && room == nullptr) return call.noResult();
  const std::optional<Bytes> raw = format.decode(room, text);
  const std::optional<RawParts> rawParts = raw ? format.splitRaw(*raw) : std::nullopt;
  if (!rawParts) return call.noResult();
  const cipher::Opened opened = open(call, format, session.key(), parts, *rawParts);
  const std::size_t total = parts.before.size() + opened.size + parts.after.size();
  if (!session.finish()) return call.withdraw(total);
  if (!opened.valid) return call.noResult();
  if (total > call.capacity()) return call.doesNotFit(total);
  std::copy(parts.before.begin(), parts.before.end(), call.out());
  std::copy(parts.after.begin(), parts.after.end(), call.out() + parts.before.size() + opened.size);
  return call.done(total);
}

}  // namespace
}  // namespace engine

extern "C" int Q7_DecryptBinaryExt(unsigned char* out, unsigned int* outLen, const unsigned char* in,
                                   unsigned int inLen, Q7EncPolicyInfo* policy, _BCipherKey* key) {
  engine::ValueCall call(out, outLen, in, inLen);
  if (!call.valid() || policy == nullptr) return call.noResult();
  engine::PolicySession session(key, *policy);
  if (!session) return call.noResult();
  const engine::ValueFormat format(session.policy(), session.key().suite());
  return format.leavesAsIs(call.value().size()) ? call.passOn() : engine::decryptParts(call, format, session);
}
