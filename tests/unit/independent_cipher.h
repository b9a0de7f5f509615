// SPDX-License-Identifier: Apache-2.0
//
// Encrypted values made a second time, from docs/ciphertext.md alone: direct OpenSSL calls, none of the product's own
// code. Slow and plain on purpose.
#pragma once

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/provider.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "tests/unit/crypto_fixture.h"

namespace test::independent {

inline void require(bool condition) {
  if (!condition) throw std::runtime_error("OpenSSL failed in the test's own computation");
}

inline OSSL_LIB_CTX* context() {
  static OSSL_LIB_CTX* const context = [] {
    OSSL_LIB_CTX* made = OSSL_LIB_CTX_new();
    require(OSSL_PROVIDER_load(made, "default") != nullptr && OSSL_PROVIDER_load(made, "legacy") != nullptr);
    return made;
  }();
  return context;
}

inline Data hmacSha256(const Data& key, const Data& data) {
  Data out(32);
  unsigned int size = 0;
  require(HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), data.data(), data.size(), out.data(), &size) !=
          nullptr);
  return out;
}

// RFC 5869, sections 2.2 and 2.3, without a salt.
inline Data hkdf(const Data& key, const std::string& info, std::size_t size) {
  const Data pseudoRandomKey = hmacSha256(Data(32), key);
  Data out;
  Data block;
  for (unsigned char counter = 1; out.size() < size; ++counter) {
    block = hmacSha256(pseudoRandomKey, block + bytesOf(info) + Data{counter});
    out = out + block;
  }
  out.resize(size);
  return out;
}

inline Data length32(std::size_t size) {
  return {static_cast<unsigned char>(size >> 24), static_cast<unsigned char>(size >> 16),
          static_cast<unsigned char>(size >> 8), static_cast<unsigned char>(size)};
}

struct Sealed {
  Data cipherText, tag;
};

