// SPDX-License-Identifier: Apache-2.0
//
// Putting columns under a policy and taking them out again.
#include <string_view>

#include "conf/audit_event.h"
#include "conf/check_auth.h"
#include "conf/record_table.h"
#include "frame/function.h"
#include "kezu/shared.h"
#include "logw/logw.h"

namespace {

constexpr long long kRegistered = 1;
constexpr long long kRemoved = 3;
constexpr long long kNotSaved = -2;
constexpr long long kFileChanged = -3;

struct ColumnName {
  std::string_view owner;
  std::string_view table;
  std::string_view column;
};

const RecordTable columns(g_encColumnInfoArray, g_numberOfEncColumn);

// The first registration of the column, or null.
Q7EncColumnInfo* find(const ColumnName& name) {
  return columns.find([&name](const Q7EncColumnInfo& record) {
    return kezu::fieldEquals(record.column, name.column) && kezu::fieldEquals(record.table, name.table) &&
           kezu::fieldEquals(record.owner, name.owner);
  });
}

bool fits(const ColumnName& name, std::string_view policy) {
  const Q7EncColumnInfo record = {};
  return kezu::fieldHolds(record.owner, name.owner) && kezu::fieldHolds(record.table, name.table) &&
         kezu::fieldHolds(record.column, name.column) && kezu::fieldHolds(record.policyID, policy);
}

// SQL NULL, with nothing changed.
long long refuse(frame::Flags& flags) {
  flags.setNull();
  return 0;
}

// The policy name is stored as given: a column can be registered before its policy exists.
long long registerColumn(const ColumnName& name, std::string_view policy, frame::Flags& flags) {
  if (find(name) != nullptr) {
    return refuse(flags);
  }
  if (!fits(name, policy)) {
    return kNotSaved;
  }
  Q7EncColumnInfo record;
  kezu::storeField(record.owner, name.owner);
  kezu::storeField(record.table, name.table);
  kezu::storeField(record.column, name.column);
  kezu::storeField(record.policyID, policy);
  if (!columns.append(record)) {
    return kNotSaved;
  }
  switch (Q7_SaveColumnInfo()) {
    case -1:
      return kNotSaved;
    case 1:
      return kFileChanged;
    default:
      break;
  }
  writeAuditEvent(kLogChange, {{"group", "policy"},
                               {"owner", std::string(name.owner)},
                               {"table", std::string(name.table)},
                               {"column", std::string(name.column)},
                               {"policy", std::string(policy)},
                               {"desc", "SET COLUMN"}});
  return kRegistered;
}

long long removeColumn(const ColumnName& name, frame::Flags& flags) {
  Q7EncColumnInfo* found = find(name);
  if (found == nullptr) {
    return refuse(flags);
  }
  columns.remove(*found);
  if (Q7_SaveColumnInfo() == -1) {
    return kNotSaved;
  }
  writeAuditEvent(kLogChange, {{"group", "policy"},
                               {"owner", std::string(name.owner)},
                               {"table", std::string(name.table)},
                               {"column", std::string(name.column)},
                               {"desc", "DELETE COLUMN"}});
  return kRemoved;
}

}  // namespace

// kezu_conf_set_column(session, owner, table, column, policy) -> INTEGER: registers a column for encryption under a
// policy. 1;
//   NULL when it is registered already; -2 when it was not saved (a name longer than 64 bytes, a full table: nothing
//   changed), -3 when another process changed the file.
// kezu_conf_set_column(session, owner, table, column) -> INTEGER: removes the registration. 3; NULL when there is none;
// -2. NULL without a valid session. After a failed save the change stands in memory.
KEZU_INTEGER_FUNCTION(kezu_conf_set_column,
                      {.forms = {"SSSS", "SSSSS"}, .usage = "kezu_conf_set_column_init('string data')"})
(const frame::Args& args, frame::Flags& flags) {
  if (!checkAuth(args)) {
    return refuse(flags);
  }
  const ColumnName name{args.text(1), args.text(2), args.text(3)};
  switch (args.count()) {
    case 5:
      return registerColumn(name, args.text(4), flags);
    case 4:
      return removeColumn(name, flags);
    default:
      return refuse(flags);
  }
}
