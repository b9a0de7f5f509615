// SPDX-License-Identifier: Apache-2.0
//
// A block cipher in GCM mode (NIST SP 800-38D) under one key, for short texts.
#pragma once

#include <openssl/modes.h>

#include <cstddef>
#include <memory>
#include <span>

#include "cipher/block_chain.h"
#include "cipher/digest.h"

namespace cipher {

// OpenSSL's GCM ciphers need 180 ns for a text of 20 bytes, most of it for setting the vector and asking for the tag,
// which go through lists of parameters with names. This needs 70: all counter blocks of a text are encrypted in one
// call, and handed to the mode's own functions as they ask for them. Those take one block after the other, which is why
// long texts are faster the other way.
//
// Used by one thread at a time.
class ShortGcm {
 public:
  static constexpr std::size_t kIvSize = 12;     // bytes of the vector: only for these is it the counter's start
  static constexpr std::size_t kMaxBytes = 256;  // of text and associated data together

  // `context` is keyed for encrypting single blocks of 16 bytes (ECB); the mode needs the cipher's other direction for
  // nothing.
  explicit ShortGcm(Context context) noexcept;
  ShortGcm(const ShortGcm&) = delete;
  ShortGcm& operator=(const ShortGcm&) = delete;
  ~ShortGcm();

  // False where OpenSSL failed: the next text needs a new one.
  explicit operator bool() const noexcept { return context_ != nullptr; }

  // Whether a value is one for this class.
  static bool takes(Bytes iv, Bytes associated, Bytes text) noexcept {
    return iv.size() == kIvSize && text.size() <= kMaxBytes && associated.size() <= kMaxBytes - text.size();
  }

  // Encrypts what takes() accepts into `out`, of the text's size. `tag` is at most 16 bytes. False when OpenSSL fails.
  bool encrypt(unsigned char* out, std::span<unsigned char> tag, Bytes iv, Bytes associated, Bytes text) noexcept;

  // Decrypts into `out`, of the cipher text's size. When the tag is not of these texts, or OpenSSL fails, the result is
  // false and `out` is the caller's to wipe.
  bool decrypt(unsigned char* out, Bytes iv, Bytes associated, Bytes cipherText, Bytes tag) noexcept;

 private:
  static constexpr std::size_t kBlock = 16;
  static constexpr std::size_t kMaxBlocks = 2 + kMaxBytes / kBlock;  // of zeros, for the tag, and for the text

  struct FreeMode {
    void operator()(GCM128_CONTEXT* mode) const noexcept { CRYPTO_gcm128_release(mode); }
  };

  static void takeBlock(const unsigned char* counter, unsigned char* out, const void* self) noexcept;
  bool encryptBlocks(std::size_t first, std::size_t count) noexcept;
  bool start(Bytes iv, Bytes associated, std::size_t textSize) noexcept;
  void forgetBlocks(std::size_t textSize) noexcept;

  Context context_;
  std::unique_ptr<GCM128_CONTEXT, FreeMode> mode_;
  unsigned char blocks_[kMaxBlocks][kBlock] = {};  // by the number that the counter block ends with, encrypted
};

}  // namespace cipher
