// SPDX-License-Identifier: Apache-2.0
//
// The engine-wide modes. Each is saved with the table whose file carries it.
#include "conf/setting.h"
#include "frame/function.h"
#include "kezu/change.h"
#include "kezu/engine.h"
#include "kezu/shared.h"
#include "logw/logw.h"

namespace {

constexpr long long kStored = 1;
constexpr long long kSaveFailed = -2;

enum Column : int { kAccessControl = 0, kDecryptDeny = 1, kDoubleEncrypt = 2 };

// Writes the event of a change and then saves the change.
long long finish(const std::string& description, int (*save)()) {
  logSetting(kLogChange, description);
  return save() == -1 ? kSaveFailed : kStored;
}

long long sqlNull(frame::Flags& flags) {
  flags.setNull();
  return 0;
}

std::optional<int> modeOf(int col) {
  switch (col) {
    case kAccessControl:
      return kezu::observe(g_accessControlMode);
    case kDecryptDeny:
      return kezu::observe(g_decryptDenyMode);
    case kDoubleEncrypt:
      return kezu::observe(g_doubleEncryptMode);
    default:
      return std::nullopt;
  }
}

}  // namespace

// kezu_conf_set_env(session, col, val) -> INTEGER: sets a mode.
//   col  0 access control, 1 what a refused decryption yields, 2 double encryption
//   val  for 0: 0 allow first, else deny first; for 1: 0 to 4; for 2: 0 error, else pass
// 1; -2 when the save returns -1, which that of the third mode never does, with the new value in memory. NULL without a
// valid session, for another `col`, and for a value that mode 1 does not know.
KEZU_INTEGER_FUNCTION(kezu_conf_set_env,
                      {.forms = {"SII"}, .usage = "kezu_conf_set_column_init('string data')", .max_length = 64})
(const frame::Args& args, frame::Flags& flags) {
  if (!mayProceed(args, flags, 3)) {
    return 0;
  }
  const kezu::ConfigurationChange change;
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
  return readSetting(args, flags, buffer, modeOf);
}
