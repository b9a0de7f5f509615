// SPDX-License-Identifier: Apache-2.0
//
// What makes a record a policy, and the keys that are derived from its column key.
#include "engine/policy/policy_key.h"

#include <openssl/crypto.h>

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>

#include "cipher/kdf.h"
#include "cipher/suite.h"
#include "engine/policy/policy_codes.h"
#include "kezu/shared.h"

namespace engine {
namespace {

// One label a key (the info input of HKDF-SHA256). Encrypted values depend on them.
//
// The tags of the encrypt-then-MAC modes have a key of their own, not the HMAC key: the HMAC functions compute codes of
// any text under that one for anybody, and such a code must not be a tag.
constexpr std::string_view kCipherLabel = "orvanta cipher key";
constexpr std::string_view kIvLabel = "orvanta iv key";
constexpr std::string_view kHmacLabel = "orvanta hmac key";
constexpr std::string_view kTagLabel = "orvanta tag key";

constexpr int kMaxColumnKey = sizeof(Q7EncPolicyInfo::columnKey);
constexpr int kMaxFlag = sizeof(Q7EncPolicyInfo::encFlag);
constexpr std::size_t kNameEnd = offsetof(Q7EncPolicyInfo, policyID) + sizeof(Q7EncPolicyInfo::policyID);
constexpr std::size_t kNameGap = offsetof(Q7EncPolicyInfo, algID) - kNameEnd;

// The gap after the name is the only one, so that two records with equal fields have equal bindings.
static_assert(sizeof(Q7EncPolicyInfo) == kNameEnd + kNameGap + kMaxColumnKey + kMaxFlag + 8 * sizeof(int));
static_assert(sizeof(Q7EncPolicyInfo) <= cipher::kMaxBindingSize);

bool inRange(int code, int count) noexcept {
  return code >= 0 && code < count;
}

bool needsAesInstructions(int algorithm) noexcept {
  return algorithm == static_cast<int>(cipher::Algorithm::kAes128Ni) ||
         algorithm == static_cast<int>(cipher::Algorithm::kAes256Ni);
}

// Whether a random initialization vector would reach the encrypted value. It does not in ECB and in a digest.
bool takesRandomIv(const cipher::Suite& suite) noexcept {
  return suite.ivSize != 0;
}

const char* cipherFault(const Q7EncPolicyInfo& policy) noexcept {
  if (!inRange(policy.algID, kAlgorithmCount)) return "the algorithm is not known";
  if (!inRange(policy.blockMode, kBlockModeCount)) return "the block mode is not known";
  if (!inRange(policy.ivMode, kIvTypeCount)) return "the IV type is not known";
  if (!inRange(policy.strMode, kStrModeCount)) return "the text encoding is not known";
  const cipher::Suite* suite = cipher::findSuite(policy.algID, policy.blockMode);
  if (suite == nullptr) return "the algorithm is not offered with this block mode";
  if (policy.ivMode == kIvRandom && !takesRandomIv(*suite)) return "the cipher has no IV that could be random";
  if (needsAesInstructions(policy.algID) && Check_CPU_support_AES() == 0)
    return "the processor has no AES instructions";
  return nullptr;
}

cipher::Bytes columnKey(const Q7EncPolicyInfo& policy) noexcept {
  return {reinterpret_cast<const unsigned char*>(policy.columnKey), static_cast<std::size_t>(policy.keyLength)};
}

bool deriveMaterial(const Q7EncPolicyInfo& policy, const cipher::Suite& suite, cipher::KeyMaterial& material) noexcept {
  const cipher::Bytes key = columnKey(policy);
  return (suite.keySize == 0 || cipher::hkdfSha256({material.cipherKey, suite.keySize}, key, kCipherLabel)) &&
         cipher::hkdfSha256(material.ivKey, key, kIvLabel) && cipher::hkdfSha256(material.hmacKey, key, kHmacLabel) &&
         cipher::hkdfSha256(material.tagKey, key, kTagLabel);
}

// The record as its words are compared: in pairs, as the binding's words are.
using Word = kezu::detail::Word<alignof(Q7EncPolicyInfo)>;
using Pair = std::uint64_t;
constexpr std::size_t kRecordWords = sizeof(Q7EncPolicyInfo) / sizeof(Word);
constexpr std::size_t kKeyBegin = offsetof(Q7EncPolicyInfo, columnKey);
constexpr std::size_t kGapPair = kNameEnd / sizeof(Pair);
constexpr Pair kOutsideGap = ~(((Pair{1} << 8 * kNameGap) - 1) << 8 * (kNameEnd % sizeof(Pair)));
static_assert(sizeof(Pair) == 2 * sizeof(Word) && std::endian::native == std::endian::little);
static_assert(kKeyBegin % sizeof(Word) == 0 && kMaxColumnKey % sizeof(Word) == 0);

constexpr bool isOfKey(std::size_t word) noexcept {
  return word >= kKeyBegin / sizeof(Word) && word < (kKeyBegin + kMaxColumnKey) / sizeof(Word);
}

template <std::size_t Index>
Word load(const Word* shared) noexcept {
  if constexpr (Index < kRecordWords) {
    return std::atomic_ref(const_cast<Word&>(shared[Index])).load(std::memory_order_relaxed);
  }
  return 0;
}

// Reads a pair of the record's words, compares it, and copies it unless it is of the column key.
template <std::size_t Index>
Pair takePair(const Word* shared, const cipher::Binding& binding, unsigned char* copy) noexcept {
  const Word first = load<2 * Index>(shared);
  const Word second = load<2 * Index + 1>(shared);
  const Pair kept = (isOfKey(2 * Index) ? 0 : Pair{first}) | (isOfKey(2 * Index + 1) ? 0 : Pair{second} << 32);
  std::memcpy(copy + Index * sizeof kept, &kept, 2 * Index + 1 < kRecordWords ? sizeof kept : sizeof first);
  const Pair difference = (first | Pair{second} << 32) ^ binding.word(Index);
  return Index == kGapPair ? difference & kOutsideGap : difference;
}

template <std::size_t... Indices>
Pair takePairs(const Word* shared, const cipher::Binding& binding, unsigned char* copy,
               std::index_sequence<Indices...> /*all*/) noexcept {
  return (takePair<Indices>(shared, binding, copy) | ...);
}

// Copies a record but for its column key, and returns whether all of it is what the binding has, in constant time.
bool takeBound(Q7EncPolicyInfo& copy, const Q7EncPolicyInfo& shared, const cipher::Binding& binding) noexcept {
  constexpr auto kPairs = std::make_index_sequence<(kRecordWords + 1) / 2>();
  const Pair differences = takePairs(kezu::detail::words(const_cast<Q7EncPolicyInfo&>(shared)), binding,
                                     reinterpret_cast<unsigned char*>(&copy), kPairs);
  return differences == 0 && binding.size() == sizeof shared;
}

}  // namespace

PolicySession::PolicySession(BCipherKey key, const Q7EncPolicyInfo& shared) noexcept
    : session_(key, [this, &shared](const cipher::Binding& binding) { return takeBound(policy_, shared, binding); }) {}

PolicyCopy::PolicyCopy(const Q7EncPolicyInfo& shared) noexcept {
  kezu::loadRecord(record_, shared);
  std::memset(reinterpret_cast<unsigned char*>(&record_) + kNameEnd, 0, kNameGap);
}

PolicyCopy::~PolicyCopy() {
  OPENSSL_cleanse(&record_, sizeof record_);
}

const char* policyFault(const Q7EncPolicyInfo& policy) noexcept {
  if (std::memchr(policy.policyID, '\0', sizeof policy.policyID) == nullptr) return "the name has no end";
  if (policy.keyLength < 1 || policy.keyLength > kMaxColumnKey) return "the key's length is out of range";
  if (policy.encPos < 0 || policy.encLen < 0) return "the range to encrypt is negative";
  if (policy.encFlagLen < 0 || policy.encFlagLen > kMaxFlag) return "the encryption flag's length is out of range";
  return cipherFault(policy);
}

BCipherKey createPolicyKey(const Q7EncPolicyInfo& policy) noexcept {
  const PolicyCopy own(policy);
  if (policyFault(*own) != nullptr) return nullptr;
  const cipher::Suite* suite = cipher::findSuite(own->algID, own->blockMode);
  cipher::KeyMaterial material{};
  BCipherKey key = nullptr;
  if (deriveMaterial(*own, *suite, material)) key = cipher::makeKey(own->algID, suite, material, own.binding());
  OPENSSL_cleanse(&material, sizeof material);
  return key;
}

bool deriveHmacKey(const Q7EncPolicyInfo& policy, std::span<unsigned char> key) noexcept {
  if (policy.keyLength >= 1 && policy.keyLength <= kMaxColumnKey) {
    return cipher::hkdfSha256(key, columnKey(policy), kHmacLabel);
  }
  OPENSSL_cleanse(key.data(), key.size());
  return false;
}

}  // namespace engine