// One text through EVP, with fresh objects. `components` are fed as associated data, in order.
inline Sealed evpSeal(const std::string& cipherName, const Data& key, const Data& iv,
                      const std::vector<Data>& components, const Data& text, bool tagged) {
  const std::unique_ptr<EVP_CIPHER, decltype(&EVP_CIPHER_free)> cipher(
      EVP_CIPHER_fetch(context(), cipherName.c_str(), nullptr), EVP_CIPHER_free);
  const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> run(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
  require(cipher != nullptr && run != nullptr);
  const bool ccm = cipherName.ends_with("CCM");
  const bool choosesIv = ccm || cipherName.ends_with("GCM") || cipherName.ends_with("OCB");
  require(EVP_EncryptInit_ex(run.get(), cipher.get(), nullptr, nullptr, nullptr) == 1);
  if (choosesIv)
    require(EVP_CIPHER_CTX_ctrl(run.get(), EVP_CTRL_AEAD_SET_IVLEN, static_cast<int>(iv.size()), nullptr) == 1);
  if (ccm) require(EVP_CIPHER_CTX_ctrl(run.get(), EVP_CTRL_AEAD_SET_TAG, 16, nullptr) == 1);
  require(EVP_EncryptInit_ex(run.get(), nullptr, nullptr, key.data(), iv.empty() ? nullptr : iv.data()) == 1);
  int written = 0;
  int last = 0;
  if (ccm) require(EVP_EncryptUpdate(run.get(), nullptr, &written, nullptr, static_cast<int>(text.size())) == 1);
  for (const Data& component : components) {
    require(EVP_EncryptUpdate(run.get(), nullptr, &written, component.data(), static_cast<int>(component.size())) == 1);
  }
  Sealed sealed{Data(text.size() + 32), Data(tagged ? 16 : 0)};
  const unsigned char nothing = 0;
  written = 0;
  if (!text.empty() || ccm) {
    require(EVP_EncryptUpdate(run.get(), sealed.cipherText.data(), &written, text.empty() ? &nothing : text.data(),
                              static_cast<int>(text.size())) == 1);
  }
  require(EVP_EncryptFinal_ex(run.get(), sealed.cipherText.data() + written, &last) == 1);
  sealed.cipherText.resize(static_cast<std::size_t>(written + last));
  if (tagged) require(EVP_CIPHER_CTX_ctrl(run.get(), EVP_CTRL_AEAD_GET_TAG, 16, sealed.tag.data()) == 1);
  return sealed;
}

struct Parts {
  Data before, middle, after;
};

inline Parts split(const Q7EncPolicyInfo& policy, const Data& value) {
  const auto position = static_cast<std::ptrdiff_t>(policy.encPos);
  const auto rest = static_cast<std::ptrdiff_t>(value.size()) - position;
  const auto middle = policy.encLen == 0 ? rest : std::min<std::ptrdiff_t>(policy.encLen, rest);
  const auto start = value.begin() + position;
  return {{value.begin(), start}, {start, start + middle}, {start + middle, value.end()}};
}

inline std::string cipherNameOf(const Q7EncPolicyInfo& policy) {
  static const char* const kNames[] = {"AES-128",      "AES-192",      "AES-256", "ARIA-128",
                                       "ARIA-192",     "ARIA-256",     "SEED",    "CAMELLIA-128",
                                       "CAMELLIA-192", "CAMELLIA-256", "SM4",     "DES-EDE3"};
  static const char* const kModes[] = {"ECB", "CBC", "CFB", "OFB",  "CTR", "GCM",
                                       "CCM", "SIV", "CBC", "CFB8", "CTR", "OCB"};
  if (policy.algID == CHACHA20) return "ChaCha20";
  const int algorithm = policy.algID == AES128_NI ? +AES128 : policy.algID == AES256_NI ? +AES256 : policy.algID;
  return std::string(kNames[algorithm]) + "-" + kModes[policy.blockMode];
}

inline std::size_t keySizeOf(const Q7EncPolicyInfo& policy) {
  static const std::size_t kSizes[] = {16, 24, 32, 16, 24, 32, 16, 16, 24, 32, 16, 24, 32};
  const std::size_t size = policy.algID == AES128_NI ? 16 : policy.algID == AES256_NI ? 32 : kSizes[policy.algID];
  return policy.blockMode == SIV && policy.algID != CHACHA20 ? 2 * size : size;
}

// Bytes of the stored initialization vector.
inline std::size_t ivSizeOf(const Q7EncPolicyInfo& policy) {
  if (policy.algID == CHACHA20) return 12;
  switch (policy.blockMode) {
    case ECB:
      return 0;
    case GCM:
    case OCB:
      return 12;
    case CCM:
      return 11;
    case SIV:
      return policy.ivMode == RANDOM ? 16 : 0;
    default:
      return policy.algID == TDES168 ? 8 : 16;
  }
}

// The raw encrypted form of a value's middle part, for policies that are not one-way. Under a RANDOM policy with `iv`.
inline Data rawOf(const Q7EncPolicyInfo& policy, const Parts& value, Data iv) {
  const Data columnKey(policy.columnKey, policy.columnKey + policy.keyLength);
  const bool stream = policy.algID == CHACHA20;
  const bool whole = policy.encPos == 0 && policy.encLen == 0;
  if (policy.ivMode == DETERMINISTIC) {
    iv = hmacSha256(hkdf(columnKey, "orvanta iv key", 32), length32(value.before.size()) + value.before +
                                                               length32(value.middle.size()) + value.middle +
                                                               length32(value.after.size()) + value.after);
    iv.resize(ivSizeOf(policy));
  }
  const Data associated =
      whole ? Data{} : length32(value.before.size()) + value.before + length32(value.after.size()) + value.after;
  const bool siv = !stream && policy.blockMode == SIV;
  const bool mac = !stream && (policy.blockMode == CBC_HMAC || policy.blockMode == CTR_HMAC);
  const bool aead = !stream && (policy.blockMode == GCM || policy.blockMode == CCM || policy.blockMode == OCB || siv);
  std::vector<Data> components;
  if (siv && value.middle.empty()) components.push_back(bytesOf("empty"));
  if (aead && !associated.empty()) components.push_back(associated);
  if (siv && !iv.empty()) components.push_back(iv);
  const Data text = siv && value.middle.empty() ? Data(1) : value.middle;
  const Data start = stream ? Data(4) + iv : siv ? Data{} : iv;
  Sealed sealed = evpSeal(cipherNameOf(policy), hkdf(columnKey, "orvanta cipher key", keySizeOf(policy)), start,
                          components, text, aead);
  if (siv && value.middle.empty()) sealed.cipherText.clear();
  if (mac) {
    sealed.tag = hmacSha256(hkdf(columnKey, "orvanta tag key", 32),
                            length32(associated.size()) + associated + iv + sealed.cipherText);
    sealed.tag.resize(16);
  }
  return Data{0x81} + iv + sealed.cipherText + sealed.tag;
}

}  // namespace test::independent
