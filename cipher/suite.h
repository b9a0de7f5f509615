// SPDX-License-Identifier: Apache-2.0
//
// The algorithms and block modes, and what each combination of them is made of.
#pragma once

#include <openssl/types.h>

#include <cstddef>

#include "cipher/digest.h"

namespace cipher {

inline constexpr std::size_t kMaxKeySize = 64;    // SIV with AES-256: two keys of 32 bytes
inline constexpr std::size_t kMaxIvSize = 16;     // bytes of the longest initialization vector
inline constexpr std::size_t kMaxTagSize = 16;    // bytes of the longest authentication tag
inline constexpr std::size_t kMaxBlockSize = 16;  // bytes of the longest cipher block

// Algorithm codes. Stored policies hold them; they never change.
enum class Algorithm : int {
  kAes128 = 0,
  kAes192 = 1,
  kAes256 = 2,
  kAria128 = 3,
  kAria192 = 4,
  kAria256 = 5,
  kSeed128 = 6,
  kCamellia128 = 7,
  kCamellia192 = 8,
  kCamellia256 = 9,
  kSm4 = 10,
  kTdes168 = 11,
  kChaCha20 = 12,
  kHmacSha256 = 13,
  kHmacSha512 = 14,
  kHmacHas160 = 15,
  kAes128Ni = 19,  // as kAes128, for processors with AES instructions only
  kAes256Ni = 20,  // as kAes256, for processors with AES instructions only
};
inline constexpr int kAlgorithms = 21;  // codes, the reserved 16 to 18 included

// Block mode codes. Stored policies hold them; they never change.
enum class BlockMode : int {
  kEcb = 0,
  kCbc = 1,
  kCfb = 2,
  kOfb = 3,
  kCtr = 4,
  kGcm = 5,
  kCcm = 6,
  kSiv = 7,
  kCbcHmac = 8,
  kCfb8 = 9,
  kCtrHmac = 10,
  kOcb = 11,
};
inline constexpr int kBlockModes = 12;  // codes

// How a text is put through OpenSSL.
enum class Form : unsigned char {
  kPlain,           // init, update, final; no tag
  kEncryptThenMac,  // as kPlain, then HMAC-SHA256 over what came out, cut to the tag's size
  kAead,            // GCM and OCB: the tag comes from the cipher
  kCcm,             // CCM: as kAead, but the text's length has to be known before its associated data
  kSiv,             // SIV: the tag is the initialization vector
  kStream,          // ChaCha20: the nonce follows a block counter of 0
  kOneWay,          // a keyed digest in place of the text
};

// A combination of algorithm and block mode.
struct Suite {
  const EVP_CIPHER* cipher = nullptr;       // null for kOneWay
  const EVP_CIPHER* blockCipher = nullptr;  // GCM: the cipher without a mode, block by block (ECB); otherwise null
  Form form = Form::kPlain;
  Digest digest = Digest::kSha256;  // of kOneWay
  unsigned char keySize = 0;        // bytes of the cipher's key
  unsigned char padBlock =
      0;  // bytes of the block that texts are padded to by PKCS #7 (RFC 5652, section 6.3); 0 for none
  unsigned char ivSize = 0;   // bytes of the initialization vector or nonce, 0 for none
  unsigned char tagSize = 0;  // bytes of the authentication tag, 0 for none

  // Bytes that a text of `size` bytes becomes, initialization vector and tag not counted.
  [[nodiscard]] std::size_t cipherSize(std::size_t size) const noexcept {
    if (form == Form::kOneWay) return digestSize(digest);
    return padBlock == 0 ? size : size + padBlock - size % padBlock;
  }
};

// The suite of two codes, or null where a code is out of range or reserved, or this system's OpenSSL does not offer the
// combination. A stream cipher and a one-way algorithm are the same suite under every block mode. The result is valid
// until the process ends. Every cipher is fetched once, on the first call.
//
// Sizes: ECB, CBC, CFB, OFB and CTR as in NIST SP 800-38A; a 12-byte nonce for GCM (SP 800-38D), OCB (RFC 7253) and
// ChaCha20 (RFC 8439, block counter from 0); an 11-byte nonce for CCM (SP 800-38C), which leaves 4 bytes for the text's
// length; 16 bytes for SIV's nonce (RFC 5297, section 3). Tags have 16 bytes.
const Suite* findSuite(int algorithm, int blockMode) noexcept;

}  // namespace cipher
