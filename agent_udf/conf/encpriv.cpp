// SPDX-License-Identifier: Apache-2.0
//
// Encryption privileges: whether a database user may encrypt and decrypt a column.
#include "conf/privilege_rows.h"
#include "frame/number.h"

namespace {

constinit const PrivilegeRows rows(RecordTable(g_encPrivArray, g_numberOfEncPriv),
                                   RecordKey(&Q7EncPriv::user, &Q7EncPriv::owner, &Q7EncPriv::table,
                                             &Q7EncPriv::column),
                                   std::array{&Q7EncPriv::enc_priv, &Q7EncPriv::dec_priv},
                                   {"user", "owner", "table", "column", "enc priv", "dec priv"}, Q7_SaveEncPrivInfo,
                                   "ENCRYPT PRIVILEGE");

thread_local frame::NumberRing counts;

}  // namespace

// kezu_conf_set_encpriv(session, user, owner, table, column, enc, dec) -> INTEGER:
//   adds a row (1) or changes both its flags (2), of which the low 8 bits are kept.
// kezu_conf_set_encpriv(session, user, owner, table, column) -> INTEGER:
//   deletes a row (3); NULL when there is none.
// -2 when it was not saved, the table is full or a text too long; NULL without a valid session.
KEZU_INTEGER_FUNCTION(kezu_conf_set_encpriv,
                      {.forms = {"SSSSS", "SSSSSII"}, .usage = "kezu_conf_set_column_init('string data')"})
(const frame::Args& args, frame::Flags& flags) {
  return rows.set(args, flags);
}

// kezu_conf_get_encpriv() -> STRING: the file-check string of the encryption privileges. Needs no session.
// kezu_conf_get_encpriv(session) -> STRING: number of rows.
// kezu_conf_get_encpriv(session, index, field) -> STRING: a field of a row:
//   0 user, 1 owner, 2 table, 3 column, 4 encryption, 5 decryption.
// kezu_conf_get_encpriv(session, user, owner, table, column, flag) -> STRING: a flag of a row, "1" or "0":
//   0 encryption, 1 decryption.
// NULL for everything else.
KEZU_STRING_FUNCTION(kezu_conf_get_encpriv, {.forms = {"", "S", "SII", "SSSSSI"},
                                             .usage = "kezu_conf_get_column_init('string data')",
                                             .max_length = 64})
(const frame::Args& args, frame::Flags& /*flags*/, frame::ServerBuffer /*buffer*/) {
  if (args.count() == 0) {
    return fileCheckString(g_last_privilege_KezuFileChkStr);
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
      return rows.lookUp(args, static_cast<unsigned int>(args.int32(5)));
    default:
      return frame::Answer::null();
  }
}
