// SPDX-License-Identifier: Apache-2.0
//
// The policy of a registered column.
#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "kezu/engine.h"
#include "kezu/shared.h"

namespace {

constexpr std::size_t kErrorSize = 256;

const Q7EncColumnInfo* findColumn(const char* owner, const char* table, const char* column) noexcept {
  const int count = std::clamp(kezu::observe(g_numberOfEncColumn), 0, kMaxColumns);
  const Q7EncColumnInfo* end = g_encColumnInfoArray + count;
  const auto* found = std::find_if(g_encColumnInfoArray, const_cast<Q7EncColumnInfo*>(end), [&](const auto& record) {
    return kezu::fieldEquals(record.owner, owner) && kezu::fieldEquals(record.table, table) &&
           kezu::fieldEquals(record.column, column);
  });
  return found == end ? nullptr : found;
}

void giveReason(char* error, const char* reason) noexcept {
  if (error != nullptr) {
    std::strncpy(error, reason, kErrorSize - 1);
    error[kErrorSize - 1] = '\0';
  }
}

}  // namespace

int kezuGetEncPolicyId(char* owner, char* table, char* column, char* policy, char* error) {
  if (owner == nullptr || table == nullptr || column == nullptr || policy == nullptr) {
    giveReason(error, "owner, table, column or the place for the policy's name is missing");
    return 1;
  }
  const Q7EncColumnInfo* found = findColumn(owner, table, column);
  if (found == nullptr) {
    giveReason(error, "the column is not registered for encryption");
    return 1;
  }
  Q7EncColumnInfo copy;
  kezu::loadRecord(copy, *found);
  copy.policyID[sizeof copy.policyID - 1] = '\0';
  std::memcpy(policy, copy.policyID, sizeof copy.policyID);
  return 0;
}
