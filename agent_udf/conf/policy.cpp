// SPDX-License-Identifier: Apache-2.0
//
// Making and removing encryption policies.
#include "conf/policy.h"

#include <algorithm>

#include "conf/audit_event.h"
#include "conf/check_auth.h"
#include "conf/policy_table.h"
#include "conf/record_table.h"
#include "frame/function.h"
#include "kezu/change.h"
#include "kezu/shared.h"
#include "logw/logw.h"

namespace {

constexpr long long kCreated = 1;
constexpr long long kDeleted = 3;
constexpr long long kRefused = 0;
constexpr long long kSaveFailed = -2;
constexpr long long kKeyServerMode = -4;
constexpr long long kFileChanged = -5;
constexpr long long kNoAesNi = -7;

constexpr int kNone = -1;      // index of no policy
constexpr int kAes128Ni = 19;  // algorithms that need a processor with AES instructions
constexpr int kAes256Ni = 20;
constexpr std::size_t kMaxName = sizeof Q7EncPolicyInfo::policyID - 1;
constexpr std::size_t kMaxFlag = sizeof Q7EncPolicyInfo::encFlag;

bool isLetterOrDigit(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
}

// The slot that the next table is built in, while the active one stays as it is for its readers.
struct Staged {
  int slot;
  int count;  // records built so far
};

// Puts a key to the next record. A reload on another thread may have put one of its own there since the slot was
// cleared.
void placeKey(const Staged& next, BCipherKey key) {
  const std::atomic_ref place(g_makeKeyArray[next.slot][next.count]);
  if (BCipherKey other = place.exchange(key, std::memory_order_acq_rel)) {
    BCIPHER_WipeKey(other);
    BCIPHER_DelKey(other);
  }
}

// Copies the active table, less the policy at index `left_out`, into the next slot, keys duplicated.
Staged stageNextSlot(int left_out) {
  const int current = activePolicySlot();
  const int count = kezu::observe(g_numberOfEncPolicy[current]);
  Staged next{(current + 1) % kPolicySlots, 0};
  clearPolicySlot(next.slot);
  for (int i = 0; i < count; ++i) {
    if (i == left_out) {
      continue;
    }
    if (BCipherKey key = kezu::observe(g_makeKeyArray[current][i])) {
      placeKey(next, BCIPHER_DupKey(key));
    }
    kezu::storeRecord(g_encPolicyArray[next.slot][next.count], g_encPolicyArray[current][i]);
    ++next.count;
  }
  return next;
}

void publishStaged(const Staged& staged) {
  kezu::publishSlot(g_numberOfEncPolicy, g_encPolicyArray_flag, staged.slot, staged.count);
}

// Saves the policy table. The result is `success` unless the save fails; the table in memory stays as it is in either
// case.
long long save(long long success) {
  switch (Q7_SavePolicyInfo()) {
    case -1:
      return kSaveFailed;
    case -3:
      return kFileChanged;
    default:
      return success;
  }
}

// Writes the cached policies of the key management server to the local file.
long long saveCache() {
  switch (Q7_SavePolicyInfo()) {
    case 0:
      return kCreated;
    case -1:
      return kSaveFailed;
    case -3:
      return kFileChanged;
    default:
      return kRefused;
  }
}

void logCreated(const Q7EncPolicyInfo& policy, const std::string& flag) {
  writeAuditEvent(kLogChange, {{"group", "policy"},
                               {"policy", policy.policyID},
                               {"algorithm", Q7EncryptionAlgorithmStr[policy.algID]},
                               {"iv mode", Q7EncryptionIVTypeStr[policy.ivMode]},
                               {"partial enc pos", std::to_string(policy.encPos)},
                               {"partial enc off", std::to_string(policy.encLen)},
                               {"block mode", Q7EncryptionBlockModeTypeStr[policy.blockMode]},
                               {"encode mode", Q7EncryptionStrModeStr[policy.strMode]},
                               {"enc flag", flag},
                               {"desc", "CREATE POLICY"}});
}

// The encryption flag of a new policy. The text NULL stands for none.
std::string flagText(const frame::Args& args) {
  std::string flag(args.text(8));
  return flag == "NULL" ? std::string() : flag;
}

long long createPolicy(const frame::Args& args, const std::string& name) {
  const std::string flag = flagText(args);
  if (flag.size() > kMaxFlag || flag.find('\0') != std::string::npos) {
    return kRefused;
  }
  Staged next = stageNextSlot(kNone);
  if (next.count >= kMaxPolicies) {
    return kRefused;
  }
  const int algorithm = args.int32(2);
  if ((algorithm == kAes128Ni || algorithm == kAes256Ni) && Check_CPU_support_AES() == 0) {
    // The list as its readers know it: without the policy's name.
    writeAuditTexts(kLogFailure, {"group", "policy", "policy", "desc", "The CPUs do NOT support AESNI."});
    return kNoAesNi;
  }
  Q7EncPolicyInfo& record = g_encPolicyArray[next.slot][next.count];
  BCipherKey key = nullptr;
  if (Q7_AddPolicyInfo(record, &key, name.c_str(), algorithm, args.int32(3), nullptr, 0xFFFFFFFF, args.int32(4),
                       args.int32(5), args.int32(6), args.int32(7), flag.c_str()) == 0) {
    return kRefused;
  }
  if (key != nullptr) {
    placeKey(next, key);
  }
  ++next.count;
  logCreated(record, flag);
  publishStaged(next);
  return save(kCreated);
}

bool isUsedByColumn(const std::string& name) {
  const RecordTable columns(g_encColumnInfoArray, g_numberOfEncColumn);
  return columns.find([&name](const Q7EncColumnInfo& column) { return kezu::fieldEquals(column.policyID, name); }) !=
         nullptr;
}

long long deletePolicy(const std::string& name, int found) {
  if (isUsedByColumn(name)) {
    return kRefused;
  }
  const Staged next = stageNextSlot(found);
  writeAuditEvent(kLogChange, {{"group", "policy"}, {"policy", name}, {"desc", "DELETE POLICY"}});
  publishStaged(next);
  return save(kDeleted);
}

}  // namespace

