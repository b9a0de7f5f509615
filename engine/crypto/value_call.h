// SPDX-License-Identifier: Apache-2.0
//
// One call of the operations on values: its arguments, and how its result is handed over.
#pragma once

#include <openssl/crypto.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <span>

#include "engine/crypto/text_encoding.h"

namespace engine {

class ValueCall {
 public:
  // The arguments as the caller passed them. outLen carries the capacity of out.
  ValueCall(unsigned char* out, unsigned int* outLen, const unsigned char* in, unsigned int inLen) noexcept
      : out_(out),
        outLen_(outLen),
        value_(in, inLen),
        capacity_(outLen == nullptr ? 0 : *outLen),
        valid_(outLen != nullptr && (out != nullptr || *outLen == 0) && (in != nullptr || inLen == 0) &&
               inLen <= INT_MAX) {}

  // Whether the pointers and the length can be worked with.
  [[nodiscard]] bool valid() const noexcept { return valid_; }

  [[nodiscard]] Bytes value() const noexcept { return value_; }
  [[nodiscard]] unsigned char* out() const noexcept { return out_; }
  [[nodiscard]] std::size_t capacity() const noexcept { return capacity_; }

  // The three ends of a call. Each returns what the operation returns.
  int noResult() noexcept {
    if (outLen_ != nullptr) *outLen_ = 0;
    return 1;
  }
  int doesNotFit(std::size_t needed) noexcept {
    *outLen_ = static_cast<unsigned int>(needed);
    return 1;
  }
  int done(std::size_t size) noexcept {
    *outLen_ = static_cast<unsigned int>(size);
    return 0;
  }

  // noResult(), with the first `size` bytes of the output wiped.
  int withdraw(std::size_t size) noexcept {
    OPENSSL_cleanse(out_, std::min(size, capacity_));
    return noResult();
  }

  // Hands the value over as it is.
  int passOn() noexcept {
    if (value_.size() > capacity_) return doesNotFit(value_.size());
    std::copy(value_.begin(), value_.end(), out_);
    return done(value_.size());
  }

 private:
  unsigned char* out_;
  unsigned int* outLen_;
  Bytes value_;
  std::size_t capacity_;
  bool valid_;
};

}  // namespace engine
