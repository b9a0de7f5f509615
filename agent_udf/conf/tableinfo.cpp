// SPDX-License-Identifier: Apache-2.0
//
// Table migration records: the command that takes a table back to clear text. Open to every caller that may run the
// functions.
#include <ctime>
#include <string>

#include "conf/audit_event.h"
#include "conf/listing.h"
#include "conf/record_table.h"
#include "frame/function.h"
#include "kezu/change.h"
#include "logw/logw.h"

namespace {

constexpr long long kAdded = 1;
constexpr long long kChanged = 2;
constexpr long long kDeleted = 3;
constexpr long long kNotSaved = -2;

constinit const RecordTable tables(g_tableInfo, g_numberOftableInfo);
constinit const RecordKey key(&Q7TableInfo::owner, &Q7TableInfo::table);
using TableName = decltype(key)::Texts;  // owner, table

// Saves the table and reports the change, in this order: what was not saved is not reported. The command is never
// logged.
long long finish(long long result, const char* action, const TableName& name) {
  if (Q7_SaveTableInfo() == -1) {
    return kNotSaved;
  }
  writeAuditEvent(
      kLogChange,
      {{"group", "policy"}, {action, "table info"}, {"owner", std::string(name[0])}, {"table", std::string(name[1])}});
  return result;
}

long long setCommand(const TableName& name, std::string_view command, Q7TableInfo* found) {
  if (!kezu::fieldHolds(Q7TableInfo{}.demigrationCmd, command)) {
    return kNotSaved;
  }
  if (found != nullptr) {
    kezu::storeField(found->demigrationCmd, command);
    kezu::publish(found->migrationTime, time(nullptr));
    return finish(kChanged, "CHANGE", name);
  }
  if (!key.holds(name)) {
    return kNotSaved;
  }
  Q7TableInfo record = {};
  key.store(record, name);
  kezu::storeField(record.demigrationCmd, command);
  record.migrationTime = time(nullptr);
  if (!tables.append(record)) {
    return kNotSaved;
  }
  return finish(kAdded, "ADD", name);
}

}  // namespace

// kezu_conf_set_tableinfo(owner, table, command) -> INTEGER:
//   adds a record (1) or replaces its command (2), with the present time.
// kezu_conf_set_tableinfo(owner, table) -> INTEGER:
//   deletes a record (3); NULL when there is none.
// -2 when it was not saved, and for a command longer than 3071 bytes, a name longer than 64 or a full table (nothing
// changed).
KEZU_INTEGER_FUNCTION(kezu_conf_set_tableinfo,
                      {.forms = {"SS", "SSS"}, .usage = "kezu_conf_set_column_init('string data')"})
(const frame::Args& args, frame::Flags& flags) {
  const TableName name = key.arguments(args, 0);
  Q7_LoadTableInfo();
  const kezu::ConfigurationChange change;
  Q7TableInfo* found = args.count() < 2 ? nullptr : tables.find(key, name);
  if (args.count() >= 3) {
    return setCommand(name, args.text(2), found);
  }
  if (found == nullptr) {
    flags.setNull();
    return 0;
  }
  tables.remove(*found);
  return finish(kDeleted, "DELETE", name);
}

// kezu_conf_get_tableinfo(owner, table) -> STRING: the command of a table. NULL when there is none.
KEZU_STRING_FUNCTION(kezu_conf_get_tableinfo,
                     {.forms = {"SS"}, .usage = "kezu_conf_get_column_init('string data')", .max_length = 2048})
(const frame::Args& args, frame::Flags& /*flags*/, frame::ServerBuffer /*buffer*/) {
  Q7_LoadTableInfo();
  const Q7TableInfo* found = tables.find(key, key.arguments(args, 0));
  return found == nullptr ? frame::Answer::null() : fieldText(found->demigrationCmd);
}
