// SPDX-License-Identifier: Apache-2.0
//
// Random initialization vectors, drawn in blocks per thread.
#include "cipher/iv_source.h"

#include <openssl/crypto.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstddef>

#include "cipher/kdf.h"

namespace cipher {
namespace {

constexpr std::size_t kBlockSize = 4096;

std::atomic<unsigned> forks{0};  // how often this process came out of a fork as the child

void countFork() {
  forks.fetch_add(1, std::memory_order_relaxed);
}

class IvBlock {
 public:
  IvBlock() noexcept {
    static const int registered = pthread_atfork(nullptr, nullptr, countFork);
    usable_ = registered == 0;
  }
  IvBlock(const IvBlock&) = delete;
  IvBlock& operator=(const IvBlock&) = delete;
  ~IvBlock() { OPENSSL_cleanse(bytes_, sizeof bytes_); }

  bool draw(std::span<unsigned char> iv) noexcept {
    if (iv.size() > kBlockSize) return false;
    if ((left_ < iv.size() || forks_ != forks.load(std::memory_order_relaxed)) && !refill()) return false;
    left_ -= iv.size();
    std::copy_n(bytes_ + left_, iv.size(), iv.begin());
    std::fill_n(bytes_ + left_, iv.size(), static_cast<unsigned char>(0));
    return true;
  }

 private:
  bool refill() noexcept {
    left_ = 0;
    forks_ = forks.load(std::memory_order_relaxed);
    if (!usable_ || !randomBytes(bytes_)) return false;
    left_ = kBlockSize;
    return true;
  }

  unsigned char bytes_[kBlockSize] = {};
  std::size_t left_ = 0;
  unsigned forks_ = 0;
  bool usable_ = false;
};

}  // namespace

bool randomIv(std::span<unsigned char> iv) noexcept {
  static thread_local IvBlock block;
  return block.draw(iv);
}

}  // namespace cipher
