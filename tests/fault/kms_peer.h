// SPDX-License-Identifier: Apache-2.0
//
// A key management server that does what a test tells it to: a thread that speaks TLS, and the certificates for both
// sides, made for the test.
#pragma once

#include <openssl/ssl.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "fault/kms_wire.h"

namespace kms_test {

// A certificate with its key.
struct Identity {
  std::shared_ptr<X509> certificate;
  std::shared_ptr<EVP_PKEY> key;
  std::vector<std::shared_ptr<X509>> between = {};  // certificates that lead to the authority, the issuer's first
};

// What a certificate says.
struct Certified {
  std::string name;              // common name
  std::string alternative = {};  // subjectAltName, such as "IP:127.0.0.1"; empty for none
  bool authority = false;        // may issue others
  long from = -3600;             // validity, in seconds from now
  long to = 3600;
  std::string usage = {};  // extendedKeyUsage, such as "clientAuth"; empty for any
};

// Issues a certificate; without an issuer, one that signs itself. One that an authority below another issued has the
// way up to it in `between`.
Identity issue(const Certified& what, const Identity* issuer = nullptr);

// Writes the certificate, and those between after it.
void writeCertificate(const Identity& identity, const std::filesystem::path& path);
void writeKey(const Identity& identity, const std::filesystem::path& path);

// What the server does. Each is called on the server's thread.
struct Script {
  // The answer to a request; what it returns is sent as it is, in one piece. Empty for none.
  std::function<Wire(const Wire& request)> reply = {};

  enum class Accept { normally, close, keepSilent } accept = Accept::normally;
  bool closeAfterReply = false;          // closes the connection after one reply that is sent
  bool stallAfterReply = false;          // keeps silent then
  std::chrono::milliseconds trickle{0};  // with a time: sends one byte at a time, this far apart
  bool wantsCertificate = true;
  int newestTls = TLS1_3_VERSION;
};

class Peer {
 public:
  // Listens on a free port of 127.0.0.1; start() answers.
  Peer();
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  ~Peer();

  void start(Script script, const Identity& server, const Identity& authority);

  int port() const noexcept { return port_; }
  int connections() const noexcept { return connections_; }
  int requests() const noexcept { return requests_; }

 private:
  void run();
  void serve(int fd);
  void talk(SSL* ssl, int fd);
  bool send(SSL* ssl, int fd, const Wire& bytes);
  bool readExactly(SSL* ssl, int fd, char* to, std::size_t size);
  bool waitFor(int fd, short events) const;

  int listener_ = -1;
  int wake_[2] = {-1, -1};  // a pipe: closed at one end, it ends every wait of the thread
  int port_ = 0;
  Script script_;
  std::shared_ptr<SSL_CTX> context_;
  std::atomic<int> connections_{0};
  std::atomic<int> requests_{0};
  std::thread thread_;
};

}  // namespace kms_test
