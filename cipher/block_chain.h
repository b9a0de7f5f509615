// SPDX-License-Identifier: Apache-2.0
//
// A block cipher in ECB or CBC mode, under one key and in one direction, for many short texts.
#pragma once

#include <openssl/types.h>

#include <cstddef>
#include <memory>
#include <span>

#include "cipher/digest.h"
#include "cipher/suite.h"

namespace cipher {

// What came of a decryption.
struct Opened {
  bool valid = false;  // false: not what this key encrypted, or OpenSSL failed; the output was wiped
  std::size_t size =
      0;  // bytes of the text. A number past the output's size: it does not fit, nothing of it is left in the
          // output, what is said is an upper bound of its size, and it may not have been checked yet
};

struct FreeContext {
  void operator()(EVP_CIPHER_CTX* context) const noexcept;
};
using Context = std::unique_ptr<EVP_CIPHER_CTX, FreeContext>;

// Setting an initialization vector costs OpenSSL more than encrypting a short text (60 of 100 ns for 20 bytes). So the
// context is never set back, it goes on chaining from text to text: the next text's first block would be combined with
// the cipher block before it. That block and the vector that belongs there instead are combined with the text here,
// which leaves the vector. What comes out is CBC as every other program has it.
//
// Used by one thread at a time.
class BlockChain {
 public:
  // `context` is keyed for the direction that is used, with a vector of zeros where the mode has one. `block` is the
  // cipher's block in bytes: 8 or 16.
  BlockChain(Context context, std::size_t block) noexcept;

  // False once OpenSSL failed: the next text needs a new one.
  explicit operator bool() const noexcept { return context_ != nullptr; }

  // Pads a text by PKCS #7 and encrypts it into `out`, which holds all of it. `iv` is a block, empty for ECB. False
  // when OpenSSL fails.
  bool encrypt(unsigned char* out, Bytes iv, Bytes text) noexcept;

  // Decrypts whole blocks, at least one; `out` is at most one block shorter than they are. The padding does not stay in
  // `out`. When the result is not valid, or the text does not fit, `out` is the caller's to wipe.
  Opened decrypt(std::span<unsigned char> out, Bytes iv, Bytes cipherText) noexcept;

 private:
  bool run(unsigned char* out, const unsigned char* in, std::size_t size) noexcept;
  void exchangeVector(unsigned char* firstBlock, Bytes iv) const noexcept;

  Context context_;
  std::size_t block_;
  unsigned char before_[kMaxBlockSize] = {};  // the cipher block that the context goes on from
};

}  // namespace cipher
