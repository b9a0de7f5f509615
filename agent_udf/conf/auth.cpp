// SPDX-License-Identifier: Apache-2.0
//
// Login: proving a session id with the response to it.
#include <openssl/crypto.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "conf/audit_event.h"
#include "conf/check_auth.h"
#include "frame/function.h"
#include "kezu/change.h"
#include "kezu/shared.h"
#include "logw/logw.h"

namespace {

constexpr char LOGIN_SUCCESS_MESSAGE[] = "Brisolvane login successful";
constexpr char LOGIN_FAILURE_MESSAGE[] = "Brisolvane login failed";
constexpr char LOGIN_FAILURE_5TIME_MESSAGE[] = "Brisolvane login failed 5 times and is locked";

constexpr int kMaxFailures = 4;       // failures that do not lock yet
constexpr time_t kLockSeconds = 600;  // how long the lock lasts after the last failure

constexpr long long kRefreshRefused = -1;
constexpr long long kWrongResponse = -2;
constexpr long long kLocked = -3;
constexpr long long kUnknownSession = -4;

void logLogin(int level, const char* message) {
  writeAuditEvent(level, {{"group", "status"}, {"desc", message}});
}

long long failed(long long result) {
  logLogin(kLogFailure, LOGIN_FAILURE_MESSAGE);
  return result;
}

// A hexadecimal digest with its terminating zero, wiped when it goes.
struct HexDigest {
  char text[129] = {};

  HexDigest() = default;
  HexDigest(const HexDigest&) = delete;
  HexDigest& operator=(const HexDigest&) = delete;
  ~HexDigest() { OPENSSL_cleanse(text, sizeof text); }

  // Digests zero-terminated text. Returns false when the engine's digest fails.
  bool sha256(const char* input) {
    unsigned char hash[64];
    unsigned int hashLen = sizeof hash;
    const bool ok = Q7_HashBinary(hash, &hashLen, reinterpret_cast<const unsigned char*>(input),
                                  static_cast<unsigned int>(std::strlen(input)), kHashSha256) == 0 &&
                    hashLen <= sizeof hash;
    if (ok) {
      bin2hex(reinterpret_cast<char*>(hash), text, static_cast<int>(hashLen), 0);
    }
    OPENSSL_cleanse(hash, sizeof hash);
    return ok;
  }
};

// The response that proves the administrator's current session id: hex(SHA-256(hex(SHA-256(sessionId)) + password
// value)).
bool expectedResponse(const Q7UserInfo& user, HexDigest& response) {
  // Room for 64 digits of a digest and a password value that fills its field to the last byte.
  char authGen[256];
  HexDigest challenge;
  Q7UserInfo own;  // another thread may issue a session or reload the record meanwhile
  kezu::loadRecord(own, user);
  std::snprintf(authGen, sizeof authGen, "%.*s", static_cast<int>(sizeof own.sessionId), own.sessionId);
  bool ok = challenge.sha256(authGen);
  if (ok) {
    std::snprintf(authGen, sizeof authGen, "%s%.*s", challenge.text, static_cast<int>(sizeof own.passwd), own.passwd);
    ok = response.sha256(authGen);
  }
  OPENSSL_cleanse(authGen, sizeof authGen);
  OPENSSL_cleanse(&own, sizeof own);
  return ok;
}

bool matches(const HexDigest& expected, std::string_view response) {
  const std::size_t length = std::strlen(expected.text);
  return response.size() == length && CRYPTO_memcmp(response.data(), expected.text, length) == 0;
}

// Whether the administrator is locked out at `now`. A lock that has run out is cleared.
bool isLocked(Q7UserInfo& user, time_t now) {
  if (kezu::observe(user.authFailCount) <= kMaxFailures) {
    return false;
  }
  if (kezu::observe(user.authLockTime) > now) {
    return true;
  }
  kezu::publish(user.authLockTime, time_t{0});
  kezu::publish(user.authFailCount, 0);
  return false;
}

long long succeed(Q7UserInfo& user) {
  logLogin(kLogChange, LOGIN_SUCCESS_MESSAGE);
  const time_t now = time(nullptr);
  kezu::publish(user.authTime, now);
  return now;
}

long long refresh(const frame::Args& args) {
  if (!checkAuth(args)) {
    return failed(kRefreshRefused);
  }
  const kezu::ConfigurationChange change;
  // Looked up only now: the check may have reloaded the administrators, and another one may stand where this one did.
  Q7UserInfo* user = findSession(args.text(0));
  if (user == nullptr) {
    return failed(kRefreshRefused);
  }
  const time_t now = time(nullptr);
  kezu::publish(user->authTime, now);
  logLogin(kLogChange, LOGIN_SUCCESS_MESSAGE);
  return now;
}

long long login(Q7UserInfo& user, std::string_view response, frame::Flags& flags) {
  if (isLocked(user, time(nullptr))) {
    logLogin(kLogFailure, LOGIN_FAILURE_5TIME_MESSAGE);
    return kLocked;
  }
  HexDigest authComp;
  if (!expectedResponse(user, authComp)) {
    flags.setError();
    return failed(0);
  }
  if (matches(authComp, response)) {
    kezu::publish(user.authFailCount, 0);
    kezu::publish(user.authLockTime, time_t{0});
    return succeed(user);
  }
  kezu::publish(user.authLockTime, time(nullptr) + kLockSeconds);
  kezu::publish(user.authFailCount, kezu::observe(user.authFailCount) + 1);
  kezu::publish(user.authTime, time_t{-1});
  return failed(kWrongResponse);
}

}  // namespace

// kezu_conf_get_auth(sessionId, response) -> INTEGER: logs in with the response to the challenge `sessionId`.
// kezu_conf_get_auth(sessionId) -> INTEGER: refreshes a live session.
// The time of the login or refresh in seconds since the epoch; -1 refresh refused, -2 wrong response, -3 locked after
// five failures (600 seconds from the last one), -4 no such session. The error flag for a missing argument or a failing
// digest.
KEZU_INTEGER_FUNCTION(kezu_conf_get_auth,
                      {.forms = {"S", "SS"}, .usage = "kezu_conf_get_column_init('string data')", .max_length = 64})
(const frame::Args& args, frame::Flags& flags) {
  if (args.isNull(0)) {
    flags.setError();
    return -1;
  }
  if (args.count() == 1) {
    return findSession(args.text(0)) == nullptr ? failed(kUnknownSession) : refresh(args);
  }
  // Of two responses at once the second is checked after the first was counted.
  const kezu::ConfigurationChange change;
  Q7UserInfo* user = findSession(args.text(0));
  if (user == nullptr) {
    return failed(kUnknownSession);
  }
  if (args.isNull(1)) {
    flags.setError();
    return failed(0);
  }
  return login(*user, args.text(1), flags);
}
