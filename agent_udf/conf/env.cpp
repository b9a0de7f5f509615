// SPDX-License-Identifier: Apache-2.0
//
// The engine-wide modes. Each is saved with the table whose file carries it.
#include "conf/audit_event.h"
#include "conf/check_auth.h"
#include "frame/function.h"
#include "frame/number.h"
#include "kezu/shared.h"
#include "logw/logw.h"

namespace {

constexpr long long kStored = 1;
constexpr long long kSaveFailed = -2;

enum Column : int { kAccessControl = 0, kDecryptDeny = 1, kDoubleEncrypt = 2 };

// Writes the event of a change and then saves the change.
long long finish(const std::string& description, int (*save)()) {
  writeAuditEvent(kLogChange, {{"group", "policy"}, {"desc", description}});
  return save() == -1 ? kSaveFailed : kStored;
}

long long sqlNull(frame::Flags& flags) {
  flags.setNull();
  return 0;
}

}  // namespace

// kezu_conf_set_env(session, col, val) -> INTEGER: sets a mode: 0 access control (0 allow first, else deny first), 1
// what a refused decryption yields (0 to 4), 2 double encryption (0 error, else pass). 1; -2 when the save fails, with
// the new value in memory; NULL without a valid session, for another `col`, and for a value that mode 1 does not know.
KEZU_INTEGER_FUNCTION(kezu_conf_set_env,
                      {.forms = {"SII"}, .usage = "kezu_conf_set_column_init('string data')", .max_length = 64})
(const frame::Args& args, frame::Flags& flags) {
  if (args.count() != 3) {
    flags.setError();
    return 0;
  }
  if (!checkAuth(args)) {
    return sqlNull(flags);
  }
  const int val = args.int32(2);
  switch (args.int32(1)) {
    case kAccessControl:
      kezu::publish(g_accessControlMode, static_cast<Q7AccessControlMode>(val));
      return finish(std::string("SET ENV ACCESS ") + (val != 0 ? "DENY" : "ALLOW") + " PRIOR", Q7_SaveAccessPrivInfo);
    case kDecryptDeny:
      if (val < 0 || val >= kDecryptDenyModeCount) {
        return sqlNull(flags);
      }
      kezu::publish(g_decryptDenyMode, static_cast<Q7DecryptDenyMode>(val));
      return finish(std::string("SET ENV DECRYPT DENY ") + Q7DecryptDenyModeStr[val], Q7_SaveEncPrivInfo);
    case kDoubleEncrypt:
      kezu::publish(g_doubleEncryptMode, val);
      return finish(std::string("SET ENV DOUBLE ENCRYPT ") + (val != 0 ? "PASS" : "ERROR"), Q7_SaveQueryPrivInfo);
    default:
      return sqlNull(flags);
  }
}

// kezu_conf_get_env(session, col) -> STRING: a mode as a number. NULL without a valid session; the error flag for
// another `col`.
KEZU_STRING_FUNCTION(kezu_conf_get_env,
                     {.forms = {"SI"}, .usage = "kezu_conf_get_column_init('string data')", .max_length = 64})
(const frame::Args& args, frame::Flags& flags, frame::ServerBuffer buffer) {
  if (args.count() != 2) {
    flags.setError();
    return frame::Answer::null();
  }
  if (!checkAuth(args)) {
    return frame::Answer::null();
  }
  switch (args.int32(1)) {
    case kAccessControl:
      return frame::number(kezu::observe(g_accessControlMode), buffer);
    case kDecryptDeny:
      return frame::number(kezu::observe(g_decryptDenyMode), buffer);
    case kDoubleEncrypt:
      return frame::number(kezu::observe(g_doubleEncryptMode), buffer);
    default:
      flags.setError();
      return frame::Answer::null();
  }
}
