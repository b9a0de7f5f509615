// SPDX-License-Identifier: Apache-2.0
//
// Putting columns under a policy and taking them out again.
#include <string>
#include <string_view>
#include <vector>

#include "conf/audit_event.h"
#include "conf/check_auth.h"
#include "conf/record_table.h"
#include "frame/function.h"
#include "kezu/change.h"
#include "kezu/shared.h"
#include "logw/logw.h"

namespace {

constexpr long long kRegistered = 1;
constexpr long long kRemoved = 3;
constexpr long long kNotSaved = -2;
constexpr long long kFileChanged = -3;

constinit const RecordTable columns(g_encColumnInfoArray, g_numberOfEncColumn);
constinit const RecordKey key(&Q7EncColumnInfo::owner, &Q7EncColumnInfo::table, &Q7EncColumnInfo::column);
using ColumnName = decltype(key)::Texts;  // owner, table, column

// Reports a change of the registration of a column, with the policy it was put under, if any.
void report(const ColumnName& name, const std::vector<AuditPair>& policy, const char* description) {
  std::vector<AuditPair> event = {{"group", "policy"},
                                  {"owner", std::string(name[0])},
                                  {"table", std::string(name[1])},
                                  {"column", std::string(name[2])}};
  event.insert(event.end(), policy.begin(), policy.end());
  event.push_back({"desc", description});
  writeAuditEvent(kLogChange, event);
}

// SQL NULL, with nothing changed.
long long refuse(frame::Flags& flags) {
  flags.setNull();
  return 0;
}

// The policy name is stored as given: a column can be registered before its policy exists.
long long registerColumn(const ColumnName& name, std::string_view policy, frame::Flags& flags) {
  if (columns.find(key, name) != nullptr) {
    return refuse(flags);
  }
  if (!key.holds(name) || !kezu::fieldHolds(Q7EncColumnInfo{}.policyID, policy)) {
    return kNotSaved;
  }
  Q7EncColumnInfo record;
  key.store(record, name);
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
  report(name, {{"policy", std::string(policy)}}, "SET COLUMN");
  return kRegistered;
}

long long removeColumn(const ColumnName& name, frame::Flags& flags) {
  Q7EncColumnInfo* found = columns.find(key, name);
  if (found == nullptr) {
    return refuse(flags);
  }
  columns.remove(*found);
  if (Q7_SaveColumnInfo() == -1) {
    return kNotSaved;
  }
  report(name, {}, "DELETE COLUMN");
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
  const kezu::ConfigurationChange change;
  const ColumnName name = key.arguments(args, 1);
  switch (args.count()) {
    case 5:
      return registerColumn(name, args.text(4), flags);
    case 4:
      return removeColumn(name, flags);
    default:
      return refuse(flags);
  }
}
