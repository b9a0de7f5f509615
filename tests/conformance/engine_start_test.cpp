// SPDX-License-Identifier: Apache-2.0
//
// The one-time start of the engine: by the first accepted statement of any configuration function, and by each data
// function for itself. The start flags belong to the process, so each case runs in a process of its own.
#include <new>
#include <thread>

#include "fixture.h"
#include "init_checks.h"
#include "udfInit.h"

namespace conformance {
namespace {

struct Attempt {
  bool refused = false;
  UDF_INIT init = serversInit();
  MessageBuffer message;
};

Attempt start(InitFunction init, std::string_view types) {
  Attempt attempt;
  Arguments arguments = Arguments::ofTypes(types);
  attempt.refused = init(&attempt.init, arguments.get(), attempt.message.data()) != 0;
  return attempt;
}

struct Function {
  const char* name;
  InitFunction init;
  std::string types;
};

const std::vector<Function>& configurationFunctions() {
  static const std::vector<Function> all = {
      {"kezu_conf_check_session_auth", kezu_conf_check_session_auth_init, "S"},
      {"kezu_conf_get_auth", kezu_conf_get_auth_init, "S"},
      {"kezu_conf_get_session_id", kezu_conf_get_session_id_init, "S"},
      {"kezu_conf_set_policy", kezu_conf_set_policy_init, "SS"},
      {"kezu_conf_set_column", kezu_conf_set_column_init, "SSSS"},
  };
  return all;
}

const std::vector<Function>& dataFunctions() {
  static const std::vector<Function> all = {
      {"data_process_ed_check_str", data_process_ed_check_str_init, "SS"},
      {"data_process_ed_check_int", data_process_ed_check_int_init, "SS"},
      {"data_process_po_ed", data_process_po_ed_init, "SIS"},
  };
  return all;
}

std::vector<Function> allFunctions() {
  std::vector<Function> all = configurationFunctions();
  all.insert(all.end(), dataFunctions().begin(), dataFunctions().end());
  return all;
}

constexpr const char* kStartCall = "kezuInitialize(1, scratch, message)";

class EngineStart : public Conformance {};
class EngineStartOf : public Conformance, public ::testing::WithParamInterface<Function> {};

void PrintTo(const Function& function, std::ostream* out) {
  *out << function.name;
}

TEST_P(EngineStartOf, FirstAcceptedStatementStartsItOnceWithModeOneAndBothBuffers) {
  inNewProcess([&] {
    const Function& function = GetParam();
    EXPECT_FALSE(start(function.init, function.types).refused);
    EXPECT_THAT(engine.calls(), ElementsAre(kStartCall));
    EXPECT_FALSE(start(function.init, function.types).refused);
    EXPECT_THAT(engine.calls(), ElementsAre(kStartCall)) << "a later statement started it again";
  });
}

TEST_P(EngineStartOf, FailureRefusesTheStatementWithTheEnginesMessage) {
  inNewProcess([&] {
    const Function& function = GetParam();
    engine.answer("kezuInitialize", 7);
    engine.answerText("kezuInitialize", "/var/lib/kezu: no such directory");
    const Attempt attempt = start(function.init, function.types);
    EXPECT_TRUE(attempt.refused);
    EXPECT_TRUE(attempt.message.holdsOnly("/var/lib/kezu: no such directory")) << attempt.message.text();
  });
}

TEST_P(EngineStartOf, AnyNonZeroResultIsAFailure) {
  inNewProcess([&] {
    const Function& function = GetParam();
    for (const int result : {-1, 1, 2, 256, -2147483647 - 1}) {
      engine.answer("kezuInitialize", result);
      EXPECT_TRUE(start(function.init, function.types).refused) << result;
    }
  });
}

TEST_P(EngineStartOf, EveryStatementTriesAgainUntilItStarts) {
  inNewProcess([&] {
    const Function& function = GetParam();
    engine.answerNext("kezuInitialize", {1, 1, 0});
    EXPECT_TRUE(start(function.init, function.types).refused);
    EXPECT_TRUE(start(function.init, function.types).refused);
    EXPECT_FALSE(start(function.init, function.types).refused);
    EXPECT_FALSE(start(function.init, function.types).refused);
    EXPECT_THAT(engine.calls(), ElementsAre(kStartCall, kStartCall, kStartCall));
  });
}

TEST_P(EngineStartOf, ResultFieldsAreSetEvenWhenItFails) {
  inNewProcess([&] {
    const Function& function = GetParam();
    engine.answer("kezuInitialize", 1);
    const Attempt failed = start(function.init, function.types);
    EXPECT_EQ(failed.init.maybe_null, 1);
    engine.answer("kezuInitialize", 0);
    const Attempt accepted = start(function.init, function.types);
    EXPECT_FALSE(accepted.refused);
    EXPECT_TRUE(failed.init == accepted.init);
  });
}

TEST_P(EngineStartOf, RefusedArgumentsDoNotStartIt) {
  inNewProcess([&] {
    const Function& function = GetParam();
    EXPECT_TRUE(start(function.init, "").refused);
    EXPECT_TRUE(start(function.init, std::string(function.types.size(), 'R')).refused);
    EXPECT_THAT(engine.calls(), IsEmpty());
  });
}

TEST_P(EngineStartOf, ExceptionRefusesTheStatementAndTheNextOneTriesAgain) {
  inNewProcess([&] {
    const Function& function = GetParam();
    engine.onCall("kezuInitialize", [] { throw std::bad_alloc(); });
    EXPECT_TRUE(start(function.init, function.types).refused);
    engine.onCall("kezuInitialize", nullptr);
    EXPECT_FALSE(start(function.init, function.types).refused);
    EXPECT_EQ(engine.count("kezuInitialize"), 2U);
  });
}

TEST_P(EngineStartOf, TwoFirstStatementsAtOnceBothRun) {
  inNewProcess([&] {
    const Function& function = GetParam();
    bool refused[2] = {true, true};
    std::thread first([&] { refused[0] = start(function.init, function.types).refused; });
    std::thread second([&] { refused[1] = start(function.init, function.types).refused; });
    first.join();
    second.join();
    EXPECT_FALSE(refused[0]);
    EXPECT_FALSE(refused[1]);
    EXPECT_GE(engine.count("kezuInitialize"), 1U);
    EXPECT_LE(engine.count("kezuInitialize"), 2U);
  });
}

INSTANTIATE_TEST_SUITE_P(EachFunction, EngineStartOf, ::testing::ValuesIn(allFunctions()),
                         [](const auto& function) { return std::string(function.param.name); });

TEST_F(EngineStart, ConfigurationFunctionsShareOneStart) {
  inNewProcess([&] {
    for (const Function& function : configurationFunctions()) {
      EXPECT_FALSE(start(function.init, function.types).refused) << function.name;
    }
    EXPECT_THAT(engine.calls(), ElementsAre(kStartCall));
  });
}

TEST_F(EngineStart, EachDataFunctionStartsItForItself) {
  inNewProcess([&] {
    EXPECT_FALSE(start(kezu_conf_get_auth_init, "S").refused);
    for (const Function& function : dataFunctions()) {
      EXPECT_FALSE(start(function.init, function.types).refused) << function.name;
    }
    for (const Function& function : dataFunctions()) {
      EXPECT_FALSE(start(function.init, function.types).refused) << function.name;
    }
    EXPECT_THAT(engine.calls(), ElementsAre(kStartCall, kStartCall, kStartCall, kStartCall));
  });
}

TEST_F(EngineStart, InitUdfSaysWhetherTheEngineRuns) {
  inNewProcess([&] {
    MessageBuffer message;
    engine.answer("kezuInitialize", 1);
    engine.answerText("kezuInitialize", "reason");
    EXPECT_FALSE(initUdf(message.data()));
    EXPECT_TRUE(message.holdsOnly("reason"));
    engine.answer("kezuInitialize", 0);
    EXPECT_TRUE(initUdf(message.data()));
    EXPECT_TRUE(initUdf(message.data()));
    EXPECT_EQ(engine.count("kezuInitialize"), 2U);
  });
}

TEST_F(EngineStart, AStartedEngineIsNotAskedAgainEvenIfItWouldFailNow) {
  inNewProcess([&] {
    MessageBuffer message;
    EXPECT_TRUE(initUdf(message.data()));
    engine.answer("kezuInitialize", 1);
    EXPECT_TRUE(initUdf(message.data()));
    EXPECT_TRUE(message.isUntouched());
  });
}

}  // namespace
}  // namespace conformance
