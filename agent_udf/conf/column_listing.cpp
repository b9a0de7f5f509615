// SPDX-License-Identifier: Apache-2.0
//
// Reading the registered columns back.
#include <cstring>
#include <string>

#include "conf/check_auth.h"
#include "conf/listing.h"
#include "conf/record_table.h"
#include "frame/function.h"
#include "frame/number.h"

namespace {

constinit const RecordTable columns(g_encColumnInfoArray, g_numberOfEncColumn);

frame::Answer fieldOf(const Q7EncColumnInfo* column, int field) {
  if (column == nullptr) {
    return frame::Answer::null();
  }
  switch (field) {
    case 0:
      return fieldText(column->owner);
    case 1:
      return fieldText(column->table);
    case 2:
      return fieldText(column->column);
    case 3:
      return fieldText(column->policyID);
    default:
      return frame::Answer::null();
  }
}

// Asks the engine, which has the last word on what protects a column.
frame::Answer policyOf(std::string owner, std::string table, std::string column, frame::ServerBuffer buffer) {
  char policy[sizeof Q7EncColumnInfo::policyID];
  char error[2048];
  if (kezuGetEncPolicyId(owner.data(), table.data(), column.data(), policy, error) != 0) {
    return frame::Answer::null();
  }
  return buffer.copyTerminated(policy);
}

}  // namespace

// kezu_conf_get_column() -> STRING: the file-check string of the columns. Needs no session.
// kezu_conf_get_column(session) -> STRING: number of registered columns.
// kezu_conf_get_column(session, index, field) -> STRING: a field of a registration:
//   0 owner, 1 table, 2 column, 3 policy.
// kezu_conf_get_column(session, owner, table, column) -> STRING: the policy that protects a column.
// NULL for everything else.
KEZU_STRING_FUNCTION(kezu_conf_get_column, {.forms = {"", "S", "SII", "SSSS"},
                                            .usage = "kezu_conf_get_column_init('string data')",
                                            .max_length = 64})
(const frame::Args& args, frame::Flags& /*flags*/, frame::ServerBuffer buffer) {
  if (args.count() == 0) {
    return fileCheckString(g_last_column_KezuFileChkStr);
  }
  if (!checkAuth(args)) {
    return frame::Answer::null();
  }
  switch (args.count()) {
    case 1:
      return frame::number(columns.count(), buffer);
    case 3:
      return fieldOf(columns.at(args.int32(1)), args.int32(2));
    case 4:
      return policyOf(std::string(args.text(1)), std::string(args.text(2)), std::string(args.text(3)), buffer);
    default:
      return frame::Answer::null();
  }
}
