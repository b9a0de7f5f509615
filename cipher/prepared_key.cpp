// SPDX-License-Identifier: Apache-2.0
//
// Running texts through OpenSSL's ciphers with contexts that are keyed already.
#include "cipher/prepared_key.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <iterator>
#include <new>
#include <utility>

#include "cipher/big_endian.h"
#include "cipher/library.h"

namespace cipher {
namespace {

constexpr std::size_t kMaxSize = INT_MAX;  // of a text and of its cipher text: OpenSSL's lengths are int

// OpenSSL's SIV takes no empty text. It is given one zero byte in its place, with this as an additional first
// component, and the byte that comes out is left away.
constexpr unsigned char kEmptySivComponent[] = {'e', 'm', 'p', 't', 'y'};
constexpr unsigned char kEmptySivText[] = {0};

// Gives a context associated data, or a component of SIV. Empty data is left out: a null pointer has a meaning of its
// own to some ciphers.
bool associate(EVP_CIPHER_CTX* context, Bytes data) noexcept {
  int none = 0;
  return data.empty() || EVP_CipherUpdate(context, nullptr, &none, data.data(), static_cast<int>(data.size())) == 1;
}

// Puts a text through a context, from its first byte to its last, into `out` of the same size.
bool transform(EVP_CIPHER_CTX* context, unsigned char* out, Bytes text) noexcept {
  unsigned char none[kMaxBlockSize];
  int written = 0;
  int last = 0;
  if (text.empty()) return EVP_CipherFinal_ex(context, none, &last) == 1;
  return EVP_CipherUpdate(context, out, &written, text.data(), static_cast<int>(text.size())) == 1 &&
         EVP_CipherFinal_ex(context, out + written, &last) == 1;
}

// Through the parameters, not through EVP_CIPHER_CTX_ctrl, which makes parameters of its arguments first.
bool takeTag(EVP_CIPHER_CTX* context, unsigned char* tag, std::size_t size) noexcept {
  OSSL_PARAM parameters[] = {OSSL_PARAM_octet_string(OSSL_CIPHER_PARAM_AEAD_TAG, tag, size), OSSL_PARAM_END};
  return EVP_CIPHER_CTX_get_params(context, parameters) == 1;
}

bool giveTag(EVP_CIPHER_CTX* context, Bytes tag) noexcept {
  const OSSL_PARAM parameters[] = {
      OSSL_PARAM_octet_string(OSSL_CIPHER_PARAM_AEAD_TAG, const_cast<unsigned char*>(tag.data()), tag.size()),
      OSSL_PARAM_END};
  return EVP_CIPHER_CTX_set_params(context, parameters) == 1;
}

// CCM: length, associated data and text, in this order. The text's call is made for an empty text too.
bool throughCcm(EVP_CIPHER_CTX* context, unsigned char* out, Bytes associated, Bytes text) noexcept {
  static constexpr unsigned char kNothing[1] = {0};
  unsigned char none[1];
  int written = 0;
  const int size = static_cast<int>(text.size());
  return EVP_CipherUpdate(context, nullptr, &written, nullptr, size) == 1 && associate(context, associated) &&
         EVP_CipherUpdate(context, text.empty() ? none : out, &written, text.empty() ? kNothing : text.data(), size) ==
             1;
}

}  // namespace

PreparedKey::PreparedKey(const Suite& suite, const KeyMaterial& material) noexcept
    : suite_(suite), material_(material) {}

Context PreparedKey::makeContext(bool encrypting) const noexcept {
  Context made(EVP_CIPHER_CTX_new());
  const int direction = encrypting ? 1 : 0;
  EVP_CIPHER_CTX* context = made.get();
  if (context == nullptr || EVP_CipherInit_ex2(context, suite_.cipher, nullptr, nullptr, direction, nullptr) != 1) {
    return nullptr;
  }
  const bool tagged = suite_.form == Form::kAead || suite_.form == Form::kCcm;
  if (tagged && EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_SET_IVLEN, suite_.ivSize, nullptr) != 1) return nullptr;
  if (suite_.form == Form::kCcm && EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_SET_TAG, suite_.tagSize, nullptr) != 1) {
    return nullptr;
  }
  static constexpr unsigned char kZeros[kMaxIvSize] = {};
  const unsigned char* start = suite_.padBlock != 0 && suite_.ivSize != 0 ? kZeros : nullptr;
  if (EVP_CipherInit_ex2(context, nullptr, material_.cipherKey, start, direction, nullptr) != 1) return nullptr;
  return made;
}

EVP_CIPHER_CTX* PreparedKey::context(bool encrypting) noexcept {
  Context& kept = encrypting ? encrypting_ : decrypting_;
  if (kept == nullptr && suite_.cipher != nullptr) kept = makeContext(encrypting);
  return kept.get();
}

