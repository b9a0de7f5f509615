// SPDX-License-Identifier: Apache-2.0
#include "cipher/short_gcm.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "cipher/big_endian.h"

namespace cipher {
namespace {

// Counter blocks that a text needs: one for the tag, and its own.
std::size_t blocksOf(std::size_t textSize, std::size_t block) noexcept {
  return 1 + (textSize + block - 1) / block;
}

}  // namespace

ShortGcm::ShortGcm(Context context) noexcept : context_(std::move(context)) {
  // The mode asks for the block of zeros, the hash's key, while it is made.
  if (context_ == nullptr || EVP_CIPHER_CTX_set_padding(context_.get(), 0) != 1 || !encryptBlocks(0, 1)) {
    context_.reset();
    return;
  }
  mode_.reset(CRYPTO_gcm128_new(this, takeBlock));
  OPENSSL_cleanse(blocks_[0], kBlock);
  if (mode_ == nullptr) context_.reset();
}

ShortGcm::~ShortGcm() {
  OPENSSL_cleanse(blocks_, sizeof blocks_);
}

// What the mode calls for an encrypted block. Every block that it asks for ends with its number, below kMaxBlocks.
void ShortGcm::takeBlock(const unsigned char* counter, unsigned char* out, const void* self) noexcept {
  std::memcpy(out, static_cast<const ShortGcm*>(self)->blocks_[counter[kBlock - 1]], kBlock);
}

bool ShortGcm::encryptBlocks(std::size_t first, std::size_t count) noexcept {
  const int size = static_cast<int>(count * kBlock);
  int written = 0;
  return EVP_CipherUpdate(context_.get(), blocks_[first], &written, blocks_[first], size) == 1 && written == size;
}

bool ShortGcm::start(Bytes iv, Bytes associated, std::size_t textSize) noexcept {
  const std::size_t count = blocksOf(textSize, kBlock);
  for (std::size_t i = 1; i <= count; ++i) {
    unsigned char number[kLengthSize];
    storeLength(number, i);
    std::copy_n(iv.data(), kIvSize, blocks_[i]);
    std::copy_n(number, kLengthSize, blocks_[i] + kIvSize);
  }
  if (!encryptBlocks(1, count)) {
    context_.reset();
    return false;
  }
  CRYPTO_gcm128_setiv(mode_.get(), iv.data(), iv.size());
  return CRYPTO_gcm128_aad(mode_.get(), associated.data(), associated.size()) == 0;
}

// The blocks and a cipher text give the text.
void ShortGcm::forgetBlocks(std::size_t textSize) noexcept {
  OPENSSL_cleanse(blocks_[1], blocksOf(textSize, kBlock) * kBlock);
}

bool ShortGcm::encrypt(unsigned char* out, std::span<unsigned char> tag, Bytes iv, Bytes associated,
                       Bytes text) noexcept {
  if (!takes(iv, associated, text)) return false;
  const bool done =
      start(iv, associated, text.size()) && CRYPTO_gcm128_encrypt(mode_.get(), text.data(), out, text.size()) == 0;
  if (done) CRYPTO_gcm128_tag(mode_.get(), tag.data(), tag.size());
  forgetBlocks(text.size());
  return done;
}

bool ShortGcm::decrypt(unsigned char* out, Bytes iv, Bytes associated, Bytes cipherText, Bytes tag) noexcept {
  if (!takes(iv, associated, cipherText)) return false;
  const bool done = start(iv, associated, cipherText.size()) &&
                    CRYPTO_gcm128_decrypt(mode_.get(), cipherText.data(), out, cipherText.size()) == 0 &&
                    CRYPTO_gcm128_finish(mode_.get(), tag.data(), tag.size()) == 0;
  forgetBlocks(cipherText.size());
  return done;
}

}  // namespace cipher
