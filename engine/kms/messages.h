// SPDX-License-Identifier: Apache-2.0
//
// Requests and answers of OASIS KMIP 1.2 (sections 4, 6 and 7): those that policies need. What is sent is built here,
// and what is received is interpreted here; nothing of it knows a connection.
//
// The error's text is the reason alone, in words. It never holds a key, nor what the server says about an operation
// that carries one.
#pragma once

#include <string>
#include <vector>

#include "engine/kms/client.h"
#include "engine/kms/ttlv.h"

namespace engine::kms {

inline constexpr Version kProtocol{1, 2};

enum class Operation : std::uint32_t {
  registerObject = 0x03,
  locate = 0x08,
  get = 0x0a,
  getAttributes = 0x0b,
  activate = 0x12,
  revoke = 0x13,
  destroy = 0x14,
  discoverVersions = 0x1e,
};

// One operation of a request, its payload encoded already.
struct Call {
  Operation operation;
  cipher::SecretBytes payload;
};

// An attribute of a key whose policy is read is at most this long, and so is an identifier.
inline constexpr std::size_t kMaxIdentifier = 255;  // bytes

Call discoverVersions();
Call locate(const std::string& objectGroup, int limit);  // active symmetric keys; an empty group is any
Call getAttributes(const std::string& identifier);       // those that a policy is read from
Call getKey(const std::string& identifier);
Call registerKey(const Q7EncPolicyInfo& policy, const std::string& objectGroup);
Call activateKey(const std::string& identifier);
Call revokeKey(const std::string& identifier);  // reason: superseded
Call destroyKey(const std::string& identifier);

// The message of one operation or several.
cipher::SecretBytes encodeRequest(std::span<const Call> calls);

// An answer that was decoded and belongs to its request.
struct Answer {
  std::vector<const Item*> payloads;  // one for each operation, in the request's order
  std::string refusal;                // why the request as a whole or one operation was not done; no payloads then
  bool tooLarge = false;              // refused for its size: several smaller requests may be accepted
};

// Checks an answer's version, its items' order and results. An error for what is no answer to the request, a refusal
// for what the server says no to.
store::Result<Answer> readAnswer(const Item& message, std::span<const Call> calls);

// Payloads of answers.
store::Result<std::vector<Version>> readVersions(const Item& payload);
store::Result<std::vector<std::string>> readIdentifiers(const Item& payload, int limit);
store::Result<std::string> readIdentifier(const Item& payload);

// Sets all of a policy but its key from its key's attributes.
store::Status readAttributes(const Item& payload, const std::string& identifier, Q7EncPolicyInfo& policy);

// Sets the key of a policy.
store::Status readKey(const Item& payload, const std::string& identifier, Q7EncPolicyInfo& policy);

// A text of the server's for a message: at most 100 bytes of it, what is not printable ASCII as '?'.
std::string shownText(std::string_view text);

}  // namespace engine::kms
