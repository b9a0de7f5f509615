// SPDX-License-Identifier: Apache-2.0
//
// Checks of _init functions, driven by a table: which calls one accepts, what it sets, how it refuses every other call.
#pragma once

#include <array>
#include <iosfwd>
#include <string>
#include <vector>

#include "udf_functions.h"

namespace conformance {

// What one _init is to do.
struct InitRule {
  const char* name;
  InitFunction init;
  // Accepted forms, a letter an argument: S string, I integer, * either. At most one form of each count.
  std::vector<std::string> forms;
  const char* usage;
  // Longest result in bytes; 0 when the server's value stays.
  unsigned int max_length = 0;
  // Types are compared with this list before the count, and a wrong one is named by its position; empty for a function
  // that compares the count first.
  std::string type_list = {};
};
void PrintTo(const InitRule& rule, std::ostream* out);

// The message buffer of the server, filled with a pattern, so that every byte that was written shows.
class MessageBuffer {
 public:
  static constexpr std::size_t kSize = 512;

  MessageBuffer();
  char* data() { return bytes_.data(); }
  bool isUntouched() const;
  // Whether it holds exactly this text with its terminating zero, and is untouched behind it.
  bool holdsOnly(const std::string& text) const;
  std::string text() const;

 private:
  std::array<char, kSize> bytes_;
};

// A UDF_INIT as the server hands it over, every field with a value of its own.
UDF_INIT serversInit();
bool operator==(const UDF_INIT& a, const UDF_INIT& b);

// Every combination of types that the form stands for.
std::vector<std::string> typesOf(const std::string& form);

// Each reports what is wrong as failures of the running test.
void expectEveryFormAccepted(const InitRule& rule);
void expectEveryOtherCountRefused(const InitRule& rule);
void expectEveryOtherTypeRefused(const InitRule& rule);

}  // namespace conformance
