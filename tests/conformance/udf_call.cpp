// SPDX-License-Identifier: Apache-2.0
#include "udf_call.h"

#include <algorithm>
#include <cstring>
#include <ostream>
#include <stdexcept>

namespace conformance {
namespace {

constexpr std::size_t kGuard = 1024;
constexpr char kPattern = '\x5A';

std::unique_ptr<char[]> copyOf(std::string_view bytes) {
  auto copy = std::make_unique<char[]>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), copy.get());
  return copy;
}

Item_result typeOf(char letter) {
  switch (letter) {
    case 'S':
      return STRING_RESULT;
    case 'I':
      return INT_RESULT;
    case 'R':
      return REAL_RESULT;
    case 'D':
      return DECIMAL_RESULT;
    case 'O':
      return ROW_RESULT;
    default:
      throw std::invalid_argument("no such argument type");
  }
}

UDF_INIT plainInit() {
  UDF_INIT init = {};
  init.maybe_null = 1;
  init.max_length = 64;
  return init;
}

}  // namespace

Arguments::Arguments(std::initializer_list<std::string_view> texts) {
  for (const std::string_view bytes : texts) {
    text(bytes);
  }
}

Arguments Arguments::ofTypes(std::string_view letters) {
  Arguments arguments;
  for (const char letter : letters) {
    arguments.null(typeOf(letter));
  }
  return arguments;
}

void Arguments::add(Item_result type, std::unique_ptr<char[]> bytes, unsigned long length) {
  types_.push_back(type);
  bytes_.push_back(std::move(bytes));
  lengths_.push_back(length);
}

Arguments& Arguments::text(std::string_view bytes) {
  add(STRING_RESULT, copyOf(bytes), bytes.size());
  return *this;
}

Arguments& Arguments::number(long long value) {
  add(INT_RESULT, copyOf({reinterpret_cast<const char*>(&value), sizeof value}), sizeof value);
  return *this;
}

Arguments& Arguments::real(double value) {
  add(REAL_RESULT, copyOf({reinterpret_cast<const char*>(&value), sizeof value}), sizeof value);
  return *this;
}

Arguments& Arguments::decimal(std::string_view digits) {
  add(DECIMAL_RESULT, copyOf(digits), digits.size());
  return *this;
}

Arguments& Arguments::copy(const UDF_ARGS& other, std::size_t position) {
  const char* bytes = other.args[position];
  const unsigned long length = other.lengths[position];
  add(other.arg_type[position], bytes == nullptr ? nullptr : copyOf({bytes, length}), length);
  return *this;
}

Arguments& Arguments::null(Item_result type) {
  add(type, nullptr, 0);
  return *this;
}

Arguments& Arguments::setNull(std::size_t position) {
  bytes_.at(position) = nullptr;
  lengths_.at(position) = 0;
  return *this;
}

Arguments& Arguments::setText(std::size_t position, std::string_view bytes) {
  bytes_.at(position) = copyOf(bytes);
  lengths_.at(position) = bytes.size();
  return *this;
}

Arguments& Arguments::setLength(std::size_t position, unsigned long length) {
  lengths_.at(position) = length;
  return *this;
}

UDF_ARGS* Arguments::get() {
  pointers_.clear();
  for (auto& bytes : bytes_) {
    pointers_.push_back(bytes.get());
  }
  maybe_null_.assign(types_.size(), 1);
  pointers_.shrink_to_fit();
  types_.shrink_to_fit();
  lengths_.shrink_to_fit();
  maybe_null_.shrink_to_fit();
  args_.arg_count = static_cast<unsigned int>(types_.size());
  args_.arg_type = types_.data();
  args_.args = pointers_.data();
  args_.lengths = lengths_.data();
  args_.maybe_null = maybe_null_.data();
  return &args_;
}

void PrintTo(const IntegerResult& result, std::ostream* out) {
  *out << result.value << (result.is_null ? ", null flag" : "") << (result.error ? ", error flag" : "");
}

IntegerResult call(IntegerFunction function, Arguments& arguments) {
  UDF_INIT init = plainInit();
  char is_null = 0;
  char error = 0;
  IntegerResult result;
  result.value = function(&init, arguments.get(), &is_null, &error);
  checkAfterCall();
  result.is_null = is_null != 0;
  result.error = error != 0;
  return result;
}

IntegerResult call(IntegerFunction function, Arguments&& arguments) {
  return call(function, arguments);
}

StringResult::StringResult() : buffer(std::make_unique<char[]>(kServerBuffer + kGuard)) {
  std::memset(buffer.get(), kPattern, kServerBuffer + kGuard);
}

bool StringResult::isGuardIntact(std::size_t from) const {
  return std::all_of(buffer.get() + from, buffer.get() + kServerBuffer + kGuard, [](char c) { return c == kPattern; });
}

StringResult call(StringFunction function, Arguments& arguments) {
  UDF_INIT init = plainInit();
  char is_null = 0;
  char error = 0;
  StringResult result;
  result.pointer = function(&init, arguments.get(), result.buffer.get(), &result.length, &is_null, &error);
  checkAfterCall();
  result.is_null = is_null != 0;
  result.error = error != 0;
  return result;
}

StringResult call(StringFunction function, Arguments&& arguments) {
  return call(function, arguments);
}

}  // namespace conformance
