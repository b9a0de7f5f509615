// SPDX-License-Identifier: Apache-2.0
//
// The arguments of one call. No other code looks into UDF_ARGS.
#pragma once

#include <cstring>
#include <string_view>

#include "frame/mysql_headers.h"

namespace frame {

// Arguments by position, from 0. A position past the count reads as SQL NULL. Texts borrow the server's memory: they
// are valid during the call, are not zero-terminated and may hold any bytes.
class Args {
 public:
  // In an _init, text() and int32() have values for constants only; everything else reads as SQL NULL there.
  explicit Args(const UDF_ARGS* args) noexcept : args_(*args) {}

  unsigned int count() const noexcept { return args_.arg_count; }
  bool isNull(unsigned int i) const noexcept { return i >= count() || args_.args[i] == nullptr; }
  bool isString(unsigned int i) const noexcept { return i < count() && args_.arg_type[i] == STRING_RESULT; }
  bool isInteger(unsigned int i) const noexcept { return i < count() && args_.arg_type[i] == INT_RESULT; }

  // A string argument; the empty text for SQL NULL.
  std::string_view text(unsigned int i) const noexcept {
    return isNull(i) ? std::string_view() : std::string_view(args_.args[i], args_.lengths[i]);
  }

  // The low 32 bits of an integer argument; 0 for SQL NULL.
  int int32(unsigned int i) const noexcept {
    long long value = 0;
    if (!isNull(i)) {
      std::memcpy(&value, args_.args[i], sizeof value);
    }
    return static_cast<int>(value);
  }

 private:
  const UDF_ARGS& args_;
};

}  // namespace frame
