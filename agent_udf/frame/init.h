// SPDX-License-Identifier: Apache-2.0
//
// What every _init does, driven by data: check the arguments, set the result's properties, start the engine.
#pragma once

#include <array>
#include <atomic>

#include "frame/args.h"

namespace frame {

// One accepted form of a call: a letter an argument, S for a string, I for an integer, * for either.
using Form = const char*;

enum class CheckOrder {
  // The count is compared with those of the forms, a wrong one is refused with the usage message; then the types with
  // the
  // form's, a wrong one is refused without a message.
  kCountThenTypes,
  // The types are compared with those of the longest form, and the first wrong one is refused by its position; then the
  // count, a wrong one is refused with the usage message.
  kTypesThenCount,
};

enum class EngineStart {
  kShared,  // through initUdf, as all configuration functions do
  kOwn,     // under a flag of the function's own, as the data functions do
};

// A check of the arguments of one function's own, after the common ones. Returns null, or the message of the refusal;
// may set the result's properties.
using Prepare = const char* (*)(const Args& args, UDF_INIT& initid);

// The arguments and result of one function.
struct Signature {
  bool any_arguments = false;      // the arguments are not looked at
  std::array<Form, 4> forms = {};  // unused entries are null; no two forms have the same count
  const char* usage = "";          // message for a wrong count
  unsigned int max_length = 0;     // longest result in bytes, 0 to leave what the server set
  bool sets_maybe_null = true;     // the result may be SQL NULL; else what the server set is left
  CheckOrder order = CheckOrder::kCountThenTypes;
  EngineStart start = EngineStart::kShared;
  Prepare prepare = nullptr;
  void (*after_start)() = nullptr;  // run on every accepted call, once the engine runs
};

// Runs an _init. `started` is the function's own start flag, used with EngineStart::kOwn. Returns what the server
// expects: 0 to accept the call, 1 to refuse it. Throws nothing.
ServerBool init(const Signature& signature, std::atomic<bool>& started, UDF_INIT* initid, const UDF_ARGS* args,
                char* message) noexcept;

// Starts the engine unless `started` is set, and sets it on success. On failure the engine's reason is in `message`.
bool startEngine(std::atomic<bool>& started, char* message);

}  // namespace frame
