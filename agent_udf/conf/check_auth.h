// SPDX-License-Identifier: Apache-2.0
//
// The session check that every configuration function starts with, and what it shares with the login functions.
#pragma once

#include <ctime>
#include <string_view>

#include "frame/args.h"
#include "kezu/engine.h"

// Whether the caller may proceed: every argument is there, no string argument is empty or starts with a zero byte, the
// engine's tables are up to date, and the first argument is the id of a session that is still fresh. A session found
// stale is invalidated. The check does not refresh a session. It reloads, so that a caller that goes on to change
// something takes the guard of changes (kezu/change.h) afterwards.
bool checkAuth(const frame::Args& args);
bool checkAuth(UDF_ARGS* args);

// How long a session stays valid after its login or last refresh.
inline constexpr time_t kSessionSeconds = 300;

// Whether the administrator's session is within its validity window at `now`; at exactly 300 seconds it is not.
bool isFresh(const Q7UserInfo& user, time_t now);

// The first administrator whose session id equals `sessionId`, or null. Compared in constant time.
Q7UserInfo* findSession(std::string_view sessionId);

// The same for an argument that is read as a zero-terminated string: bytes from a zero byte on are ignored.
Q7UserInfo* findSessionOfText(std::string_view sessionId);

// The first administrator whose id equals `id`, or null.
Q7UserInfo* findAdministrator(std::string_view id);
