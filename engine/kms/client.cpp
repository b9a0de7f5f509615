// SPDX-License-Identifier: Apache-2.0
#include "engine/kms/client.h"

#include <fmt/format.h>

#include <algorithm>

#include "engine/kms/connection.h"
#include "engine/kms/messages.h"
#include "engine/kms/policy_fields.h"

namespace engine::kms {
namespace {

// Operations of one request: two a key, so the attributes and keys of 100 policies.
constexpr std::size_t kBatch = 200;

using std::chrono::steady_clock;
using store::Error;

store::Error invalidAnswer(const Connection& connection, const store::Error& reason) {
  return connection.error(reason.kind, "its answer " + reason.text);
}

// An answer with the message that it views.
struct Received {
  cipher::SecretBytes bytes;
  Item message;
  Answer answer;
};

// Sends operations as one request and gives what became of them, a refusal included.
store::Result<Received> send(Connection& connection, std::span<const Call> calls, Deadline end) {
  auto bytes = connection.exchange(encodeRequest(calls), end);
  if (!bytes.ok()) {
    return bytes.error();
  }
  Received received{std::move(bytes.value()), {}, {}};
  auto message = decodeMessage(received.bytes);
  if (!message.ok()) {
    return invalidAnswer(connection, message.error());
  }
  received.message = std::move(message.value());
  auto answer = readAnswer(received.message, calls);
  if (!answer.ok()) {
    return invalidAnswer(connection, answer.error());
  }
  received.answer = std::move(answer.value());
  return received;
}

// The same for one operation, a refusal as an error.
store::Result<Received> call(Connection& connection, const Call& one) {
  auto received = send(connection, {&one, 1}, steady_clock::now() + connection.readTimeout());
  if (received.ok() && !received.value().answer.refusal.empty()) {
    return connection.error(Error::Kind::invalid, received.value().answer.refusal);
  }
  return received;
}

store::Status callAlone(Connection& connection, const Call& one) {
  const auto received = call(connection, one);
  return received.ok() ? store::Status() : store::Status(received.error());
}

std::string listed(const std::vector<Version>& versions) {
  std::string text;
  for (const Version& version : versions) {
    text += fmt::format("{}{}.{}", text.empty() ? "" : ", ", version.major, version.minor);
  }
  return text.empty() ? "none" : text.substr(0, 100);
}

// Reads the policies of many keys, batch after batch.
class PolicyReader {
 public:
  PolicyReader(Connection& connection, const std::vector<std::string>& identifiers, WithKeys keys)
      : connection_(connection),
        identifiers_(identifiers),
        each_(keys == WithKeys::yes ? 2 : 1),
        policies_(identifiers.size()),
        end_(steady_clock::now() + kReadPoliciesTimeouts * connection.readTimeout()) {}

  store::Result<Policies> read() {
    const std::size_t all = identifiers_.size() * each_;
    std::size_t batch = kBatch;
    for (std::size_t first = 0; first < all;) {
      const std::size_t count = std::min(batch, all - first);
      bool tooLarge = false;
      if (const store::Status status = readBatch(first, count, tooLarge); !status.ok()) {
        return status.error();
      }
      first += tooLarge ? 0 : count;
      batch = tooLarge ? std::max<std::size_t>(count / 2, 1) : batch;
    }
    return std::move(policies_);
  }

 private:
  // What is asked at a place of the whole series: the attributes of a key, then the key.
  Call callAt(std::size_t place) const {
    const std::string& identifier = identifiers_[place / each_];
    return place % each_ == 0 ? getAttributes(identifier) : getKey(identifier);
  }

  store::Status readBatch(std::size_t first, std::size_t count, bool& tooLarge) {
    std::vector<Call> calls;
    for (std::size_t i = 0; i < count; ++i) {
      calls.push_back(callAt(first + i));
    }
    const auto received = send(connection_, calls, end_);
    if (!received.ok()) {
      return received.error();
    }
    const Answer& answer = received.value().answer;
    tooLarge = answer.tooLarge;
    if (!answer.refusal.empty()) {
      return tooLarge ? store::Status() : connection_.error(Error::Kind::invalid, answer.refusal);
    }
    for (std::size_t i = 0; i < count; ++i) {
      if (const store::Status status = take(first + i, *answer.payloads[i]); !status.ok()) {
        return connection_.error(status.error().kind, status.error().text);
      }
    }
    return {};
  }

  store::Status take(std::size_t place, const Item& payload) {
    const std::string& identifier = identifiers_[place / each_];
    Q7EncPolicyInfo& policy = policies_[place / each_];
    return place % each_ == 0 ? readAttributes(payload, identifier, policy) : readKey(payload, identifier, policy);
  }

  Connection& connection_;
  const std::vector<std::string>& identifiers_;
  std::size_t each_;
  Policies policies_;
  Deadline end_;
};

}  // namespace

Client::Client(std::unique_ptr<Connection> connection, std::string objectGroup)
    : connection_(std::move(connection)), objectGroup_(std::move(objectGroup)) {}
Client::Client(Client&&) noexcept = default;
Client& Client::operator=(Client&&) noexcept = default;
Client::~Client() = default;

store::Result<Client> Client::connect(const store::KmsSettings& settings) {
  auto connection = Connection::open(settings);
  if (!connection.ok()) {
    return connection.error();
  }
  Client client(std::move(connection.value()), settings.objectGroup);
  client.connection_->describe(client.server_);
  const auto received = call(*client.connection_, discoverVersions());
  if (!received.ok()) {
    return received.error();
  }
  auto versions = readVersions(*received.value().answer.payloads[0]);
  if (!versions.ok()) {
    return invalidAnswer(*client.connection_, versions.error());
  }
  client.server_.versions = std::move(versions.value());
  const auto& offered = client.server_.versions;
  if (std::find(offered.begin(), offered.end(), kProtocol) == offered.end()) {
    return client.connection_->error(Error::Kind::invalid,
                                     fmt::format("it does not offer KMIP {}.{}; its versions: {}", kProtocol.major,
                                                 kProtocol.minor, listed(offered)));
  }
  client.server_.version = kProtocol;
  return client;
}

store::Result<std::vector<std::string>> Client::locate(int limit) {
  const auto received = call(*connection_, kms::locate(objectGroup_, limit));
  if (!received.ok()) {
    return received.error();
  }
  auto identifiers = readIdentifiers(*received.value().answer.payloads[0], limit);
  return identifiers.ok() ? std::move(identifiers) : invalidAnswer(*connection_, identifiers.error());
}

store::Result<Policies> Client::readPolicies(const std::vector<std::string>& identifiers, WithKeys keys) {
  return PolicyReader(*connection_, identifiers, keys).read();
}

store::Result<std::string> Client::registerPolicy(const Q7EncPolicyInfo& policy) {
  if (const store::Status status = checkPolicy(policy); !status.ok()) {
    return status.error();
  }
  const auto received = call(*connection_, registerKey(policy, objectGroup_));
  if (!received.ok()) {
    return received.error();
  }
  auto identifier = readIdentifier(*received.value().answer.payloads[0]);
  return identifier.ok() ? std::move(identifier) : invalidAnswer(*connection_, identifier.error());
}

store::Status Client::activate(const std::string& identifier) {
  return callAlone(*connection_, activateKey(identifier));
}

store::Status Client::revoke(const std::string& identifier) {
  return callAlone(*connection_, revokeKey(identifier));
}

store::Status Client::destroy(const std::string& identifier) {
  return callAlone(*connection_, destroyKey(identifier));
}

}  // namespace engine::kms
