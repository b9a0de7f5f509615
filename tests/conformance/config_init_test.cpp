// SPDX-License-Identifier: Apache-2.0
//
// Which calls each setting, listing and privilege function accepts, what its _init sets, with which message it refuses
// every other call, and that it starts the engine.
#include "init_checks.h"
#include "listing_checks.h"

namespace conformance {
namespace {

#define RULE(name) #name, name##_init
#define NO_DEINIT(name) #name, name##_deinit

constexpr const char* kSetColumn = "kezu_conf_set_column_init('string data')";
constexpr const char* kGetColumn = "kezu_conf_get_column_init('string data')";
constexpr const char* kKmsMode = "kezu_conf_get_kms_mode_init('string data')";
constexpr const char* kSetQueryPriv = "kezu_conf_set_querypriv_init('string data')";
constexpr const char* kGetQueryPriv = "kezu_conf_get_querypriv_init('string data')";

const std::vector<InitRule>& rules() {
  static const std::vector<InitRule> all = {
      {RULE(kezu_conf_set_passwd), {"", "S", "SS"}, kGetQueryPriv, 64, "SS"},
      {RULE(kezu_conf_set_env), {"SII"}, kSetColumn, 64},
      {RULE(kezu_conf_get_env), {"SI"}, kGetColumn, 64},
      {RULE(kezu_conf_set_log_flag), {"SII"}, kSetColumn, 64},
      {RULE(kezu_conf_get_log_flag), {"SI"}, kGetColumn, 64},
      {RULE(kezu_conf_get_log), {"SIS", "SISI"}, kGetColumn, 2176},
      {RULE(kezu_conf_set_kms_mode), {"SI"}, kKmsMode},
      {RULE(kezu_conf_get_kms_mode), {"S"}, kKmsMode},
      {RULE(kezu_conf_get_policy_for_kms), {"", "S"}, "kezu_conf_get_policy_kms_mode_init('string data')", 64},
      {RULE(kezu_conf_get_policy), {"", "S", "S*I"}, kGetColumn, 64},
      {RULE(kezu_conf_get_column), {"", "S", "SII", "SSSS"}, kGetColumn, 64},
      {RULE(kezu_conf_set_accepriv), {"SSSSSS", "SSSSSSI"}, kSetColumn},
      {RULE(kezu_conf_get_accepriv), {"", "S", "SII", "SSSSSS"}, kGetColumn, 64},
      {RULE(kezu_conf_set_encpriv), {"SSSSS", "SSSSSII"}, kSetColumn},
      {RULE(kezu_conf_get_encpriv), {"", "S", "SII", "SSSSSI"}, kGetColumn, 64},
      {RULE(kezu_conf_set_querypriv), {"SSSSS", "SSSSSI"}, kSetQueryPriv, 64, "SSSSSI"},
      {RULE(kezu_conf_get_querypriv), {"", "S", "SI", "SII"}, kGetQueryPriv, 64, "SII"},
      {RULE(kezu_conf_set_tableinfo), {"SS", "SSS"}, kSetColumn},
      {RULE(kezu_conf_get_tableinfo), {"SS"}, kGetColumn, 2048},
      {RULE(hash_raw_data), {"S"}, "hash_raw_data_init('string data')", 64},
  };
  return all;
}

struct Attempt {
  bool refused = false;
  UDF_INIT init = serversInit();
  MessageBuffer message;
};

Attempt attempt(const InitRule& rule, std::string_view types) {
  Attempt made;
  Arguments of_types = Arguments::ofTypes(types);
  made.refused = rule.init(&made.init, of_types.get(), made.message.data()) != 0;
  return made;
}

const InitRule& ruleOf(std::string_view name) {
  for (const InitRule& rule : rules()) {
    if (rule.name == name) {
      return rule;
    }
  }
  throw std::invalid_argument("no such function");
}

class ConfigInit : public Conformance, public ::testing::WithParamInterface<InitRule> {
 protected:
  // A call that is accepted.
  std::string acceptedTypes() const { return typesOf(GetParam().forms.back()).front(); }
};

TEST_P(ConfigInit, AcceptsEachFormAndSetsItsResultFields) {
  expectEveryFormAccepted(GetParam());
}

TEST_P(ConfigInit, RefusesEveryOtherCountWithItsUsageMessage) {
  expectEveryOtherCountRefused(GetParam());
}

TEST_P(ConfigInit, RefusesEveryOtherType) {
  expectEveryOtherTypeRefused(GetParam());
}

TEST_P(ConfigInit, DoesNothingButStartTheEngine) {
  expectEveryFormAccepted(GetParam());
  EXPECT_THAT(engine.operations(), ::testing::Each(std::string("kezuInitialize")));
  EXPECT_LE(engine.count("kezuInitialize"), 1U);
}

TEST_P(ConfigInit, RefusalDoesNotStartTheEngine) {
  inNewProcess([&] {
    expectEveryOtherCountRefused(GetParam());
    expectEveryOtherTypeRefused(GetParam());
    EXPECT_THAT(engine.calls(), IsEmpty());
  });
}

TEST_P(ConfigInit, StartsTheEngineWithTheFirstAcceptedStatementAndTriesAgainAfterAFailure) {
  inNewProcess([&] {
    engine.answerNext("kezuInitialize", {-1, 7, 0});
    engine.answerText("kezuInitialize", "the home is missing");
    for (int i = 0; i < 2; ++i) {
      const Attempt failed = attempt(GetParam(), acceptedTypes());
      EXPECT_TRUE(failed.refused);
      EXPECT_EQ(failed.init.maybe_null, 1) << "the result's fields are set first";
      EXPECT_TRUE(failed.message.holdsOnly("the home is missing")) << failed.message.text();
    }
    EXPECT_FALSE(attempt(GetParam(), acceptedTypes()).refused);
    EXPECT_FALSE(attempt(GetParam(), acceptedTypes()).refused);
    EXPECT_EQ(engine.calls(), std::vector<std::string>(3, "kezuInitialize(1, scratch, message)"));
  });
}

TEST_P(ConfigInit, ExceptionOfTheStartRefusesTheStatement) {
  inNewProcess([&] {
    engine.onCall("kezuInitialize", [] { throw std::bad_alloc(); });
    EXPECT_TRUE(attempt(GetParam(), acceptedTypes()).refused);
    engine.onCall("kezuInitialize", nullptr);
    EXPECT_FALSE(attempt(GetParam(), acceptedTypes()).refused);
  });
}

INSTANTIATE_TEST_SUITE_P(EachFunction, ConfigInit, ::testing::ValuesIn(rules()),
                         [](const auto& rule) { return std::string(rule.param.name); });

class ConfigInitCase : public Conformance {};

TEST_F(ConfigInitCase, ConfigurationFunctionsShareOneStartAndDataFunctionsHaveTheirOwn) {
  inNewProcess([&] {
    for (const InitRule& rule : rules()) {
      if (std::string_view(rule.name) != "hash_raw_data") {
        EXPECT_FALSE(attempt(rule, typesOf(rule.forms.back()).front()).refused) << rule.name;
      }
    }
    EXPECT_EQ(engine.count("kezuInitialize"), 1U);
    EXPECT_FALSE(attempt(ruleOf("hash_raw_data"), "S").refused);
    EXPECT_EQ(engine.count("kezuInitialize"), 2U);
    UDF_INIT init = serversInit();
    MessageBuffer message;
    Arguments one = Arguments::ofTypes("S");
    Arguments two = Arguments::ofTypes("SS");
    EXPECT_EQ(hash_b64_data_init(&init, one.get(), message.data()), 0);
    EXPECT_EQ(engine.count("kezuInitialize"), 3U);
    EXPECT_EQ(hmac_b64_data_init(&init, two.get(), message.data()), 0);
    EXPECT_EQ(engine.count("kezuInitialize"), 4U);
  });
}

// --- Calls in so many words ---

TEST_F(ConfigInitCase, SetEnvWithTwoArguments) {
  EXPECT_TRUE(attempt(ruleOf("kezu_conf_set_env"), "SI").message.holdsOnly("kezu_conf_set_column_init('string data')"));
}

TEST_F(ConfigInitCase, SetPasswdWithAnIntegerOrThreeTexts) {
  EXPECT_TRUE(attempt(ruleOf("kezu_conf_set_passwd"), "SI").message.holdsOnly("1 argument is wrong type"));
  EXPECT_TRUE(attempt(ruleOf("kezu_conf_set_passwd"), "SIR").message.holdsOnly("1 argument is wrong type"));
  EXPECT_TRUE(attempt(ruleOf("kezu_conf_set_passwd"), "SSS").message.holdsOnly(kGetQueryPriv));
  EXPECT_TRUE(attempt(ruleOf("kezu_conf_set_passwd"), "SSI").message.holdsOnly(kGetQueryPriv));
}

TEST_F(ConfigInitCase, GetLogFlagWithATextForTheNumber) {
  const Attempt made = attempt(ruleOf("kezu_conf_get_log_flag"), "SS");
  EXPECT_TRUE(made.refused);
  EXPECT_TRUE(made.message.isUntouched());
}

TEST_F(ConfigInitCase, SetQueryPrivWithATextForTheAction) {
  EXPECT_TRUE(attempt(ruleOf("kezu_conf_set_querypriv"), "SSSSSS").message.holdsOnly("5 argument is wrong type"));
  EXPECT_TRUE(attempt(ruleOf("kezu_conf_set_querypriv"), "ISSSSS").message.holdsOnly("0 argument is wrong type"));
  EXPECT_TRUE(attempt(ruleOf("kezu_conf_set_querypriv"), "").message.holdsOnly(kSetQueryPriv));
  EXPECT_TRUE(attempt(ruleOf("kezu_conf_set_querypriv"), "SSSS").message.holdsOnly(kSetQueryPriv));
  EXPECT_TRUE(attempt(ruleOf("kezu_conf_set_querypriv"), "SSSSSIS").message.holdsOnly(kSetQueryPriv));
}

TEST_F(ConfigInitCase, GetQueryPrivWithAWrongTypeOrFourArguments) {
  EXPECT_TRUE(attempt(ruleOf("kezu_conf_get_querypriv"), "SS").message.holdsOnly("1 argument is wrong type"));
  EXPECT_TRUE(attempt(ruleOf("kezu_conf_get_querypriv"), "SIIS").message.holdsOnly(kGetQueryPriv));
  EXPECT_TRUE(attempt(ruleOf("kezu_conf_get_querypriv"), "SISS").message.holdsOnly("2 argument is wrong type"));
}

TEST_F(ConfigInitCase, SetEncPrivWithSixArguments) {
  EXPECT_TRUE(attempt(ruleOf("kezu_conf_set_encpriv"), "SSSSSI").message.holdsOnly(kSetColumn));
}

TEST_F(ConfigInitCase, OnlyTheThreeHashFunctionsHaveADeinit) {
  const std::vector<std::pair<const char*, void (*)(UDF_INIT*)>> deinits = {
      {NO_DEINIT(kezu_conf_set_passwd)},
      {NO_DEINIT(kezu_conf_set_env)},
      {NO_DEINIT(kezu_conf_get_env)},
      {NO_DEINIT(kezu_conf_set_log_flag)},
      {NO_DEINIT(kezu_conf_get_log_flag)},
      {NO_DEINIT(kezu_conf_get_log)},
      {NO_DEINIT(kezu_conf_set_kms_mode)},
      {NO_DEINIT(kezu_conf_get_kms_mode)},
      {NO_DEINIT(kezu_conf_get_policy)},
      {NO_DEINIT(kezu_conf_get_policy_for_kms)},
      {NO_DEINIT(kezu_conf_get_column)},
      {NO_DEINIT(kezu_conf_set_accepriv)},
      {NO_DEINIT(kezu_conf_get_accepriv)},
      {NO_DEINIT(kezu_conf_set_encpriv)},
      {NO_DEINIT(kezu_conf_get_encpriv)},
      {NO_DEINIT(kezu_conf_set_querypriv)},
      {NO_DEINIT(kezu_conf_get_querypriv)},
      {NO_DEINIT(kezu_conf_set_tableinfo)},
      {NO_DEINIT(kezu_conf_get_tableinfo)},
      {NO_DEINIT(getcolumnsizebyotc_kezu)},
      {NO_DEINIT(reload_kezu)},
  };
  for (const auto& [name, deinit] : deinits) {
    EXPECT_EQ(deinit, nullptr) << name;
  }
  EXPECT_NE(hash_raw_data_deinit, nullptr);
  EXPECT_NE(hash_b64_data_deinit, nullptr);
  EXPECT_NE(hmac_b64_data_deinit, nullptr);
}

}  // namespace
}  // namespace conformance
