// SPDX-License-Identifier: Apache-2.0
//
// The order of checks that looks at the types before the count, on functions that are written for this test: an _init
// is data, and what it does must not depend on the function that it belongs to.
#include "fixture.h"
#include "frame/function.h"
#include "init_checks.h"

// types_first_texts([session [, text]]) -> STRING: the text.
KEZU_STRING_FUNCTION(types_first_texts, {.forms = {"", "S", "SS"},
                                         .usage = "usage of texts",
                                         .max_length = 64,
                                         .order = frame::CheckOrder::kTypesThenCount})
(const frame::Args& args, frame::Flags& /*flags*/, frame::ServerBuffer buffer) {
  return buffer.copy(args.text(1));
}

// types_first_numbers(session [, a, b]) -> INTEGER: a. Anything but one and three arguments is refused.
KEZU_INTEGER_FUNCTION(types_first_numbers,
                      {.forms = {"SII", "S"}, .usage = "usage of numbers", .order = frame::CheckOrder::kTypesThenCount})
(const frame::Args& args, frame::Flags& /*flags*/) {
  return args.int32(1);
}

// either_type(session, a, b) -> INTEGER: a. The second argument may be of either type.
KEZU_INTEGER_FUNCTION(either_type, {.forms = {"S", "S*I"}, .usage = "usage of either"})
(const frame::Args& args, frame::Flags& /*flags*/) {
  return args.int32(1);
}

namespace conformance {
namespace {

const std::vector<InitRule>& rules() {
  static const std::vector<InitRule> all = {
      {"types_first_texts", types_first_texts_init, {"", "S", "SS"}, "usage of texts", 64, "SS"},
      {"types_first_numbers", types_first_numbers_init, {"S", "SII"}, "usage of numbers", 0, "SII"},
      {"either_type", either_type_init, {"S", "S*I"}, "usage of either"},
  };
  return all;
}

class Frame : public Conformance, public ::testing::WithParamInterface<InitRule> {};

TEST_P(Frame, AcceptsEachFormAndSetsItsResultFields) {
  expectEveryFormAccepted(GetParam());
}

TEST_P(Frame, RefusesEveryOtherCountWithItsUsageMessage) {
  expectEveryOtherCountRefused(GetParam());
}

TEST_P(Frame, RefusesEveryOtherType) {
  expectEveryOtherTypeRefused(GetParam());
}

INSTANTIATE_TEST_SUITE_P(EachFunction, Frame, ::testing::ValuesIn(rules()),
                         [](const auto& rule) { return std::string(rule.param.name); });

class TypesFirst : public Conformance {
 protected:
  // The message of a call that is refused.
  static std::string refusal(InitFunction init, std::string_view types) {
    UDF_INIT result = serversInit();
    MessageBuffer message;
    Arguments arguments = Arguments::ofTypes(types);
    EXPECT_NE(init(&result, arguments.get(), message.data()), 0) << types;
    EXPECT_TRUE(result == serversInit()) << types;
    return message.text();
  }
};

TEST_F(TypesFirst, PositionIsCountedFromZero) {
  EXPECT_EQ(refusal(types_first_texts_init, "SI"), "1 argument is wrong type");
  EXPECT_EQ(refusal(types_first_texts_init, "IS"), "0 argument is wrong type");
  EXPECT_EQ(refusal(types_first_numbers_init, "SIS"), "2 argument is wrong type");
}

TEST_F(TypesFirst, WrongTypeIsNamedEvenWhereTheCountIsWrong) {
  EXPECT_EQ(refusal(types_first_texts_init, "SIS"), "1 argument is wrong type");
  EXPECT_EQ(refusal(types_first_numbers_init, "SS"), "1 argument is wrong type");
}

TEST_F(TypesFirst, ArgumentsBehindTheListAreNotCompared) {
  EXPECT_EQ(refusal(types_first_texts_init, "SSS"), "usage of texts");
  EXPECT_EQ(refusal(types_first_texts_init, "SSI"), "usage of texts");
  EXPECT_EQ(refusal(types_first_texts_init, "SSR"), "usage of texts");
}

TEST_F(TypesFirst, NoArgumentsAreAcceptedOrRefusedAsTheFormsSay) {
  UDF_INIT result = serversInit();
  MessageBuffer message;
  Arguments none;
  EXPECT_EQ(types_first_texts_init(&result, none.get(), message.data()), 0);
  EXPECT_EQ(result.max_length, 64U);
  EXPECT_TRUE(message.isUntouched());
  EXPECT_EQ(refusal(types_first_numbers_init, ""), "usage of numbers");
}

}  // namespace
}  // namespace conformance