BlockChain* PreparedKey::blocks(bool encrypting) noexcept {
  std::optional<BlockChain>& kept = encrypting ? encryptingBlocks_ : decryptingBlocks_;
  if (!kept || !*kept) kept.emplace(makeContext(encrypting), suite_.padBlock);
  return *kept ? &*kept : nullptr;
}

// What a value of a GCM suite goes through when it is short, otherwise null.
ShortGcm* PreparedKey::shortGcm(Bytes iv, Bytes associated, Bytes text) noexcept {
  if (suite_.blockCipher == nullptr || !ShortGcm::takes(iv, associated, text)) return nullptr;
  if (!shortGcm_ || !*shortGcm_) {
    Context made(EVP_CIPHER_CTX_new());
    if (made != nullptr &&
        EVP_EncryptInit_ex2(made.get(), suite_.blockCipher, material_.cipherKey, nullptr, nullptr) != 1) {
      made.reset();
    }
    shortGcm_.emplace(std::move(made));
    if (!*shortGcm_) forgetErrors();  // the value goes the other way, and may succeed
  }
  return *shortGcm_ ? &*shortGcm_ : nullptr;
}

bool PreparedKey::restart(EVP_CIPHER_CTX* context, bool encrypting, Bytes iv) const noexcept {
  if (context == nullptr || iv.size() != suite_.ivSize) return false;
  unsigned char counterAndNonce[kMaxIvSize] = {};
  const unsigned char* start = iv.empty() ? nullptr : iv.data();
  if (suite_.form == Form::kStream) {
    std::copy(iv.begin(), iv.end(), std::end(counterAndNonce) - iv.size());
    start = counterAndNonce;
  }
  return EVP_CipherInit_ex2(context, nullptr, nullptr, start, encrypting ? 1 : 0, nullptr) == 1;
}

bool PreparedKey::encryptPlain(unsigned char* out, Bytes iv, Bytes text) noexcept {
  if (suite_.padBlock != 0) {
    BlockChain* chain = iv.size() == suite_.ivSize ? blocks(true) : nullptr;
    return chain != nullptr && chain->encrypt(out, iv, text);
  }
  EVP_CIPHER_CTX* running = context(true);
  int written = 0;
  return restart(running, true, iv) &&
         (text.empty() || EVP_CipherUpdate(running, out, &written, text.data(), static_cast<int>(text.size())) == 1);
}

bool PreparedKey::encryptTagged(unsigned char* out, unsigned char* tag, Bytes iv, Bytes associated,
                                Bytes text) noexcept {
  if (ShortGcm* gcm = shortGcm(iv, associated, text)) {
    return gcm->encrypt(out, {tag, suite_.tagSize}, iv, associated, text);
  }
  EVP_CIPHER_CTX* running = context(true);
  if (!restart(running, true, iv)) return false;
  if (suite_.form == Form::kCcm)
    return throughCcm(running, out, associated, text) && takeTag(running, tag, suite_.tagSize);
  return associate(running, associated) && transform(running, out, text) && takeTag(running, tag, suite_.tagSize);
}

// A SIV context that has taken in the components that are not empty. Every text gets a copy of the kept context,
// because a context's state goes on from text to text and cannot be set back.
Context PreparedKey::startSiv(bool encrypting, std::initializer_list<Bytes> components) noexcept {
  const EVP_CIPHER_CTX* kept = context(encrypting);
  Context copy(kept == nullptr ? nullptr : EVP_CIPHER_CTX_new());
  if (copy == nullptr || EVP_CIPHER_CTX_copy(copy.get(), kept) != 1) return nullptr;
  for (const Bytes component : components) {
    if (!associate(copy.get(), component)) return nullptr;
  }
  return copy;
}

bool PreparedKey::encryptSiv(unsigned char* out, unsigned char* tag, Bytes iv, Bytes associated, Bytes text) noexcept {
  unsigned char leftAway[sizeof kEmptySivText];
  const bool empty = text.empty();
  const Context running = startSiv(true, {empty ? Bytes(kEmptySivComponent) : Bytes(), associated, iv});
  return running != nullptr && transform(running.get(), empty ? leftAway : out, empty ? Bytes(kEmptySivText) : text) &&
         takeTag(running.get(), tag, suite_.tagSize);
}

bool PreparedKey::decryptSiv(unsigned char* out, Bytes iv, Bytes associated, Bytes cipherText, Bytes tag) noexcept {
  if (cipherText.empty()) {
    unsigned char expected[kMaxTagSize];
    return encryptSiv(nullptr, expected, iv, associated, {}) && CRYPTO_memcmp(expected, tag.data(), tag.size()) == 0;
  }
  const Context running = startSiv(false, {associated, iv});
  return running != nullptr && giveTag(running.get(), tag) && transform(running.get(), out, cipherText);
}

