// SPDX-License-Identifier: Apache-2.0
//
// Which calls each function accepts, what its _init sets, and with which message it refuses every other call.
#include "fixture.h"
#include "init_checks.h"

namespace conformance {
namespace {

#define RULE(name) #name, name##_init
#define NO_DEINIT(name) #name, name##_deinit

const std::vector<InitRule>& rules() {
  static const std::vector<InitRule> all = {
      {RULE(kezu_conf_check_session_auth), {"S"}, "check_session_auth_init('string data')", 64},
      {RULE(kezu_conf_get_auth), {"S", "SS"}, "kezu_conf_get_column_init('string data')", 64},
      {RULE(kezu_conf_get_session_id), {"S"}, "kezu_conf_get_column_init('string data')", 64},
      {RULE(kezu_conf_set_policy), {"S", "SS", "SSIIIIIIS"}, "kezu_conf_set_column_init('string data')", 64},
      {RULE(kezu_conf_set_column), {"SSSS", "SSSSS"}, "kezu_conf_set_column_init('string data')"},
      {RULE(data_process_ed_check_str), {"SS"}, "data_process_ed_check_init('policyID','string_data')", 8192},
      {RULE(data_process_ed_check_int), {"SS"}, "data_process_ed_check_init('policyID','string_data')", 8192},
      {RULE(data_process_po_ed), {"SIS"}, "hash_raw_data_init('string data')", 8192},
  };
  return all;
}

class Init : public Conformance, public ::testing::WithParamInterface<InitRule> {};

TEST_P(Init, AcceptsEachFormAndSetsItsResultFields) {
  expectEveryFormAccepted(GetParam());
}

TEST_P(Init, RefusesEveryOtherCountWithItsUsageMessage) {
  expectEveryOtherCountRefused(GetParam());
}

TEST_P(Init, RefusesEveryOtherType) {
  expectEveryOtherTypeRefused(GetParam());
}

TEST_P(Init, DoesNothingButStartTheEngine) {
  expectEveryFormAccepted(GetParam());
  EXPECT_THAT(engine.operations(), ::testing::Each(std::string("kezuInitialize")));
  EXPECT_LE(engine.count("kezuInitialize"), 1U);
}

TEST_P(Init, RefusalDoesNotStartTheEngine) {
  inNewProcess([&] {
    expectEveryOtherCountRefused(GetParam());
    expectEveryOtherTypeRefused(GetParam());
    EXPECT_THAT(engine.calls(), IsEmpty());
  });
}

INSTANTIATE_TEST_SUITE_P(EachFunction, Init, ::testing::ValuesIn(rules()),
                         [](const auto& rule) { return std::string(rule.param.name); });

TEST(Deinit, NoConfigurationOrPolicyFunctionHasOne) {
  const std::vector<std::pair<const char*, void (*)(UDF_INIT*)>> deinits = {
      {NO_DEINIT(kezu_conf_check_session_auth)}, {NO_DEINIT(kezu_conf_get_auth)},
      {NO_DEINIT(kezu_conf_get_session_id)},     {NO_DEINIT(kezu_conf_set_policy)},
      {NO_DEINIT(kezu_conf_set_column)},         {NO_DEINIT(data_process_ed_check_str)},
      {NO_DEINIT(data_process_ed_check_int)},    {NO_DEINIT(data_process_po_ed)},
  };
  for (const auto& [name, deinit] : deinits) {
    EXPECT_EQ(deinit, nullptr) << name;
  }
}

}  // namespace
}  // namespace conformance
