// SPDX-License-Identifier: Apache-2.0
#include "frame/init.h"

#include <cstdio>
#include <cstring>

#include "kezu/engine.h"
#include "udfInit.h"

namespace frame {
namespace {

// What kezuInitialize is called with.
constexpr unsigned int kEngineMode = 1;

// The server's message buffer has MYSQL_ERRMSG_SIZE (512) bytes.
constexpr std::size_t kMessageSize = 512;

void explain(char* message, const char* text) {
  std::snprintf(message, kMessageSize, "%s", text);
}

bool hasType(const Args& args, unsigned int i, char type) {
  switch (type) {
    case 'S':
      return args.isString(i);
    case 'I':
      return args.isInteger(i);
    default:
      return args.isString(i) || args.isInteger(i);
  }
}

// The form with `count` arguments, or null.
Form formOf(const Signature& signature, unsigned int count) {
  for (Form form : signature.forms) {
    if (form != nullptr && std::strlen(form) == count) {
      return form;
    }
  }
  return nullptr;
}

Form longestForm(const Signature& signature) {
  Form longest = "";
  for (Form form : signature.forms) {
    if (form != nullptr && std::strlen(form) > std::strlen(longest)) {
      longest = form;
    }
  }
  return longest;
}

bool checkCountThenTypes(const Signature& signature, const Args& args, char* message) {
  Form form = formOf(signature, args.count());
  if (form == nullptr) {
    explain(message, signature.usage);
    return false;
  }
  for (unsigned int i = 0; i < args.count(); ++i) {
    if (!hasType(args, i, form[i])) {
      return false;
    }
  }
  return true;
}

bool checkTypesThenCount(const Signature& signature, const Args& args, char* message) {
  Form types = longestForm(signature);
  for (unsigned int i = 0; i < args.count() && types[i] != '\0'; ++i) {
    if (!hasType(args, i, types[i])) {
      std::snprintf(message, kMessageSize, "%u argument is wrong type", i);
      return false;
    }
  }
  if (formOf(signature, args.count()) == nullptr) {
    explain(message, signature.usage);
    return false;
  }
  return true;
}

bool checkArguments(const Signature& signature, const Args& args, char* message) {
  if (signature.any_arguments) {
    return true;
  }
  return signature.order == CheckOrder::kCountThenTypes ? checkCountThenTypes(signature, args, message)
                                                        : checkTypesThenCount(signature, args, message);
}

bool accept(const Signature& signature, std::atomic<bool>& started, UDF_INIT* initid, const Args& args, char* message) {
  if (!checkArguments(signature, args, message)) {
    return false;
  }
  if (signature.max_length != 0) {
    initid->max_length = signature.max_length;
  }
  if (signature.sets_maybe_null) {
    initid->maybe_null = true;
  }
  if (const char* refusal = signature.prepare == nullptr ? nullptr : signature.prepare(args, *initid)) {
    explain(message, refusal);
    return false;
  }
  const bool running = signature.start == EngineStart::kShared ? initUdf(message) : startEngine(started, message);
  if (running && signature.after_start != nullptr) {
    signature.after_start();
  }
  return running;
}

}  // namespace

bool startEngine(std::atomic<bool>& started, char* message) {
  if (started.load(std::memory_order_acquire)) {
    return true;
  }
  char scratch[kInitScratchSize] = {};
  if (kezuInitialize(kEngineMode, scratch, message) != 0) {
    return false;
  }
  started.store(true, std::memory_order_release);
  return true;
}

ServerBool init(const Signature& signature, std::atomic<bool>& started, UDF_INIT* initid, const UDF_ARGS* args,
                char* message) noexcept {
  try {
    return static_cast<ServerBool>(!accept(signature, started, initid, Args(args), message));
  } catch (...) {
    explain(message, "The call could not be prepared: out of memory, or an internal error.");
    return static_cast<ServerBool>(true);
  }
}

}  // namespace frame
