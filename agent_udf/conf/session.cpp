// SPDX-License-Identifier: Apache-2.0
//
// Sessions: issuing a challenge, and asking whether a session is still good.
#include "bcipher/randhash.h"
#include "conf/check_auth.h"
#include "frame/function.h"
#include "kezu/change.h"
#include "kezu/shared.h"

namespace {

constexpr int kSessionBytes = 32;                  // random bytes of a session id
constexpr int kSessionDigits = 2 * kSessionBytes;  // its hexadecimal digits
constexpr time_t kNoSession = -1;

// Gives the administrator a new session id that is not valid until it is proven. Returns false when no random numbers
// come.
bool issueSession(Q7UserInfo& user) {
  RANDHASH_CTX context;
  unsigned char bytes[kSessionBytes];
  if (RANDHASH_Initialize(&context) != 0 || RANDHASH_GetRandomNum(bytes, sizeof bytes, &context) != 0) {
    return false;
  }
  char digits[kSessionDigits + 1];
  bin2hex(reinterpret_cast<char*>(bytes), digits, kSessionBytes, 0);
  kezu::publish(user.authTime, kNoSession);
  kezu::storeField(user.sessionId, std::string_view(digits, kSessionDigits));
  return true;
}

}  // namespace

// kezu_conf_get_session_id(id) -> STRING: the challenge of a login. A session id of 64 hexadecimal digits for the
// administrator `id`, not valid before kezu_conf_get_auth proves it; while a session is live, its id again, refreshed.
// NULL for an unknown administrator, and when the configuration cannot be read.
KEZU_STRING_FUNCTION(kezu_conf_get_session_id,
                     {.forms = {"S"}, .usage = "kezu_conf_get_column_init('string data')", .max_length = 64})
(const frame::Args& args, frame::Flags& /*flags*/, frame::ServerBuffer /*buffer*/) {
  if (Q7_ReloadAllInfoIfChanged() != 0) {
    return frame::Answer::nullKeepingLength();
  }
  const kezu::ConfigurationChange change;
  Q7UserInfo* user = findAdministrator(args.text(0));
  if (user == nullptr) {
    return frame::Answer::null();
  }
  const time_t now = time(nullptr);
  if (kezu::observe(user->sessionId[0]) != '\0' && isFresh(*user, now)) {
    kezu::publish(user->authTime, now);
  } else if (!issueSession(*user)) {
    return frame::Answer::null();
  }
  return frame::Answer::text(user->sessionId, kSessionDigits);
}

// kezu_conf_check_session_auth(sessionId) -> INTEGER: 0 the session is valid, for another 300 seconds from now; 1 it
// has expired; 2 there is no such session; -1 the configuration cannot be read.
KEZU_INTEGER_FUNCTION(kezu_conf_check_session_auth,
                      {.forms = {"S"}, .usage = "check_session_auth_init('string data')", .max_length = 64})
(const frame::Args& args, frame::Flags& /*flags*/) {
  constexpr long long kValid = 0;
  constexpr long long kExpired = 1;
  constexpr long long kUnknown = 2;
  constexpr long long kReloadFailed = -1;

  if (Q7_ReloadAllInfoIfChanged() != 0) {
    return kReloadFailed;
  }
  const kezu::ConfigurationChange change;
  Q7UserInfo* user = findSessionOfText(args.text(0));
  if (user == nullptr) {
    return kUnknown;
  }
  const time_t now = time(nullptr);
  const bool fresh = isFresh(*user, now);
  kezu::publish(user->authTime, fresh ? now : kNoSession);
  return fresh ? kValid : kExpired;
}
