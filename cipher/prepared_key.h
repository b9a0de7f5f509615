// SPDX-License-Identifier: Apache-2.0
//
// A key made ready for use: cipher contexts and HMAC states that have taken the key in. Values are encrypted here, and
// published test vectors run through here, with the key and the initialization vector as they are given.
#pragma once

#include <openssl/types.h>

#include <initializer_list>
#include <memory>
#include <optional>
#include <span>

#include "cipher/block_chain.h"
#include "cipher/digest.h"
#include "cipher/kdf.h"
#include "cipher/short_gcm.h"
#include "cipher/suite.h"

namespace cipher {

// The secrets of one key. The cipher uses the first Suite::keySize bytes of cipherKey.
struct KeyMaterial {
  unsigned char cipherKey[kMaxKeySize];
  unsigned char ivKey[kSha256Size];    // deterministic initialization vectors
  unsigned char hmacKey[kSha256Size];  // keyed digests: one-way algorithms and the HMAC functions
  unsigned char tagKey[kSha256Size];   // tags of the encrypt-then-MAC modes
};

// Used by one thread at a time. Wipes what it holds when it goes. Contexts are made on first use: a key that only
// encrypts holds none for decryption.
class PreparedKey {
 public:
  // A copy of what it needs of `material` is kept; `suite` is copied.
  PreparedKey(const Suite& suite, const KeyMaterial& material) noexcept;
  PreparedKey(const PreparedKey&) = delete;
  PreparedKey& operator=(const PreparedKey&) = delete;
  ~PreparedKey() { OPENSSL_cleanse(&material_, sizeof material_); }

  [[nodiscard]] const Suite& suite() const noexcept { return suite_; }

  // Encrypts a text.
  //   out         suite().cipherSize(text.size()) bytes.
  //   tag         suite().tagSize bytes.
  //   iv          suite().ivSize bytes; for SIV a nonce of that size, or empty for none.
  //   associated  authenticated with the text where the suite has a tag, otherwise not looked at.
  //   text        must not overlap out; text and cipher text have at most 2^31 - 1 bytes.
  // Not for one-way suites. False, with the contents of out and tag unspecified, when OpenSSL fails.
  //
  // No allocation, no lock and no key schedule after the first call. SIV is the exception: OpenSSL cannot set its
  // context back, so every text takes a copy of one (about a microsecond).
  bool encrypt(unsigned char* out, unsigned char* tag, Bytes iv, Bytes associated, Bytes text) noexcept;

  // Decrypts what encrypt() made. The same rules; `out` may hold fewer bytes than the text needs.
  Opened decrypt(std::span<unsigned char> out, Bytes iv, Bytes associated, Bytes cipherText, Bytes tag) noexcept;

  // HMAC-SHA256 of the parts under the key for deterministic initialization vectors: 32 bytes.
  void ivMac(unsigned char* out, std::span<const Bytes> parts) noexcept;

  // HMAC of the parts under the HMAC key, digestSize(algorithm) bytes. The key is taken in once for as long as the
  // algorithm stays the same.
  bool keyedDigest(Digest algorithm, unsigned char* out, std::span<const Bytes> parts) noexcept;

 private:
  EVP_CIPHER_CTX* context(bool encrypting) noexcept;
  BlockChain* blocks(bool encrypting) noexcept;
  ShortGcm* shortGcm(Bytes iv, Bytes associated, Bytes text) noexcept;
  [[nodiscard]] Context makeContext(bool encrypting) const noexcept;
  bool restart(EVP_CIPHER_CTX* context, bool encrypting, Bytes iv) const noexcept;
  Context startSiv(bool encrypting, std::initializer_list<Bytes> components) noexcept;

  bool encryptPlain(unsigned char* out, Bytes iv, Bytes text) noexcept;
  bool encryptTagged(unsigned char* out, unsigned char* tag, Bytes iv, Bytes associated, Bytes text) noexcept;
  bool encryptSiv(unsigned char* out, unsigned char* tag, Bytes iv, Bytes associated, Bytes text) noexcept;
  Opened decryptPlain(std::span<unsigned char> out, Bytes iv, Bytes cipherText) noexcept;
  bool decryptTagged(unsigned char* out, Bytes iv, Bytes associated, Bytes cipherText, Bytes tag) noexcept;
  bool decryptSiv(unsigned char* out, Bytes iv, Bytes associated, Bytes cipherText, Bytes tag) noexcept;
  void computeTag(unsigned char* tag, Bytes iv, Bytes associated, Bytes cipherText) noexcept;

  const Suite suite_;
  KeyMaterial material_;
  Context encrypting_;
  Context decrypting_;
  std::optional<BlockChain> encryptingBlocks_;
  std::optional<BlockChain> decryptingBlocks_;
  std::optional<ShortGcm> shortGcm_;
  std::optional<HmacOf<Sha256>> ivMac_;
  std::optional<HmacOf<Sha256>> tagMac_;
  std::unique_ptr<Hmac> digest_;
};

}  // namespace cipher
