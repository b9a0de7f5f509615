// SPDX-License-Identifier: Apache-2.0
//
// Where policies come from: made locally, or fetched from the key management server.
#include <atomic>

#include "conf/check_auth.h"
#include "conf/policy_table.h"
#include "conf/setting.h"
#include "frame/function.h"
#include "kezu/change.h"
#include "kezu/shared.h"
#include "logw/logw.h"

namespace {

constexpr long long kDone = 1;
constexpr long long kSaveFailed = -2;
constexpr long long kInUse = -3;
constexpr long long kFileChanged = -5;
constexpr long long kDirectSwitch = -6;

constexpr long long kFetchFailed = -1;
constexpr long long kLocalInUse = -2;
constexpr long long kMismatch = -3;
constexpr long long kNoLocal = -4;

long long save() {
  switch (Q7_SavePolicyInfo()) {
    case 0:
      return kDone;
    case -1:
      return kSaveFailed;
    case -3:
      return kFileChanged;
    default:
      return 0;
  }
}

long long useKeyServer(Q7KmsMode mode, Q7KmsMode other, const char* description) {
  if (kezu::observe(g_kmsMode) == other) {
    return kDirectSwitch;
  }
  if (activePolicyCount() > 0 || kezu::observe(g_numberOfEncColumn) >= 1) {
    logSetting(kLogNotice, "You cannot use VX-KMS unless the number of local policies and columns is none.");
    return kInUse;
  }
  kezu::publish(g_kmsMode, mode);
  logSetting(kLogChange, description);
  return save();
}

// Discards every policy of the active slot, in place.
long long useLocalPolicies() {
  if (kezu::observe(g_numberOfEncColumn) >= 1) {
    logSetting(kLogNotice, "You cannot change to KMS Disable mode unless the number of columns is none.");
    return kInUse;
  }
  // An exchange, so that the slot read next is not older than what a fetch published before it saw this mode.
  std::atomic_ref(g_kmsMode).exchange(Q7_NO_KMS_MODE, std::memory_order_acq_rel);
  const int slot = activePolicySlot();
  clearPolicySlot(slot);
  kezu::publish(g_numberOfEncPolicy[slot], 0);
  logSetting(kLogChange, "SET ENV KMS DISABLE");
  return save();
}

long long loadOnly() {
  if (Q7_GetPolicyInfoFromKMS() == 0) {
    return kDone;
  }
  logSetting(kLogFailure, "Failed to get Policies from VX-KMS.");
  return kFetchFailed;
}

long long loadCached() {
  Q7_LoadPolicyInfo("");
  if (Q7_GetPolicyInfoFromKMS() != 0) {
    logSetting(kLogNotice, "Failed to get Policies from VX-KMS. Local policy info loaded.");
    return kLocalInUse;
  }
  switch (compareLocalAndKMSPolicy()) {
    case 1:
      logSetting(kLogNotice, "Cached local Policy info and VX-KMS policy info mismatched.");
      return kMismatch;
    case -1:
      logSetting(kLogNotice, "Local policy info does not exist. You should use Sync with KMS.");
      return kNoLocal;
    default:
      return kDone;
  }
}

}  // namespace

// kezu_conf_set_kms_mode(session, mode) -> INTEGER: sets where policies come from.
//   mode  0 local policies (discards those there are), 1 the key management server, 2 the same with a local copy.
//         Another one only saves.
// 1 saved; -2 the save failed, -5 another process changed the file; -3 policies or columns are in the way; -6 the
// switch between 1 and 2 goes through 0. NULL without a valid session.
KEZU_INTEGER_FUNCTION(kezu_conf_set_kms_mode, {.forms = {"SI"}, .usage = "kezu_conf_get_kms_mode_init('string data')"})
(const frame::Args& args, frame::Flags& flags) {
  if (!mayProceed(args, flags, 2)) {
    return 0;
  }
  const kezu::ConfigurationChange change;
  switch (args.int32(1)) {
    case Q7_ONLY_KMS_MODE:
      return useKeyServer(Q7_ONLY_KMS_MODE, Q7_CACHED_KMS_MODE, "SET ENV KMS ONLY");
    case Q7_CACHED_KMS_MODE:
      return useKeyServer(Q7_CACHED_KMS_MODE, Q7_ONLY_KMS_MODE, "SET ENV KMS CACHED");
    case Q7_NO_KMS_MODE:
      return useLocalPolicies();
    default:
      return save();
  }
}

// kezu_conf_get_kms_mode(session) -> INTEGER: the mode, 0 to 2. NULL without a valid session.
KEZU_INTEGER_FUNCTION(kezu_conf_get_kms_mode, {.forms = {"S"}, .usage = "kezu_conf_get_kms_mode_init('string data')"})
(const frame::Args& args, frame::Flags& flags) {
  if (!mayProceed(args, flags, 1)) {
    return 0;
  }
  return kezu::observe(g_kmsMode);
}

// kezu_conf_get_policy_for_kms() -> INTEGER: with a local copy, loads it. 1. Needs no session.
// kezu_conf_get_policy_for_kms(session) -> INTEGER: fetches the policies.
// 1 done, or nothing to do; -1 the fetch failed; -2 it failed and the local copy is in use; -3 local copy and server
// differ; -4 there is no local copy. NULL without a valid session.
KEZU_INTEGER_FUNCTION(kezu_conf_get_policy_for_kms, {.forms = {"", "S"},
                                                     .usage = "kezu_conf_get_policy_kms_mode_init('string data')",
                                                     .max_length = 64})
(const frame::Args& args, frame::Flags& flags) {
  if (args.count() == 0) {
    if (kezu::observe(g_kmsMode) == Q7_CACHED_KMS_MODE) {
      Q7_LoadPolicyInfo("");
    }
    return kDone;
  }
  if (!checkAuth(args)) {
    flags.setNull();
    return 0;
  }
  switch (kezu::observe(g_kmsMode)) {
    case Q7_ONLY_KMS_MODE:
      return loadOnly();
    case Q7_CACHED_KMS_MODE:
      return loadCached();
    default:
      return kDone;
  }
}