int Q7_CheckPolicyName(std::string& name) {
  return name.size() <= kMaxName && std::all_of(name.begin(), name.end(), isLetterOrDigit) ? 1 : 0;
}

int findPolicy(std::string& name) {
  return findPolicyIn(activePolicySlot(), name);
}

// kezu_conf_set_policy(session, name, algorithm, iv mode, position, length, block mode, string mode, flag) -> INTEGER:
//   makes a policy with a new key. 1.
// kezu_conf_set_policy(session, name) -> INTEGER: removes a policy that no column uses. 3.
// kezu_conf_set_policy(session) -> INTEGER: with cached policies of a key management server, writes them to the
// file. 1. 0 refused; -2 the save failed; -4 policies come from the key management server; -5 the save was refused
// because another process changed the file; -7 the processor has no AES instructions. After -2 and -5 the change stands
// in memory.
KEZU_INTEGER_FUNCTION(kezu_conf_set_policy, {.forms = {"S", "SS", "SSIIIIIIS"},
                                             .usage = "kezu_conf_set_column_init('string data')",
                                             .max_length = 64})
(const frame::Args& args, frame::Flags& /*flags*/) {
  if (!checkAuth(args)) {
    return kRefused;
  }
  const kezu::ConfigurationChange change;
  const Q7KmsMode mode = kezu::observe(g_kmsMode);
  if (mode == Q7_CACHED_KMS_MODE && args.count() == 1) {
    return saveCache();
  }
  std::string name(args.text(1));
  if (Q7_CheckPolicyName(name) == 0 || (args.count() != 9 && args.count() != 2)) {
    return kRefused;
  }
  if (mode != Q7_NO_KMS_MODE) {
    return kKeyServerMode;
  }
  const int found = findPolicy(name);
  const bool create = args.count() == 9;
  if (create != (found == kNone)) {
    return kRefused;
  }
  return create ? createPolicy(args, name) : deletePolicy(name, found);
}
