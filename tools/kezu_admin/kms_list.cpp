// SPDX-License-Identifier: Apache-2.0
//
// kezu-admin kms list
#include <fmt/format.h>

#include <algorithm>
#include <string>

#include "commands.h"
#include "kms.h"

namespace admin {
namespace {

namespace kms = engine::kms;

std::string flagDigits(const Q7EncPolicyInfo& policy) {
  std::string digits;
  for (int i = 0; i < policy.encFlagLen; ++i) {
    digits += fmt::format("{:02x}", static_cast<unsigned char>(policy.encFlag[i]));
  }
  return digits.empty() ? "-" : digits;
}

constexpr const char* kLine = "{:<16}  {:<12}  {:<13}  {:<9}  {:<8}  {:>8}  {:>6}  {}\n";

void print(const Q7EncPolicyInfo& policy) {
  fmt::print(kLine, policy.policyID, Q7EncryptionAlgorithmStr[policy.algID], Q7EncryptionIVTypeStr[policy.ivMode],
             Q7EncryptionBlockModeTypeStr[policy.blockMode], Q7EncryptionStrModeStr[policy.strMode], policy.encPos,
             policy.encLen, flagDigits(policy));
}

bool before(const Q7EncPolicyInfo& one, const Q7EncPolicyInfo& other) {
  return std::string_view(one.policyID) < std::string_view(other.policyID);
}

}  // namespace

int listServer(const std::string& home) {
  const auto settings = openServer(home);
  if (!settings.ok()) {
    return fail(settings.error());
  }
  auto client = kms::Client::connect(settings.value());
  if (!client.ok()) {
    return fail(client.error());
  }
  auto found = readServer(client.value());
  if (!found.ok()) {
    return fail(found.error());
  }
  engine::Policies& policies = found.value().policies;
  std::sort(policies.begin(), policies.end(), before);
  fmt::print(kLine, "name", "algorithm", "iv", "block", "encoding", "position", "length", "flag (hex)");
  std::for_each(policies.begin(), policies.end(), print);
  return kSuccess;
}

}  // namespace admin
