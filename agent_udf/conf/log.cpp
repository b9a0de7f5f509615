// SPDX-License-Identifier: Apache-2.0
//
// Reading the logs back.

// The log that is asked for must exist, in release builds as well.
#undef NDEBUG
#include <cassert>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>

#include "conf/check_auth.h"
#include "frame/function.h"
#include "logw/log_factory.h"

namespace {

// The count is written into ten bytes: nine digits and a zero. The length reported is that of the whole number.
constexpr std::size_t kCountSize = 10;

// Room for any 64-bit count, so that what stands behind a cut one is zeros.
constexpr std::size_t kCountRoom = 20;

Log* findLog(int logType) {
  Log* log = LogFactory::getLogFactory()->getLog(logType);
  assert(log != __null);  // NOLINT(modernize-use-nullptr): the message is known by this text
  return log;
}

frame::Answer lineCount(Log& log, const std::string& logDate, frame::ServerBuffer buffer) {
  char text[kCountRoom] = {};
  const int length = std::snprintf(text, kCountSize, "%" PRIu64, log.getNumTotalLines(logDate));
  return buffer.copyTerminated(std::string_view(text, static_cast<std::size_t>(length)));
}

}  // namespace

// kezu_conf_get_log(session, type, date) -> STRING: number of lines of a day's log.
// kezu_conf_get_log(session, type, date, line) -> STRING: one line, counted from 0; empty when there is none.
//   type  0 is the audit log; every other one is empty.
//   date  "YYYY-MM-DD", local time; a day without a log, and what is no day, have no lines.
// NULL without a valid session.
KEZU_STRING_FUNCTION(kezu_conf_get_log, {.forms = {"SIS", "SISI"},
                                         .usage = "kezu_conf_get_column_init('string data')",
                                         .max_length = 2176})
(const frame::Args& args, frame::Flags& /*flags*/, frame::ServerBuffer buffer) {
  if (!checkAuth(args)) {
    return frame::Answer::null();
  }
  const std::string logDate(args.text(2));
  switch (args.count()) {
    case 3:
      return lineCount(*findLog(args.int32(1)), logDate, buffer);
    case 4: {
      const char* line = findLog(args.int32(1))->getLog(logDate, static_cast<unsigned int>(args.int32(3)));
      return frame::Answer::text(line, std::strlen(line));
    }
    default:
      return frame::Answer::null();
  }
}
