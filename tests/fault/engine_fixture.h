// SPDX-License-Identifier: Apache-2.0
//
// The engine on a home of its own, in a process of its own, with an administrator who is logged in.
#pragma once

#include <cstdlib>
#include <ctime>
#include <string_view>

#include "fault/sql_call.h"
#include "kezu/shared.h"
#include "unit/store_fixture.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace fault {

inline constexpr std::string_view kSession = "00112233445566778899aabbccddeeff0123456789abcdef0123456789abcdef";

// Starts the engine on the home as the first statement does, and opens a session of its administrator.
inline void startWithSession(const std::filesystem::path& home) {
  setenv("KEZU_HOME", home.c_str(), 1);
  SqlArguments none;
  ASSERT_EQ("", prepare(reload_kezu_init, none));
  ASSERT_EQ(1, g_numberOfUserInfo);
  kezu::storeField(g_userInfo[0].sessionId, kSession);
  kezu::publish(g_userInfo[0].authTime, time(nullptr));
}

// The arguments of a call of that administrator, who goes on for longer than a session lasts by itself.
inline SqlArguments inSession() {
  kezu::publish(g_userInfo[0].authTime, time(nullptr));
  SqlArguments arguments;
  arguments.text(kSession);
  return arguments;
}

inline SqlArguments createPolicy(std::string_view name, int algorithm, int ivMode, int blockMode) {
  SqlArguments arguments = inSession();
  arguments.text(name).number(algorithm).number(ivMode).number(0).number(0).number(blockMode).number(0).text("NULL");
  return arguments;
}

// A policy with a key of the caller's choice, added to the active slot in place.
inline void addPolicyWithKey(const std::string& name, int ivMode, int blockMode, unsigned char keyByte) {
  int& count = g_numberOfEncPolicy[g_encPolicyArray_flag];
  auto* slot = g_encPolicyArray[g_encPolicyArray_flag];
  unsigned char key[32];
  std::memset(key, keyByte, sizeof key);
  constexpr int kAes256 = 2;
  ASSERT_NE(0, Q7_AddPolicyInfo(slot[count], &g_makeKeyArray[g_encPolicyArray_flag][count], name.c_str(), kAes256,
                                ivMode, key, sizeof key, 0, 0, blockMode, 0, ""));
  ++count;
}

// Whether the address sanitizer finds memory that nothing refers to any more. It does not look by itself at the end of
// a process that a test has made.
inline int leaksFound() {
#if defined(__SANITIZE_ADDRESS__)
  return __lsan_do_recoverable_leak_check();
#else
  return 0;
#endif
}

}  // namespace fault
