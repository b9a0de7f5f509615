// SPDX-License-Identifier: Apache-2.0
//
// One connection to the key management server: TLS with both sides' certificates checked, and no wait without an end.
#pragma once

#include <openssl/types.h>

#include <chrono>
#include <memory>
#include <string>

#include "engine/kms/client.h"
#include "engine/kms/socket.h"
#include "engine/kms/ttlv.h"

namespace engine::kms {

struct FreeSsl {
  void operator()(SSL* ssl) const noexcept;
};
using SslPtr = std::unique_ptr<SSL, FreeSsl>;

class Connection {
 public:
  // Connects within settings.connectTimeout, the look-up of the host's name aside.
  static store::Result<std::unique_ptr<Connection>> open(const store::KmsSettings& settings);

  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection();

  // Sends a request and reads the whole of its answer, by `end` and within settings.readTimeout. The answer's length is
  // checked before its body is read; nothing else of it is.
  store::Result<cipher::SecretBytes> exchange(Bytes request, Deadline end);

  // An error of this connection's server: "key management server HOST port PORT: REASON".
  store::Error error(store::Error::Kind kind, const std::string& reason) const;

  // TLS version and the server's certificate.
  void describe(ServerInfo& server) const;

  std::chrono::milliseconds readTimeout() const noexcept { return settings_.readTimeout; }

 private:
  Connection(store::KmsSettings settings, Socket socket, SslPtr ssl);

  // Why an operation of OpenSSL did not come to its end.
  struct Outcome {
    bool done = false;
    store::Error::Kind kind = store::Error::Kind::system;
    std::string reason;
  };

  // Runs an operation until it succeeds, the server is gone, or the time is up. `late` is the reason then.
  template <typename Operation>
  Outcome run(const Operation& operation, Deadline end, const std::string& late);
  Outcome failure(int sslError);
  Outcome handshake(Deadline end);
  Outcome readAll(std::span<unsigned char> bytes, Deadline end);
  Outcome writeAll(Bytes bytes, Deadline end);

  store::KmsSettings settings_;
  Socket socket_;
  SslPtr ssl_;
};

}  // namespace engine::kms
