// SPDX-License-Identifier: Apache-2.0
//
// The audit flags. They are saved with the policies, whose file carries them.
#include "conf/setting.h"
#include "frame/function.h"
#include "kezu/change.h"
#include "kezu/engine.h"
#include "kezu/shared.h"
#include "logw/logw.h"

namespace {

constexpr long long kStored = 1;
constexpr long long kSaveFailed = -2;
constexpr long long kFileChanged = -5;

struct LogFlag {
  int& value;
  const char* name;
};

// The flags by number.
constinit const LogFlag flags_by_column[] = {
    {g_logInfo.denyLog, "DENY"}, {g_logInfo.accessLog, "ACCESS"}, {g_logInfo.queryLog, "QUERY"}};

const LogFlag* findFlag(int col) {
  return col >= 0 && col < static_cast<int>(std::size(flags_by_column)) ? &flags_by_column[col] : nullptr;
}

std::optional<int> valueOf(int col) {
  const LogFlag* flag = findFlag(col);
  return flag == nullptr ? std::nullopt : std::optional<int>(kezu::observe(flag->value));
}

}  // namespace

// kezu_conf_set_log_flag(session, col, val) -> INTEGER: sets an audit flag: 0 deny, 1 access, 2 query. 1; -2 when the
// save fails, -5 when another process changed the file, with the new value in memory; NULL without a valid session; the
// error flag for another `col`.
KEZU_INTEGER_FUNCTION(kezu_conf_set_log_flag,
                      {.forms = {"SII"}, .usage = "kezu_conf_set_column_init('string data')", .max_length = 64})
(const frame::Args& args, frame::Flags& flags) {
  if (!mayProceed(args, flags, 3)) {
    return 0;
  }
  const LogFlag* flag = findFlag(args.int32(1));
  if (flag == nullptr) {
    flags.setError();
    return 0;
  }
  const kezu::ConfigurationChange change;
  const int val = args.int32(2);
  kezu::publish(flag->value, val);
  logSetting(kLogChange, std::string("SET LOG FLAG ") + flag->name + " = " + std::to_string(val));
  switch (Q7_SavePolicyInfo()) {
    case -1:
      return kSaveFailed;
    case -3:
      return kFileChanged;
    default:
      return kStored;
  }
}

// kezu_conf_get_log_flag(session, col) -> STRING: an audit flag as a number. NULL without a valid session; the error
// flag for another `col`.
KEZU_STRING_FUNCTION(kezu_conf_get_log_flag,
                     {.forms = {"SI"}, .usage = "kezu_conf_get_column_init('string data')", .max_length = 64})
(const frame::Args& args, frame::Flags& flags, frame::ServerBuffer buffer) {
  return readSetting(args, flags, buffer, valueOf);
}
