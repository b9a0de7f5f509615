// SPDX-License-Identifier: Apache-2.0
//
// Calls of SQL functions through their C entry points, as a server makes them: _init, rows, _deinit.
#pragma once

#include <array>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "conformance/every_function.h"

namespace fault {

// The arguments of a call. Texts are borrowed.
class SqlArguments {
 public:
  SqlArguments& text(std::string_view bytes) {
    types_[count_] = STRING_RESULT;
    values_[count_] = const_cast<char*>(bytes.data() == nullptr ? "" : bytes.data());
    lengths_[count_++] = bytes.size();
    return *this;
  }
  SqlArguments& number(long long value) {
    types_[count_] = INT_RESULT;
    numbers_[count_] = value;
    lengths_[count_++] = sizeof value;
    return *this;
  }

  UDF_ARGS get() {
    for (unsigned int i = 0; i < count_; ++i) {
      if (types_[i] == INT_RESULT) {
        values_[i] = reinterpret_cast<char*>(&numbers_[i]);
      }
    }
    UDF_ARGS args = {};
    args.arg_count = count_;
    args.arg_type = types_.data();
    args.args = values_.data();
    args.lengths = lengths_.data();
    args.maybe_null = maybeNull_.data();
    return args;
  }

 private:
  static constexpr std::size_t kMost = 9;
  std::array<Item_result, kMost> types_ = {};
  std::array<char*, kMost> values_ = {};
  std::array<unsigned long, kMost> lengths_ = {};
  std::array<long long, kMost> numbers_ = {};
  std::array<char, kMost> maybeNull_ = {};
  unsigned int count_ = 0;
};

// What _init says: empty when the statement may run, else the message.
inline std::string prepare(InitFunction init, SqlArguments& arguments) {
  UDF_INIT initid = {};
  UDF_ARGS args = arguments.get();
  char message[512] = "";
  return init(&initid, &args, message) ? (*message != '\0' ? message : "refused") : "";
}

// One row of an integer function; nothing for SQL NULL.
inline std::optional<long long> row(IntegerFunction function, SqlArguments& arguments) {
  UDF_INIT initid = {};
  UDF_ARGS args = arguments.get();
  char isNull = 0;
  char error = 0;
  const long long value = function(&initid, &args, &isNull, &error);
  return isNull != 0 || error != 0 ? std::nullopt : std::optional(value);
}
inline std::optional<long long> row(IntegerFunction function, SqlArguments&& arguments) {
  return row(function, arguments);
}

// One row of a string function; nothing for SQL NULL.
inline std::optional<std::string> row(StringFunction function, SqlArguments& arguments) {
  UDF_INIT initid = {};
  UDF_ARGS args = arguments.get();
  char buffer[255];
  unsigned long length = 0;
  char isNull = 0;
  char error = 0;
  const char* text = function(&initid, &args, buffer, &length, &isNull, &error);
  return text == nullptr || isNull != 0 || error != 0 ? std::nullopt : std::optional(std::string(text, length));
}
inline std::optional<std::string> row(StringFunction function, SqlArguments&& arguments) {
  return row(function, arguments);
}

}  // namespace fault
