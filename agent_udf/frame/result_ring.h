// SPDX-License-Identifier: Apache-2.0
//
// Storage for results that the server's buffer can't take. One ring per function and thread (declare it thread_local),
// so that no result is ever shared by two connections, and eight results of one function can be alive at once in one
// statement.
#pragma once

#include <openssl/crypto.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <string_view>

#include "frame/answer.h"

namespace frame {

// Depth buffers of Capacity bytes, each allocated when it is first used. Secret contents are wiped when their buffer
// comes round again and when the thread ends.
template <std::size_t Capacity, std::size_t Depth = 8>
class ResultRing {
 public:
  ResultRing() = default;
  ResultRing(const ResultRing&) = delete;
  ResultRing& operator=(const ResultRing&) = delete;
  ~ResultRing() {
    for (Buffer& buffer : buffers_) {
      wipe(buffer);
    }
  }

  // The buffer that the next result goes to: Capacity bytes, the caller's until keep(). Until then every call returns
  // the same one. Throws std::bad_alloc on the first use of a buffer.
  unsigned char* next() {
    Buffer& buffer = buffers_[next_];
    if (!buffer.bytes) {
      buffer.bytes = std::make_unique_for_overwrite<unsigned char[]>(Capacity);
    }
    wipe(buffer);
    return buffer.bytes.get();
  }

  // Says that the first `length` bytes of next() are secret.
  void markSecret(std::size_t length) noexcept {
    Buffer& buffer = buffers_[next_];
    buffer.secret_length = std::max(buffer.secret_length, length);
  }

  // Wipes what next() holds; there is no result.
  void discard() noexcept { wipe(buffers_[next_]); }

  // Makes the first `length` bytes of next() the function's result. A text that the server's buffer takes goes there,
  // and the ring does not move on.
  Answer keep(std::size_t length, ServerBuffer server) noexcept {
    Buffer& buffer = buffers_[next_];
    const char* text = reinterpret_cast<const char*>(buffer.bytes.get());
    if (length <= ServerBuffer::kSize) {
      const Answer answer = server.copy(std::string_view(text, length));
      wipe(buffer);
      return answer;
    }
    next_ = (next_ + 1) % Depth;
    return Answer::text(text, length);
  }

 private:
  struct Buffer {
    std::unique_ptr<unsigned char[]> bytes;
    std::size_t secret_length = 0;
  };

  static void wipe(Buffer& buffer) noexcept {
    if (buffer.secret_length != 0) {
      OPENSSL_cleanse(buffer.bytes.get(), buffer.secret_length);
      buffer.secret_length = 0;
    }
  }

  std::array<Buffer, Depth> buffers_;
  std::size_t next_ = 0;
};

}  // namespace frame
