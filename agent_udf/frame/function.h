// SPDX-License-Identifier: Apache-2.0
//
// How an SQL function is written:
//
//   // name(a [, b]) -> INTEGER: what it does, what it returns.
//   KEZU_INTEGER_FUNCTION(name, {.forms = {"S", "SI"}, .usage = "name('string data')"})
//   (const frame::Args& args, frame::Flags& flags) {
//     ...
//   }
//
// The macros declare name_init and name with the server's C interface around the signature and the body. What a body
// throws ends in the frame: the server sees the error flag and SQL NULL.
#pragma once

#include <atomic>

#include "frame/answer.h"
#include "frame/args.h"
#include "frame/init.h"

namespace frame {

// The flags of one call.
class Flags {
 public:
  Flags(char* is_null, char* error) noexcept : is_null_(is_null), error_(error) {}

  // The result of this row is SQL NULL.
  void setNull() noexcept { *is_null_ = 1; }

  // The function failed: SQL NULL for this row and every later row of the statement.
  void setError() noexcept { *error_ = 1; }

 private:
  char* is_null_;
  char* error_;
};

using IntegerBody = long long (*)(const Args&, Flags&);
using StringBody = Answer (*)(const Args&, Flags&, ServerBuffer);

inline long long callInteger(IntegerBody body, const UDF_ARGS* args, char* is_null, char* error) noexcept {
  Flags flags(is_null, error);
  try {
    return body(Args(args), flags);
  } catch (...) {
    flags.setError();
    return 0;
  }
}

inline char* callString(StringBody body, const UDF_ARGS* args, char* result, unsigned long* length, char* is_null,
                        char* error) noexcept {
  Flags flags(is_null, error);
  try {
    return body(Args(args), flags, ServerBuffer(result)).handOver(length);
  } catch (...) {
    flags.setError();
    return Answer::null().handOver(length);
  }
}

}  // namespace frame

#define KEZU_UDF_EXPORT extern "C" __attribute__((visibility("default")))

// The signature and name_init.
#define KEZU_UDF_INIT(name, ...)                                                                   \
  KEZU_UDF_EXPORT frame::ServerBool name##_init(UDF_INIT* initid, UDF_ARGS* args, char* message);  \
  KEZU_UDF_EXPORT frame::ServerBool name##_init(UDF_INIT* initid, UDF_ARGS* args, char* message) { \
    static constexpr frame::Signature signature __VA_ARGS__;                                       \
    static std::atomic<bool> initionalize{false};                                                  \
    return frame::init(signature, initionalize, initid, args, message);                            \
  }

#define KEZU_INTEGER_FUNCTION(name, ...)                                                             \
  static long long name##_body(const frame::Args& args, frame::Flags& flags);                        \
  KEZU_UDF_INIT(name, __VA_ARGS__)                                                                   \
  KEZU_UDF_EXPORT long long name(UDF_INIT* initid, UDF_ARGS* args, char* is_null, char* error);      \
  KEZU_UDF_EXPORT long long name(UDF_INIT* /*initid*/, UDF_ARGS* args, char* is_null, char* error) { \
    return frame::callInteger(name##_body, args, is_null, error);                                    \
  }                                                                                                  \
  static long long name##_body

#define KEZU_STRING_FUNCTION(name, ...)                                                                                \
  static frame::Answer name##_body(const frame::Args& args, frame::Flags& flags, frame::ServerBuffer buffer);          \
  KEZU_UDF_INIT(name, __VA_ARGS__)                                                                                     \
  KEZU_UDF_EXPORT char* name(UDF_INIT* initid, UDF_ARGS* args, char* result, unsigned long* length, char* is_null,     \
                             char* error);                                                                             \
  KEZU_UDF_EXPORT char* name(UDF_INIT* /*initid*/, UDF_ARGS* args, char* result, unsigned long* length, char* is_null, \
                             char* error) {                                                                            \
    return frame::callString(name##_body, args, result, length, is_null, error);                                       \
  }                                                                                                                    \
  static frame::Answer name##_body

// name_deinit, which runs `statement` when a statement that used the function has ended.
#define KEZU_DEINIT(name, statement)                         \
  KEZU_UDF_EXPORT void name##_deinit(UDF_INIT* initid);      \
  KEZU_UDF_EXPORT void name##_deinit(UDF_INIT* /*initid*/) { \
    try {                                                    \
      statement;                                             \
    } catch (...) {                                          \
    }                                                        \
  }
