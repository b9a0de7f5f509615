// SPDX-License-Identifier: Apache-2.0
//
// That these tests see a function that uses the guard of changes wrongly.
#include <gtest/gtest-spi.h>

#include <stdexcept>

#include "fixture.h"
#include "kezu/change.h"

namespace conformance {
namespace {

class Change : public LoggedIn {};

// A function that forgets to end its change.
long long forgetful(UDF_INIT* /*initid*/, UDF_ARGS* /*args*/, char* /*is_null*/, char* /*error*/) {
  Q7_BeginChange();
  return 0;
}

TEST_F(Change, SaveOutsideOneIsSeen) {
  EXPECT_NONFATAL_FAILURE(Q7_SaveColumnInfo(), "Q7_SaveColumnInfo outside a change");
}

TEST_F(Change, ReloadInsideOneIsSeen) {
  const kezu::ConfigurationChange change;
  EXPECT_NONFATAL_FAILURE(Q7_ReloadAllInfoIfChanged(), "Q7_ReloadAllInfoIfChanged inside a change");
  EXPECT_NONFATAL_FAILURE(Q7_LoadTableInfo(), "Q7_LoadTableInfo inside a change");
  EXPECT_NONFATAL_FAILURE(Q7_GetPolicyInfoFromKMS(), "Q7_GetPolicyInfoFromKMS inside a change");
}

TEST_F(Change, ReturnInsideOneIsSeen) {
  EXPECT_NONFATAL_FAILURE(call(forgetful, Arguments()), "in the middle of a change");
  Q7_EndChange();
}

TEST_F(Change, BeginningUnderTheRuleTableIsSeen) {
  const Q7QueryPrivReader reader;
  EXPECT_NONFATAL_FAILURE(kezu::ConfigurationChange(), "may wait for ever");
}

// Whatever is thrown on the way, nobody waits for a guard that was not given back: call() looks.
TEST_F(Change, EndsWhenTheSaveThrows) {
  engine.onCall("Q7_SaveColumnInfo", [] { throw std::runtime_error("no memory"); });
  call(kezu_conf_set_column, {kSession, "db", "t", "c", "p"});
  EXPECT_EQ(engine.count("Q7_SaveColumnInfo"), 1U);
}

}  // namespace
}  // namespace conformance
