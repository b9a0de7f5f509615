// SPDX-License-Identifier: Apache-2.0
#include "conf/setting.h"

#include "conf/audit_event.h"
#include "conf/check_auth.h"
#include "frame/number.h"

bool mayProceed(const frame::Args& args, frame::Flags& flags, unsigned int count) {
  if (args.count() != count) {
    flags.setError();
    return false;
  }
  if (!checkAuth(args)) {
    flags.setNull();
    return false;
  }
  return true;
}

frame::Answer readSetting(const frame::Args& args, frame::Flags& flags, frame::ServerBuffer buffer,
                          std::optional<int> (*read)(int col)) {
  if (args.count() != 2) {
    flags.setError();
    return frame::Answer::null();
  }
  if (!checkAuth(args)) {
    return frame::Answer::null();
  }
  const std::optional<int> value = read(args.int32(1));
  if (!value) {
    flags.setError();
    return frame::Answer::null();
  }
  return frame::number(*value, buffer);
}

void logSetting(int level, const std::string& description) {
  writeAuditEvent(level, {{"group", "policy"}, {"desc", description}});
}
