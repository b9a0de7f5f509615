// SPDX-License-Identifier: Apache-2.0
//
// Calling SQL functions the way the server does.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "udf_functions.h"

namespace conformance {

// The arguments of one call. Texts stand in memory of exactly their size, without a terminating zero, and so do the
// lists of types, values and lengths: reading past one is a fault that the address sanitizer sees.
class Arguments {
 public:
  Arguments() = default;
  // Texts only.
  Arguments(std::initializer_list<std::string_view> texts);
  // Arguments without values by the letters of a form: S text, I integer, R real, D decimal, O row.
  static Arguments ofTypes(std::string_view letters);

  Arguments& text(std::string_view bytes);
  Arguments& number(long long value);
  Arguments& real(double value);
  Arguments& decimal(std::string_view digits);
  Arguments& null(Item_result type = STRING_RESULT);

  // A copy of another call's argument.
  Arguments& copy(const UDF_ARGS& other, std::size_t position);

  // Replaces one argument by SQL NULL, or by a text.
  Arguments& setNull(std::size_t position);
  Arguments& setText(std::size_t position, std::string_view bytes);
  // What the server says of an argument's length.
  Arguments& setLength(std::size_t position, unsigned long length);

  UDF_ARGS* get();
  std::size_t count() const { return types_.size(); }

 private:
  void add(Item_result type, std::unique_ptr<char[]> bytes, unsigned long length);

  std::vector<Item_result> types_;
  std::vector<std::unique_ptr<char[]>> bytes_;
  std::vector<unsigned long> lengths_;
  std::vector<char*> pointers_;
  std::vector<char> maybe_null_;
  UDF_ARGS args_ = {};
};

// Runs behind every call: looks at what the function left behind. It belongs to the engine that a program has behind
// the functions, and is defined there.
void checkAfterCall();

// What an integer function gave back.
struct IntegerResult {
  long long value = 0;
  bool is_null = false;
  bool error = false;

  bool operator==(const IntegerResult&) const = default;
};
void PrintTo(const IntegerResult& result, std::ostream* out);

inline IntegerResult value(long long number) {
  return {number, false, false};
}
inline IntegerResult sqlNull() {
  return {0, true, false};
}
inline IntegerResult failure(long long number = 0) {
  return {number, false, true};
}

IntegerResult call(IntegerFunction function, Arguments& arguments);
IntegerResult call(IntegerFunction function, Arguments&& arguments);

// What a string function gave back. The server's result buffer lives as long as this object, with a guard behind its
// 255 bytes.
class StringResult {
 public:
  static constexpr std::size_t kServerBuffer = 255;
  static constexpr unsigned long kLengthBefore = 0xA5A5A5;  // what the length holds before the call

  StringResult();

  // The text, read at the moment of this call; the empty text for a null pointer.
  std::string text() const { return pointer == nullptr ? std::string() : std::string(pointer, length); }
  bool isEmptyText() const { return pointer != nullptr && length == 0 && !is_null && !error; }
  bool isInServerBuffer() const { return pointer == buffer.get(); }
  // Whether nothing was written behind the server's buffer, or into it from `from` on.
  bool isGuardIntact(std::size_t from = kServerBuffer) const;

  char* pointer = nullptr;
  unsigned long length = kLengthBefore;
  bool is_null = false;
  bool error = false;
  std::unique_ptr<char[]> buffer;
};

StringResult call(StringFunction function, Arguments& arguments);
StringResult call(StringFunction function, Arguments&& arguments);

}  // namespace conformance