// HMAC-SHA256 over the length of the associated data, the data, the initialization vector and the cipher text.
void PreparedKey::computeTag(unsigned char* tag, Bytes iv, Bytes associated, Bytes cipherText) noexcept {
  if (!tagMac_) tagMac_.emplace(Bytes(material_.tagKey));
  unsigned char length[kLengthSize];
  storeLength(length, associated.size());
  unsigned char code[kSha256Size];
  const Bytes parts[] = {length, associated, iv, cipherText};
  tagMac_->compute(code, parts);
  std::copy_n(code, suite_.tagSize, tag);
}

bool PreparedKey::encrypt(unsigned char* out, unsigned char* tag, Bytes iv, Bytes associated, Bytes text) noexcept {
  bool done = false;
  if (text.size() <= kMaxSize && suite_.cipherSize(text.size()) <= kMaxSize) {
    switch (suite_.form) {
      case Form::kPlain:
      case Form::kStream:
        done = encryptPlain(out, iv, text);
        break;
      case Form::kEncryptThenMac:
        done = encryptPlain(out, iv, text);
        if (done) computeTag(tag, iv, associated, {out, suite_.cipherSize(text.size())});
        break;
      case Form::kAead:
      case Form::kCcm:
        done = encryptTagged(out, tag, iv, associated, text);
        break;
      case Form::kSiv:
        done = encryptSiv(out, tag, iv, associated, text);
        break;
      case Form::kOneWay:
        break;
    }
  }
  if (!done) forgetErrors();
  return done;
}

Opened PreparedKey::decryptPlain(std::span<unsigned char> out, Bytes iv, Bytes cipherText) noexcept {
  const std::size_t block = suite_.padBlock;
  if (block != 0 && (cipherText.empty() || cipherText.size() % block != 0 || iv.size() != suite_.ivSize)) return {};
  if (cipherText.size() - block > out.size()) return {true, cipherText.size() - (block == 0 ? 0 : 1)};
  if (block != 0) {
    BlockChain* chain = blocks(false);
    return chain == nullptr ? Opened{} : chain->decrypt(out, iv, cipherText);
  }
  EVP_CIPHER_CTX* running = context(false);
  int written = 0;
  const bool done = restart(running, false, iv) &&
                    (cipherText.empty() || EVP_CipherUpdate(running, out.data(), &written, cipherText.data(),
                                                            static_cast<int>(cipherText.size())) == 1);
  return done ? Opened{true, cipherText.size()} : Opened{};
}

bool PreparedKey::decryptTagged(unsigned char* out, Bytes iv, Bytes associated, Bytes cipherText, Bytes tag) noexcept {
  if (ShortGcm* gcm = shortGcm(iv, associated, cipherText)) return gcm->decrypt(out, iv, associated, cipherText, tag);
  EVP_CIPHER_CTX* running = context(false);
  if (!restart(running, false, iv) || !giveTag(running, tag)) return false;
  if (suite_.form == Form::kCcm) return throughCcm(running, out, associated, cipherText);
  return associate(running, associated) && transform(running, out, cipherText);
}

Opened PreparedKey::decrypt(std::span<unsigned char> out, Bytes iv, Bytes associated, Bytes cipherText,
                            Bytes tag) noexcept {
  Opened opened;
  if (cipherText.size() > kMaxSize || tag.size() != suite_.tagSize || suite_.form == Form::kOneWay) return opened;
  if (suite_.form == Form::kPlain || suite_.form == Form::kStream) {
    opened = decryptPlain(out, iv, cipherText);
  } else if (suite_.form == Form::kEncryptThenMac) {
    unsigned char expected[kMaxTagSize];
    computeTag(expected, iv, associated, cipherText);
    if (CRYPTO_memcmp(expected, tag.data(), tag.size()) == 0) opened = decryptPlain(out, iv, cipherText);
  } else if (cipherText.size() > out.size()) {
    return {true, cipherText.size()};
  } else {
    opened.size = cipherText.size();
    opened.valid = suite_.form == Form::kSiv ? decryptSiv(out.data(), iv, associated, cipherText, tag)
                                             : decryptTagged(out.data(), iv, associated, cipherText, tag);
  }
  if (!opened.valid) forgetErrors();
  if (!opened.valid || opened.size > out.size()) OPENSSL_cleanse(out.data(), std::min(out.size(), cipherText.size()));
  return opened;
}

void PreparedKey::ivMac(unsigned char* out, std::span<const Bytes> parts) noexcept {
  if (!ivMac_) ivMac_.emplace(Bytes(material_.ivKey));
  ivMac_->compute(out, parts);
}

bool PreparedKey::keyedDigest(Digest algorithm, unsigned char* out, std::span<const Bytes> parts) noexcept {
  if (digest_ == nullptr || digest_->algorithm() != algorithm) {
    digest_.reset(new (std::nothrow) Hmac(algorithm, material_.hmacKey));
  }
  return digest_ != nullptr && digest_->compute(out, parts);
}

}  // namespace cipher
