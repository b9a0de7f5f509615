// SPDX-License-Identifier: Apache-2.0
//
// Reading the policy table back. Keys are never shown.
#include <openssl/crypto.h>

#include <algorithm>
#include <cstring>

#include "conf/check_auth.h"
#include "conf/listing.h"
#include "conf/policy_table.h"
#include "frame/function.h"
#include "frame/number.h"
#include "kezu/shared.h"

namespace {

// A copy of a policy's record, without its key.
Q7EncPolicyInfo copyOf(int slot, int index) {
  Q7EncPolicyInfo policy;
  kezu::loadRecord(policy, g_encPolicyArray[slot][index]);
  OPENSSL_cleanse(policy.columnKey, sizeof policy.columnKey);
  return policy;
}

// The number fields, by their code when the policy is chosen by name.
frame::Answer numberField(const Q7EncPolicyInfo& policy, int field, frame::ServerBuffer buffer) {
  switch (field) {
    case 0:
      return frame::number(policy.algID, buffer);
    case 1:
      return frame::number(policy.ivMode, buffer);
    case 2:
      return frame::number(policy.encPos, buffer);
    case 3:
      return frame::number(policy.encLen, buffer);
    case 4:
      return frame::number(policy.blockMode, buffer);
    case 5:
      return frame::number(policy.strMode, buffer);
    default:
      return frame::Answer::null();
  }
}

frame::Answer flagInHex(Q7EncPolicyInfo& policy, frame::ServerBuffer buffer) {
  char digits[2 * sizeof policy.encFlag + 1];
  const int length = std::clamp(policy.encFlagLen, 0, static_cast<int>(sizeof policy.encFlag));
  const int written = bin2hex(policy.encFlag, digits, length, 0);
  return buffer.copyTerminated(std::string_view(digits, static_cast<std::size_t>(written)));
}

// By position the codes are shifted by one: code 0 is the name.
frame::Answer fieldByPosition(Q7EncPolicyInfo policy, int field, frame::ServerBuffer buffer) {
  switch (field) {
    case 0:
      return buffer.copyTerminated(std::string_view(policy.policyID, strnlen(policy.policyID, sizeof policy.policyID)));
    case 7:
      return flagInHex(policy, buffer);
    default:
      return field > 0 ? numberField(policy, field - 1, buffer) : frame::Answer::null();
  }
}

}  // namespace

// kezu_conf_get_policy() -> STRING: the file-check string of the policies. Needs no session.
// kezu_conf_get_policy(session) -> STRING: number of policies.
// kezu_conf_get_policy(session, name, field) -> STRING: a field of the named policy:
//   0 algorithm, 1 IV mode, 2 position, 3 length, 4 block mode, 5 string mode.
// kezu_conf_get_policy(session, index, field) -> STRING: a field of the policy at a position:
//   0 name, 1 to 6 the fields above, 7 encryption flag in hexadecimal.
// NULL for everything else.
KEZU_STRING_FUNCTION(kezu_conf_get_policy,
                     {.forms = {"", "S", "S*I"}, .usage = "kezu_conf_get_column_init('string data')", .max_length = 64})
(const frame::Args& args, frame::Flags& /*flags*/, frame::ServerBuffer buffer) {
  if (args.count() == 0) {
    return fileCheckString(g_last_policy_KezuFileChkStr);
  }
  if (!checkAuth(args)) {
    return frame::Answer::null();
  }
  const int slot = activePolicySlot();
  const int count = kezu::observe(g_numberOfEncPolicy[slot]);
  if (args.count() == 1) {
    return frame::number(count, buffer);
  }
  if (args.count() != 3) {
    return frame::Answer::null();
  }
  const int field = args.int32(2);
  if (args.isString(1)) {
    const int index = findPolicyIn(slot, args.text(1));
    return index < 0 ? frame::Answer::null() : numberField(copyOf(slot, index), field, buffer);
  }
  const int index = args.int32(1);
  return index < 0 || index >= count ? frame::Answer::null() : fieldByPosition(copyOf(slot, index), field, buffer);
}
