// SPDX-License-Identifier: Apache-2.0
#include "cipher/block_chain.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

namespace cipher {
namespace {

// Texts below this are put together with their padding first, so that OpenSSL is called once.
constexpr std::size_t kShort = 256;

// A block that is loaded and stored at once: the cipher would have to wait for a block that was stored in pieces.
template <std::size_t Size>
using Words [[gnu::vector_size(Size)]] = std::uint64_t;

template <typename Block>
void combine(unsigned char* block, const unsigned char* one, const unsigned char* other) noexcept {
  Block words[3];
  std::memcpy(&words[0], block, sizeof words[0]);
  std::memcpy(&words[1], one, sizeof words[1]);
  std::memcpy(&words[2], other, sizeof words[2]);
  words[0] ^= words[1] ^ words[2];
  std::memcpy(block, &words[0], sizeof words[0]);
}

// Bytes of the padding that a text's last block ends with, 0 when that is none.
std::size_t paddingOf(Bytes lastBlock) noexcept {
  const std::size_t size = lastBlock.back();
  if (size == 0 || size > lastBlock.size()) return 0;
  const Bytes padding = lastBlock.last(size);
  return std::all_of(padding.begin(), padding.end(), [size](unsigned char byte) { return byte == size; }) ? size : 0;
}

}  // namespace

void FreeContext::operator()(EVP_CIPHER_CTX* context) const noexcept {
  EVP_CIPHER_CTX_free(context);
}

BlockChain::BlockChain(Context context, std::size_t block) noexcept : context_(std::move(context)), block_(block) {
  if (context_ != nullptr && EVP_CIPHER_CTX_set_padding(context_.get(), 0) != 1) context_.reset();
}

bool BlockChain::run(unsigned char* out, const unsigned char* in, std::size_t size) noexcept {
  int written = 0;
  if (EVP_CipherUpdate(context_.get(), out, &written, in, static_cast<int>(size)) == 1 &&
      static_cast<std::size_t>(written) == size) {
    return true;
  }
  context_.reset();
  return false;
}

void BlockChain::exchangeVector(unsigned char* firstBlock, Bytes iv) const noexcept {
  if (iv.size() == sizeof(Words<16>)) {
    combine<Words<16>>(firstBlock, iv.data(), before_);
  } else if (iv.size() == sizeof(Words<8>)) {
    combine<Words<8>>(firstBlock, iv.data(), before_);
  }
}

bool BlockChain::encrypt(unsigned char* out, Bytes iv, Bytes text) noexcept {
  unsigned char held[kShort + kMaxBlockSize];
  const std::size_t straight = text.size() < kShort ? 0 : text.size() - text.size() % block_;
  bool done = true;
  if (straight != 0) {
    std::copy_n(text.begin(), block_, held);
    exchangeVector(held, iv);
    done = run(out, held, block_) && (straight == block_ || run(out + block_, text.data() + block_, straight - block_));
  }
  const Bytes rest = text.subspan(straight);
  const std::size_t padding = block_ - rest.size() % block_;
  const std::size_t last = rest.size() + padding;
  std::copy(rest.begin(), rest.end(), held);
  std::memset(held + rest.size(), static_cast<int>(padding), padding);
  if (straight == 0) exchangeVector(held, iv);
  done = done && run(out + straight, held, last);
  OPENSSL_cleanse(held, std::max(last, block_));
  if (done) std::copy_n(out + straight + last - block_, block_, before_);
  return done;
}

Opened BlockChain::decrypt(std::span<unsigned char> out, Bytes iv, Bytes cipherText) noexcept {
  SecretArray<kMaxBlockSize> apart;  // the last block, where it does not fit
  const bool fits = cipherText.size() <= out.size();
  const std::size_t head = fits ? cipherText.size() : cipherText.size() - block_;
  if (head != 0 && !run(out.data(), cipherText.data(), head)) return {};
  if (!fits && !run(apart.bytes, cipherText.data() + head, block_)) return {};
  exchangeVector(head == 0 ? apart.bytes : out.data(), iv);
  std::copy_n(cipherText.end() - static_cast<std::ptrdiff_t>(block_), block_, before_);
  unsigned char* lastBlock = fits ? out.data() + head - block_ : apart.bytes;
  const std::size_t padding = paddingOf({lastBlock, block_});
  if (padding == 0) return {};
  const Opened opened{true, cipherText.size() - padding};
  if (fits) {
    std::memset(lastBlock + block_ - padding, 0, padding);
  } else if (opened.size <= out.size()) {
    std::copy_n(lastBlock, block_ - padding, out.data() + head);
  }
  return opened;
}

}  // namespace cipher
