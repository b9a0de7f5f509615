// SPDX-License-Identifier: Apache-2.0
#include "init_checks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <ostream>

#include "udf_call.h"

namespace conformance {
namespace {

constexpr char kPattern = '\x5A';
constexpr std::size_t kMostArguments = 14;
constexpr std::string_view kAllTypes = "SIRDO";

bool isAccepted(const InitRule& rule, std::size_t count) {
  return std::any_of(rule.forms.begin(), rule.forms.end(), [&](const auto& form) { return form.size() == count; });
}

bool fits(char type, char wanted) {
  return type == wanted || (wanted == '*' && (type == 'S' || type == 'I'));
}

// Types that a call with a wrong count is made with: as many as possible of the type list, then strings.
std::string typesForCount(const InitRule& rule, std::size_t count) {
  std::string types(count, 'S');
  std::copy_n(rule.type_list.begin(), std::min(count, rule.type_list.size()), types.begin());
  return types;
}

struct Outcome {
  bool refused;
  UDF_INIT init;
  MessageBuffer message;
};

Outcome run(const InitRule& rule, const std::string& types) {
  Outcome outcome{false, serversInit(), {}};
  Arguments arguments = Arguments::ofTypes(types);
  outcome.refused = rule.init(&outcome.init, arguments.get(), outcome.message.data()) != 0;
  return outcome;
}

void expectRefused(const Outcome& outcome) {
  EXPECT_TRUE(outcome.refused);
  EXPECT_TRUE(outcome.init == serversInit()) << "a refused call changed the result's properties";
}

std::string describe(const InitRule& rule, const std::string& types) {
  return std::string(rule.name) + "_init(" + types + ")";
}

// The first position whose type the list does not allow, or the list's size.
std::size_t firstWrongType(const std::string& type_list, const std::string& types) {
  const std::size_t compared = std::min(type_list.size(), types.size());
  for (std::size_t i = 0; i < compared; ++i) {
    if (!fits(types[i], type_list[i])) {
      return i;
    }
  }
  return type_list.size();
}

}  // namespace

void PrintTo(const InitRule& rule, std::ostream* out) {
  *out << rule.name;
}

MessageBuffer::MessageBuffer() : bytes_{} {
  bytes_.fill(kPattern);
}

bool MessageBuffer::isUntouched() const {
  return std::all_of(bytes_.begin(), bytes_.end(), [](char c) { return c == kPattern; });
}

bool MessageBuffer::holdsOnly(const std::string& text) const {
  return text.size() < bytes_.size() && std::equal(text.begin(), text.end(), bytes_.begin()) &&
         bytes_[text.size()] == '\0' &&
         std::all_of(bytes_.begin() + static_cast<std::ptrdiff_t>(text.size()) + 1, bytes_.end(),
                     [](char c) { return c == kPattern; });
}

std::string MessageBuffer::text() const {
  return {bytes_.begin(), std::find(bytes_.begin(), bytes_.end(), '\0')};
}

UDF_INIT serversInit() {
  static char pointed = 0;
  UDF_INIT init = {};
  init.maybe_null = 0;
  init.decimals = 31;
  init.max_length = 4711;
  init.ptr = &pointed;
  init.const_item = 1;
  return init;
}

bool operator==(const UDF_INIT& a, const UDF_INIT& b) {
  return a.maybe_null == b.maybe_null && a.decimals == b.decimals && a.max_length == b.max_length && a.ptr == b.ptr &&
         a.const_item == b.const_item;
}

std::vector<std::string> typesOf(const std::string& form) {
  std::vector<std::string> all = {""};
  for (const char letter : form) {
    std::vector<std::string> longer;
    for (const std::string& types : all) {
      for (const char type : letter == '*' ? std::string("SI") : std::string(1, letter)) {
        longer.push_back(types + type);
      }
    }
    all = longer;
  }
  return all;
}

void expectEveryFormAccepted(const InitRule& rule) {
  UDF_INIT expected = serversInit();
  expected.maybe_null = 1;
  expected.max_length = rule.max_length == 0 ? expected.max_length : rule.max_length;
  for (const std::string& form : rule.forms) {
    for (const std::string& types : typesOf(form)) {
      SCOPED_TRACE(describe(rule, types));
      const Outcome outcome = run(rule, types);
      EXPECT_FALSE(outcome.refused);
      EXPECT_EQ(outcome.init.maybe_null, 1);
      EXPECT_EQ(outcome.init.max_length, expected.max_length);
      EXPECT_TRUE(outcome.init == expected) << "another property of the result changed";
      EXPECT_TRUE(outcome.message.isUntouched()) << outcome.message.text();
    }
  }
}

void expectEveryOtherCountRefused(const InitRule& rule) {
  for (std::size_t count = 0; count <= kMostArguments; ++count) {
    if (isAccepted(rule, count)) {
      continue;
    }
    const std::string types = typesForCount(rule, count);
    SCOPED_TRACE(describe(rule, types));
    const Outcome outcome = run(rule, types);
    expectRefused(outcome);
    EXPECT_TRUE(outcome.message.holdsOnly(rule.usage)) << outcome.message.text();
  }
}

// With a count that no form has, a function that compares the count first does not look at the types.
void expectUsageWhateverTheTypes(const InitRule& rule) {
  for (std::size_t count = 1; count <= kMostArguments; ++count) {
    for (const char type : kAllTypes) {
      if (!isAccepted(rule, count)) {
        const std::string types(count, type);
        SCOPED_TRACE(describe(rule, types));
        const Outcome outcome = run(rule, types);
        expectRefused(outcome);
        EXPECT_TRUE(outcome.message.holdsOnly(rule.usage)) << outcome.message.text();
      }
    }
  }
}

void expectWrongTypeRefusedSilently(const InitRule& rule, const std::string& types) {
  SCOPED_TRACE(describe(rule, types));
  const Outcome outcome = run(rule, types);
  expectRefused(outcome);
  EXPECT_TRUE(outcome.message.isUntouched()) << outcome.message.text();
}

void expectEveryOtherTypeOf(const InitRule& rule, const std::string& form) {
  for (const std::string& types : typesOf(form)) {
    for (std::size_t i = 0; i < form.size(); ++i) {
      for (const char type : kAllTypes) {
        if (!fits(type, form[i])) {
          std::string wrong = types;
          wrong[i] = type;
          expectWrongTypeRefusedSilently(rule, wrong);
        }
      }
    }
  }
}

// Any count, accepted or not: the first type that differs from the list is named by its position.
void expectWrongTypesNamed(const InitRule& rule) {
  for (std::size_t count = 1; count <= kMostArguments; ++count) {
    for (std::size_t i = 0; i < std::min(count, rule.type_list.size()); ++i) {
      for (const char type : kAllTypes) {
        std::string types = typesForCount(rule, count);
        // Later arguments are wrong too: the first one counts.
        std::fill(types.begin() + static_cast<std::ptrdiff_t>(i), types.end(), type);
        const std::size_t wrong = firstWrongType(rule.type_list, types);
        if (wrong == rule.type_list.size()) {
          continue;
        }
        SCOPED_TRACE(describe(rule, types));
        const Outcome outcome = run(rule, types);
        expectRefused(outcome);
        EXPECT_TRUE(outcome.message.holdsOnly(std::to_string(wrong) + " argument is wrong type"))
            << outcome.message.text();
      }
    }
  }
}

void expectEveryOtherTypeRefused(const InitRule& rule) {
  if (!rule.type_list.empty()) {
    expectWrongTypesNamed(rule);
    return;
  }
  expectUsageWhateverTheTypes(rule);
  for (const std::string& form : rule.forms) {
    expectEveryOtherTypeOf(rule, form);
  }
}

}  // namespace conformance
