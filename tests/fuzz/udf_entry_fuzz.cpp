// SPDX-License-Identifier: Apache-2.0
//
// The SQL functions as the server calls them, with any arguments, on the real engine. udf_input.h tells how statements
// stand in an input.
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "conformance/every_function.h"
#include "conformance/udf_call.h"
#include "fuzz/demand.h"
#include "fuzz/input.h"
#include "fuzz/udf_input.h"
#include "fuzz/udf_tables.h"

namespace {

using conformance::Arguments;
using fuzz::demand;

struct Function {
  InitFunction init;
  IntegerFunction integer;  // one of integer and string is null
  StringFunction string;
  void (*deinit)(UDF_INIT*);  // may be null
};

#define INTEGER_ENTRY(name) {name##_init, name, nullptr, name##_deinit},
#define STRING_ENTRY(name) {name##_init, nullptr, name, name##_deinit},
const Function kFunctions[] = {KEZU_EVERY_FUNCTION(INTEGER_ENTRY, STRING_ENTRY)};

constexpr std::size_t kMessageSize = 512;         // of the server's buffer for a refusal
constexpr unsigned long kUnset = 0xA5A5A5A5;      // a length that no function gave
constexpr unsigned long kLongestText = 64 << 20;  // no function has that much to give

std::string last_text;  // what the last string function gave

std::string_view textOf(fuzz::Bytes bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

void addText(fuzz::Input& input, Arguments& row) {
  const unsigned choice = input.byte();
  if (choice == 0) {
    row.null(STRING_RESULT);
  } else if (choice == 255) {
    row.text(last_text);
  } else if (choice >= 128) {
    row.text(textOf(input.take(choice - 128)));
  } else {
    row.text(fuzz::kTexts[(choice - 1) % std::size(fuzz::kTexts)]);
  }
}

// Adds a number by its type; `add` takes a long long.
template <typename Add>
void addNumber(fuzz::Input& input, Arguments& row, Item_result type, Add add) {
  const unsigned choice = input.byte();
  if (choice == 0) {
    row.null(type);
  } else {
    add(choice == 255 ? static_cast<long long>(input.number(8)) : static_cast<int>(choice) - fuzz::kZero);
  }
}

Item_result typeOf(unsigned kind) {
  switch (kind % 8) {
    case fuzz::kReal:
      return REAL_RESULT;
    case fuzz::kDecimal:
      return DECIMAL_RESULT;
    default:
      return kind % 8 < fuzz::kInteger ? STRING_RESULT : INT_RESULT;
  }
}

void addValue(fuzz::Input& input, Arguments& row, unsigned kind) {
  const Item_result type = typeOf(kind);
  switch (type) {
    case INT_RESULT:
      addNumber(input, row, type, [&row](long long value) { row.number(value); });
      break;
    case REAL_RESULT:
      addNumber(input, row, type, [&row](long long value) { row.real(static_cast<double>(value) / 7); });
      break;
    case DECIMAL_RESULT:
      addNumber(input, row, type, [&row](long long value) { row.decimal(std::to_string(value) + ".5"); });
      break;
    default:
      addText(input, row);
  }
}

// The values of a row: new ones, but for constants, which stay as they were.
class Rows {
 public:
  Rows(fuzz::Input& input, unsigned arguments) : input_(input) {
    for (unsigned i = 0; i < arguments; ++i) {
      kinds_.push_back(input.byte());
      Arguments value;
      addValue(input, value, kinds_.back());
      values_.push_back(std::move(value));
    }
  }

  // What _init sees: constants have their value, of everything else only the type and the greatest length is known.
  UDF_ARGS* forInit() {
    return assemble([](unsigned kind) { return (kind & fuzz::kConstant) != 0; });
  }

  UDF_ARGS* row() {
    return assemble([](unsigned /*kind*/) { return true; });
  }

  void next() {
    for (std::size_t i = 0; i < kinds_.size(); ++i) {
      if ((kinds_[i] & fuzz::kConstant) == 0) {
        values_[i] = Arguments();
        addValue(input_, values_[i], kinds_[i]);
      }
    }
  }

 private:
  template <typename Shown>
  UDF_ARGS* assemble(Shown shown) {
    constexpr unsigned long kGreatestLength = 300;
    all_ = Arguments();
    for (std::size_t i = 0; i < kinds_.size(); ++i) {
      all_.copy(*values_[i].get(), 0);
      if (!shown(kinds_[i])) {
        all_.setNull(i).setLength(i, kGreatestLength);
      }
    }
    return all_.get();
  }

  fuzz::Input& input_;
  std::vector<unsigned> kinds_;
  std::vector<Arguments> values_;
  Arguments all_;
};

// A row's call, with the server's result buffer of exactly its size. Returns whether the server would go on to the
// next row.
bool callRow(const Function& function, UDF_INIT& init, UDF_ARGS* args) {
  char is_null = 0;
  char error = 0;
  if (function.integer != nullptr) {
    function.integer(&init, args, &is_null, &error);
    return error == 0;
  }
  const auto buffer = std::make_unique<char[]>(conformance::StringResult::kServerBuffer);
  unsigned long length = kUnset;
  const char* text = function.string(&init, args, buffer.get(), &length, &is_null, &error);
  if (text != nullptr) {
    demand(length <= kLongestText, "a text comes with its length");
    last_text.assign(text, length);  // reads all of it
  }
  return error == 0;
}

void runStatement(fuzz::Input& input) {
  const Function& function = kFunctions[input.byte() % std::size(kFunctions)];
  const unsigned count = input.byte() % (fuzz::kMaxArguments + 1);
  const unsigned rows = 1 + input.byte() % fuzz::kMaxRows;
  Rows values(input, count);
  UDF_INIT init = {};
  init.max_length = 255;
  const auto message = std::make_unique<char[]>(kMessageSize);
  if (function.init(&init, values.forInit(), message.get()) != 0) {
    demand(std::memchr(message.get(), '\0', kMessageSize) != nullptr, "a message ends");
    return;
  }
  for (unsigned left = rows; callRow(function, init, values.row()) && --left != 0;) {
    values.next();
  }
  if (function.deinit != nullptr) {
    function.deinit(&init);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  fuzz::makeHome();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  fuzz::Input input({data, size});
  fuzz::resetTables(input.byte());
  last_text.clear();
  while (!input.empty()) {
    runStatement(input);
  }
  return 0;
}
