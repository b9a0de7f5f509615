// SPDX-License-Identifier: Apache-2.0
//
// The table of suites, filled from what OpenSSL offers.
#include "cipher/suite.h"

#include <openssl/evp.h>

#include <array>
#include <cstdio>
#include <new>

#include "cipher/library.h"

namespace cipher {
namespace {

struct AlgorithmEntry {
  Algorithm algorithm;
  const char* name;  // as OpenSSL's cipher names begin
};

constexpr AlgorithmEntry kBlockCiphers[] = {
    {Algorithm::kAes128, "AES-128"},
    {Algorithm::kAes192, "AES-192"},
    {Algorithm::kAes256, "AES-256"},
    {Algorithm::kAria128, "ARIA-128"},
    {Algorithm::kAria192, "ARIA-192"},
    {Algorithm::kAria256, "ARIA-256"},
    {Algorithm::kSeed128, "SEED"},
    {Algorithm::kCamellia128, "CAMELLIA-128"},
    {Algorithm::kCamellia192, "CAMELLIA-192"},
    {Algorithm::kCamellia256, "CAMELLIA-256"},
    {Algorithm::kSm4, "SM4"},
    {Algorithm::kTdes168, "DES-EDE3"},
    {Algorithm::kAes128Ni, "AES-128"},
    {Algorithm::kAes256Ni, "AES-256"},
};

struct ModeEntry {
  BlockMode mode;
  const char* name;  // as OpenSSL's cipher names end
  Form form;
  bool pads;
  bool blockIv;          // the initialization vector is a block
  unsigned char ivSize;  // otherwise
  unsigned char tagSize;
  bool smallBlocks;  // offered for ciphers with blocks of 8 bytes
};

constexpr ModeEntry kModes[] = {
    {BlockMode::kEcb, "-ECB", Form::kPlain, true, false, 0, 0, true},
    {BlockMode::kCbc, "-CBC", Form::kPlain, true, true, 0, 0, true},
    {BlockMode::kCfb, "-CFB", Form::kPlain, false, true, 0, 0, false},
    {BlockMode::kOfb, "-OFB", Form::kPlain, false, true, 0, 0, false},
    {BlockMode::kCtr, "-CTR", Form::kPlain, false, true, 0, 0, false},
    {BlockMode::kGcm, "-GCM", Form::kAead, false, false, 12, 16, false},
    {BlockMode::kCcm, "-CCM", Form::kCcm, false, false, 11, 16, false},
    {BlockMode::kSiv, "-SIV", Form::kSiv, false, false, 16, 16, false},
    {BlockMode::kCbcHmac, "-CBC", Form::kEncryptThenMac, true, true, 0, 16, true},
    {BlockMode::kCfb8, "-CFB8", Form::kPlain, false, true, 0, 0, false},
    {BlockMode::kCtrHmac, "-CTR", Form::kEncryptThenMac, false, true, 0, 16, false},
    {BlockMode::kOcb, "-OCB", Form::kAead, false, false, 12, 16, false},
};

struct Offer {
  Suite suite;
  bool offered = false;
};

class SuiteTable {
 public:
  SuiteTable() {
    if (libraryContext() == nullptr) return;
    for (const AlgorithmEntry& algorithm : kBlockCiphers) {
      for (const ModeEntry& mode : kModes) addBlockCipher(algorithm, mode);
    }
    addStreamCipher();
    addOneWay(Algorithm::kHmacSha256, Digest::kSha256);
    addOneWay(Algorithm::kHmacSha512, Digest::kSha512);
    addOneWay(Algorithm::kHmacHas160, Digest::kHas160);
    forgetErrors();
  }

  [[nodiscard]] const Offer& at(int algorithm, int blockMode) const noexcept {
    return offers_[static_cast<std::size_t>(algorithm)][static_cast<std::size_t>(blockMode)];
  }

 private:
  Offer& entry(Algorithm algorithm, BlockMode mode) {
    return offers_[static_cast<std::size_t>(algorithm)][static_cast<std::size_t>(mode)];
  }

  void addBlockCipher(const AlgorithmEntry& algorithm, const ModeEntry& mode) {
    char name[32];
    std::snprintf(name, sizeof name, "%s%s", algorithm.name, mode.name);
    const EVP_CIPHER* cipher = EVP_CIPHER_fetch(libraryContext(), name, nullptr);
    if (cipher == nullptr) return;
    const bool smallBlock = algorithm.algorithm == Algorithm::kTdes168;
    if (smallBlock && !mode.smallBlocks) return;
    const unsigned char block = smallBlock ? 8 : 16;
    Offer& offer = entry(algorithm.algorithm, mode.mode);
    offer.suite.cipher = cipher;
    if (mode.mode == BlockMode::kGcm)
      offer.suite.blockCipher = entry(algorithm.algorithm, BlockMode::kEcb).suite.cipher;
    offer.suite.form = mode.form;
    offer.suite.keySize = static_cast<unsigned char>(EVP_CIPHER_get_key_length(cipher));
    offer.suite.padBlock = mode.pads ? block : 0;
    offer.suite.ivSize = mode.blockIv ? block : mode.ivSize;
    offer.suite.tagSize = mode.tagSize;
    offer.offered = true;
  }

  void addStreamCipher() {
    const EVP_CIPHER* cipher = EVP_CIPHER_fetch(libraryContext(), "ChaCha20", nullptr);
    if (cipher == nullptr) return;
    Offer offer;
    offer.suite.cipher = cipher;
    offer.suite.form = Form::kStream;
    offer.suite.keySize = 32;
    offer.suite.ivSize = 12;
    offer.offered = true;
    offers_[static_cast<std::size_t>(Algorithm::kChaCha20)].fill(offer);
  }

  void addOneWay(Algorithm algorithm, Digest digest) {
    Offer offer;
    offer.suite.form = Form::kOneWay;
    offer.suite.digest = digest;
    offer.offered = true;
    offers_[static_cast<std::size_t>(algorithm)].fill(offer);
  }

  std::array<std::array<Offer, kBlockModes>, kAlgorithms> offers_{};
};

}  // namespace

const Suite* findSuite(int algorithm, int blockMode) noexcept {
  static const SuiteTable* const table =
      new (std::nothrow) SuiteTable;  // never freed: threads may encrypt until the end
  if (table == nullptr || algorithm < 0 || algorithm >= kAlgorithms || blockMode < 0 || blockMode >= kBlockModes) {
    return nullptr;
  }
  const Offer& offer = table->at(algorithm, blockMode);
  return offer.offered ? &offer.suite : nullptr;
}

}  // namespace cipher
