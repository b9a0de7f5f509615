// SPDX-License-Identifier: Apache-2.0
//
// Access privileges: which client address and database user may reach a column.
#include "conf/privilege_rows.h"
#include "frame/number.h"

namespace {

constinit const PrivilegeRows rows(RecordTable(g_accessPrivArray, g_numberOfAccessPriv),
                                   RecordKey(&Q7AccessPriv::ip, &Q7AccessPriv::user, &Q7AccessPriv::owner,
                                             &Q7AccessPriv::table, &Q7AccessPriv::column),
                                   std::array{&Q7AccessPriv::priv},
                                   {"user ip", "user", "owner", "table", "column", "access priv"},
                                   Q7_SaveAccessPrivInfo, "ACCESS PRIVILEGE");

thread_local frame::NumberRing counts;

}  // namespace

// kezu_conf_set_accepriv(session, ip, user, owner, table, column, priv) -> INTEGER:
//   adds a row (1) or changes its flag (2), of which the low 8 bits are kept.
// kezu_conf_set_accepriv(session, ip, user, owner, table, column) -> INTEGER:
//   deletes a row (3); NULL when there is none.
// -2 when it was not saved, the table is full or a text too long; NULL without a valid session.
KEZU_INTEGER_FUNCTION(kezu_conf_set_accepriv,
                      {.forms = {"SSSSSS", "SSSSSSI"}, .usage = "kezu_conf_set_column_init('string data')"})
(const frame::Args& args, frame::Flags& flags) {
  return rows.set(args, flags);
}

// kezu_conf_get_accepriv() -> STRING: the file-check string of the access privileges. Needs no session.
// kezu_conf_get_accepriv(session) -> STRING: number of rows.
// kezu_conf_get_accepriv(session, index, field) -> STRING: a field of a row:
//   0 ip, 1 user, 2 owner, 3 table, 4 column, 5 flag.
// kezu_conf_get_accepriv(session, ip, user, owner, table, column) -> STRING: the flag of a row, "1" or "0".
// NULL for everything else.
KEZU_STRING_FUNCTION(kezu_conf_get_accepriv, {.forms = {"", "S", "SII", "SSSSSS"},
                                              .usage = "kezu_conf_get_column_init('string data')",
                                              .max_length = 64})
(const frame::Args& args, frame::Flags& /*flags*/, frame::ServerBuffer /*buffer*/) {
  if (args.count() == 0) {
    return fileCheckString(g_last_access_KezuFileChkStr);
  }
  if (!checkAuth(args)) {
    return frame::Answer::null();
  }
  switch (args.count()) {
    case 1:
      return counts.keep(rows.count());
    case 3:
      return rows.fieldAt(args.int32(1), args.int32(2));
    case 6:
      return rows.lookUp(args, 0);
    default:
      return frame::Answer::null();
  }
}
