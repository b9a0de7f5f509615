// SPDX-License-Identifier: Apache-2.0
//
// What a string function returns. The server hands the pointer on without copying the text, so a text must live in
// storage that outlasts the row and that no other result of the same statement overwrites: the server's own buffer, a
// ResultRing, or a record of the engine's tables.
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

namespace frame {

// A text, or SQL NULL.
class Answer {
 public:
  // A text in storage that outlasts the row.
  static Answer text(const char* data, std::size_t length) noexcept {
    return Answer(const_cast<char*>(data), length, true);
  }

  // SQL NULL, with the length set to 0.
  static Answer null() noexcept { return Answer(nullptr, 0, true); }

  // SQL NULL, with the caller's length left as it is.
  static Answer nullKeepingLength() noexcept { return Answer(nullptr, 0, false); }

  // Gives the server what it expects.
  char* handOver(unsigned long* length) const noexcept {
    if (sets_length_) {
      *length = length_;
    }
    return data_;
  }

 private:
  Answer(char* data, std::size_t length, bool sets_length) noexcept
      : data_(data), length_(length), sets_length_(sets_length) {}

  char* data_;
  std::size_t length_;
  bool sets_length_;
};

// The result buffer that the server passes to a string function. Each use of the function in a statement has its own.
class ServerBuffer {
 public:
  // Bytes that every server guarantees.
  static constexpr std::size_t kSize = 255;

  explicit ServerBuffer(char* data) noexcept : data_(data) {}

  // Copies a value of at most kSize bytes.
  Answer copy(std::string_view value) const noexcept {
    if (!value.empty()) {
      std::memmove(data_, value.data(), value.size());
    }
    return Answer::text(data_, value.size());
  }

  // Copies a text of fewer than kSize bytes and ends it with a zero, which the length does not count.
  Answer copyTerminated(std::string_view text) const noexcept {
    const Answer answer = copy(text);
    data_[text.size()] = '\0';
    return answer;
  }

 private:
  char* data_;
};

}  // namespace frame
