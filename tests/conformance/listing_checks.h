// SPDX-License-Identifier: Apache-2.0
//
// What the tests of the setting and listing functions share: arguments, what a string function gave back, and every way
// in which the session check refuses a call.
#pragma once

#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "every_function.h"
#include "fixture.h"

namespace conformance {

// Texts, then integers.
inline Arguments arguments(std::initializer_list<std::string_view> texts,
                           std::initializer_list<long long> numbers = {}) {
  Arguments made(texts);
  for (const long long number : numbers) {
    made.number(number);
  }
  return made;
}

inline std::string describe(const StringResult& result) {
  return (result.pointer == nullptr ? std::string("a null pointer") : "\"" + result.text() + "\"") + ", length " +
         std::to_string(result.length) + (result.is_null ? ", null flag" : "") + (result.error ? ", error flag" : "");
}

// A text without a flag.
MATCHER_P(IsText, text, "") {
  *result_listener << describe(arg);
  return arg.pointer != nullptr && arg.text() == text && !arg.is_null && !arg.error;
}

// SQL NULL with length 0 and without a flag.
MATCHER(IsNull, "") {
  *result_listener << describe(arg);
  return arg.pointer == nullptr && arg.length == 0 && !arg.is_null && !arg.error;
}

MATCHER(IsNullWithNullFlag, "") {
  *result_listener << describe(arg);
  return arg.pointer == nullptr && arg.is_null && !arg.error;
}

MATCHER(IsNullWithError, "") {
  *result_listener << describe(arg);
  return arg.pointer == nullptr && arg.error && !arg.is_null;
}

// SQL NULL with length 0 and the error flag.
MATCHER(IsNullWithErrorAndLength, "") {
  *result_listener << describe(arg);
  return arg.pointer == nullptr && arg.length == 0 && arg.error && !arg.is_null;
}

// Whether the result's storage ends in a zero byte.
inline bool isTerminated(const StringResult& result) {
  return result.pointer != nullptr && result.pointer[result.length] == '\0';
}

// Indices and field numbers that no table has, whatever it holds.
inline constexpr long long kNever[] = {
    -1, -2, -2000, std::numeric_limits<int>::min(), 2000, 2001, std::numeric_limits<int>::max(), 0xFFFFFFFFLL};

// Runs `check` in every situation in which the session check refuses: the arguments of `make` with a session that is
// not there or stale, with a missing or empty argument, with an engine that does not reload, without administrators.
// The first administrator is the one who is logged in.
inline void underEachRefusal(const std::function<Arguments()>& make,
                             const std::function<void(Arguments&, const std::string&)>& check) {
  const auto run = [&](const std::function<void(Arguments&)>& change, const std::string& situation) {
    Arguments changed = make();
    change(changed);
    check(changed, situation);
  };
  run([](Arguments& a) { a.setText(0, kOtherSession); }, "unknown session");
  const std::size_t count = make().count();
  for (std::size_t i = 0; i < count; ++i) {
    const std::string position = " argument " + std::to_string(i);
    run([i](Arguments& a) { a.setNull(i); }, "no" + position);
    if (make().get()->arg_type[i] == STRING_RESULT) {
      run([i](Arguments& a) { a.setText(i, ""); }, "empty" + position);
      run([i](Arguments& a) { a.setText(i, bytes("\0x")); }, "zero byte in front of" + position);
    }
  }
  const auto unchanged = [](Arguments&) {};
  RecordingEngine& engine = RecordingEngine::get();
  for (const int result : {1, -1}) {
    engine.answer("Q7_ReloadAllInfoIfChanged", result);
    run(unchanged, "failed reload");
  }
  engine.answer("Q7_ReloadAllInfoIfChanged", 0);
  const int users = std::exchange(g_numberOfUserInfo, 0);
  run(unchanged, "no administrators");
  g_numberOfUserInfo = users;
  setTime(g_userInfo[0].authTime + 300);
  run(unchanged, "stale session");
  EXPECT_EQ(g_userInfo[0].authTime, -1);
  g_userInfo[0].authTime = currentTime();
}

// The same for an integer function: the null flag and 0.
inline void expectNullFlagUnderEachRefusal(IntegerFunction function, const std::function<Arguments()>& make) {
  underEachRefusal(make, [&](Arguments& changed, const std::string& situation) {
    EXPECT_EQ(call(function, changed), sqlNull()) << situation;
  });
}

// The same for a string function: a null pointer, length 0, no flag.
inline void expectNullUnderEachRefusal(StringFunction function, const std::function<Arguments()>& make) {
  underEachRefusal(make, [&](Arguments& changed, const std::string& situation) {
    EXPECT_THAT(call(function, changed), IsNull()) << situation;
  });
}

// The form without arguments that returns a file-check string: no session, one reload, the text in place.
inline void expectFileCheckString(StringFunction function, char (&text)[kFileChkStrSize]) {
  RecordingEngine& engine = RecordingEngine::get();
  const int users = std::exchange(g_numberOfUserInfo, 0);
  for (const std::string& wanted :
       {std::string("0123456789abcdef0123456789abcd"), std::string(31, 'f'), std::string("x"), std::string()}) {
    setField(text, wanted);
    engine.clearJournal();
    const StringResult result = call(function, Arguments());
    EXPECT_THAT(result, IsText(wanted));
    EXPECT_EQ(result.length, wanted.size());
    EXPECT_TRUE(isTerminated(result));
    EXPECT_THAT(engine.operations(), ElementsAre("Q7_ReloadAllInfoIfChanged3"));
  }
  g_numberOfUserInfo = users;
}

// It shows what the reload brought, and SQL NULL when the reload fails.
inline void expectFileCheckStringFollowsTheReload(StringFunction function, char (&text)[kFileChkStrSize]) {
  RecordingEngine& engine = RecordingEngine::get();
  setField(text, "old");
  engine.onCall("Q7_ReloadAllInfoIfChanged3", [&text] { setField(text, "new"); });
  EXPECT_THAT(call(function, Arguments()), IsText("new"));
  for (const int result : {1, -1, 3}) {
    engine.answer("Q7_ReloadAllInfoIfChanged3", result);
    EXPECT_THAT(call(function, Arguments()), IsNull()) << result;
  }
}

// What the engine's operations throw becomes the error flag and SQL NULL, one operation after the other.
inline void expectErrorWhenThrown(const std::vector<std::string>& operations, const std::function<void()>& prepare,
                                  const std::function<bool()>& fails) {
  RecordingEngine& engine = RecordingEngine::get();
  for (const std::string& operation : operations) {
    prepare();
    engine.onCall(operation, [] { throw std::bad_alloc(); });
    EXPECT_TRUE(fails()) << operation;
    engine.onCall(operation, [] { throw 42; });
    prepare();
    EXPECT_TRUE(fails()) << operation;
    engine.onCall(operation, nullptr);
  }
}

}  // namespace conformance
