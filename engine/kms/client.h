// SPDX-License-Identifier: Apache-2.0
//
// A client of a key management server: KMIP 1.2 over TLS 1.2 or later, both sides with certificates.
//
// Time. Client::connect() takes at most connect_timeout for TCP and TLS, over all addresses of the host, and
// read_timeout for the version. Each request takes at most read_timeout, from its first byte to the last of its answer,
// however slowly the bytes come. An operation is one request, except readPolicies(), which is bounded by
// kReadPoliciesTimeouts times read_timeout as a whole. A fetch of policies is connect(), locate() and readPolicies():
// connect_timeout + 12 * read_timeout at most, 63 seconds with the defaults, and one read_timeout or two in practice.
// The one wait that these limits do not bound is the look-up of a host name (getaddrinfo), which follows the system's
// resolv.conf; a host given as an address, or listed in /etc/hosts, needs none.
//
// Errors name the server and the reason, in words. They never hold a key, nor text that the server sent in an answer
// that may hold one. After an error the connection is of no more use.
//
// No signal is raised when the server closes the connection (no SIGPIPE). The calling thread's OpenSSL error queue is
// left empty. A client is used by one thread at a time.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "engine/policy/policy_slots.h"
#include "engine/store/kms_settings.h"
#include "engine/store/result.h"
#include "kezu/engine.h"

namespace engine::kms {

inline constexpr int kReadPoliciesTimeouts = 10;

struct Version {
  int major = 0;
  int minor = 0;
  bool operator==(const Version&) const = default;
};

// Who the server is.
struct ServerInfo {
  Version version;                // the protocol version that is used: 1.2
  std::vector<Version> versions;  // those that the server offers
  std::string tls;                // version of TLS, such as "TLSv1.3"
  std::string subject;            // of the server's certificate, such as "CN=kms.example"
  std::string issuer;             //
  std::string notBefore;          // first and last moment of its validity, such as "2026-01-31T23:59:59Z"
  std::string notAfter;           //
};

// Whether policies are read with their keys. Without, no key leaves the server, and keyLength is 0.
enum class WithKeys { no, yes };

class Connection;

class Client {
 public:
  // Connects, checks the server, and finds out its versions. A server that does not offer version 1.2 is an error.
  static store::Result<Client> connect(const store::KmsSettings& settings);

  Client(Client&&) noexcept;
  Client& operator=(Client&&) noexcept;
  ~Client();  // closes the connection; does not wait for the server

  const ServerInfo& server() const noexcept { return server_; }

  // Identifiers of the active symmetric keys, those of the object group where the settings name one, at most `limit` of
  // them. Nothing is known yet of whether they are policies.
  store::Result<std::vector<std::string>> locate(int limit);

  // The policies of keys, in the order of `identifiers`, each of them valid: an active symmetric key with one Name, the
  // text of its fields, and a key in range. The first that is not makes the whole an error that names it. Names that
  // occur twice are not looked for. Requests are batched, in smaller batches where the server refuses large ones.
  store::Result<Policies> readPolicies(const std::vector<std::string>& identifiers, WithKeys keys);

  // Registers a policy as a new symmetric key, in the object group where the settings name one, and returns the key's
  // identifier. The key is not active yet. A key of the same Name that is there already stays as it is; some servers
  // refuse the second.
  store::Result<std::string> registerPolicy(const Q7EncPolicyInfo& policy);

  // Makes a registered key active, so that it is fetched. To replace a policy, activate the new key before the old one
  // is revoked: a fetch in between finds the name twice and changes nothing, where it would otherwise miss the policy.
  store::Status activate(const std::string& identifier);

  // Takes an active key out of use (Revoke, reason "superseded"): it is not fetched any more.
  store::Status revoke(const std::string& identifier);

  // Destroys a key that is not active. What was encrypted with it can't be decrypted any more where no other copy is.
  store::Status destroy(const std::string& identifier);

 private:
  Client(std::unique_ptr<Connection> connection, std::string objectGroup);

  std::unique_ptr<Connection> connection_;
  std::string objectGroup_;
  ServerInfo server_;
};

}  // namespace engine::kms
