// SPDX-License-Identifier: Apache-2.0
//
// Any bytes in place of an answer of the key management server: decoded, matched with the requests that a fetch sends,
// and read as policies. What is decoded must be within the message, and a policy that is taken must be one.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "engine/kms/messages.h"
#include "engine/kms/policy_fields.h"

namespace {

using namespace engine::kms;

void require(bool good) {
  if (!good) {
    std::abort();
  }
}

void checkBounds(const Item& item, Bytes message, int depth) {
  require(depth <= kMaxDepth);
  require(item.value.empty() || (item.value.data() >= message.data() &&
                                 item.value.data() + item.value.size() <= message.data() + message.size()));
  for (const Item& inner : item.content) {
    checkBounds(inner, message, depth + 1);
  }
}

// The requests of a fetch, and those of the command line.
const std::vector<std::vector<Call>>& requests() {
  static const std::vector<std::vector<Call>> all = {
      {discoverVersions()},
      {locate("", 3)},
      {getAttributes("1")},
      {getKey("1")},
      {getAttributes("1"), getKey("1"), getAttributes("2"), getKey("2")},
      {registerKey({}, "")},
      {activateKey("1")},
  };
  return all;
}

void readPayloads(const Answer& answer) {
  for (const Item* payload : answer.payloads) {
    (void)readVersions(*payload);
    (void)readIdentifier(*payload);
    const auto identifiers = readIdentifiers(*payload, 3);
    require(!identifiers.ok() || identifiers.value().size() <= 3);
    for (const char* identifier : {"1", "2"}) {
      Q7EncPolicyInfo policy{};
      const bool attributes = readAttributes(*payload, identifier, policy).ok();
      Q7EncPolicyInfo keyed = policy;
      const bool key = readKey(*payload, identifier, keyed).ok();
      require(!key || (keyed.keyLength >= 1 && keyed.keyLength <= 64));
      if (attributes) {
        policy.keyLength = 1;
        require(checkPolicy(policy).ok());
        Q7EncPolicyInfo again{};
        require(readPolicyText(policyText(policy), again).ok());
      }
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Bytes message(data, size);
  const auto decoded = decodeMessage(message);
  if (!decoded.ok()) {
    require(!decoded.error().text.empty());
    return 0;
  }
  checkBounds(decoded.value(), message, 1);
  for (const auto& calls : requests()) {
    const auto answer = readAnswer(decoded.value(), calls);
    if (answer.ok()) {
      require(answer.value().payloads.size() == (answer.value().refusal.empty() ? calls.size() : 0));
      readPayloads(answer.value());
    }
  }
  return 0;
}
