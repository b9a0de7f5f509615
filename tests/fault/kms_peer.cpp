// SPDX-License-Identifier: Apache-2.0
#include "fault/kms_peer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <stdexcept>

namespace kms_test {
namespace {

void require(bool good, const char* what) {
  if (!good) {
    throw std::runtime_error(what);
  }
}

void addExtension(X509* certificate, X509* issuer, int kind, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str());
  require(extension != nullptr && X509_add_ext(certificate, extension, -1) == 1, "extension");
  X509_EXTENSION_free(extension);
}

struct FileCloser {
  void operator()(FILE* file) const noexcept { std::fclose(file); }
};
using File = std::unique_ptr<FILE, FileCloser>;

}  // namespace

Identity issue(const Certified& what, const Identity* issuer) {
  static std::atomic<long> serial{1};
  Identity made;
  made.key.reset(EVP_EC_gen("P-256"), EVP_PKEY_free);
  made.certificate.reset(X509_new(), X509_free);
  require(made.key != nullptr && made.certificate != nullptr, "key");
  X509* certificate = made.certificate.get();
  const Identity& signer = issuer == nullptr ? made : *issuer;
  X509_set_version(certificate, X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), ++serial);
  X509_gmtime_adj(X509_getm_notBefore(certificate), what.from);
  X509_gmtime_adj(X509_getm_notAfter(certificate), what.to);
  X509_set_pubkey(certificate, made.key.get());
  X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(what.name.c_str()), -1, -1, 0);
  X509_set_issuer_name(certificate, X509_get_subject_name(signer.certificate.get()));
  addExtension(certificate, signer.certificate.get(), NID_basic_constraints,
               what.authority ? "critical,CA:TRUE" : "critical,CA:FALSE");
  if (!what.alternative.empty()) {
    addExtension(certificate, signer.certificate.get(), NID_subject_alt_name, what.alternative);
  }
  if (!what.usage.empty()) {
    addExtension(certificate, signer.certificate.get(), NID_ext_key_usage, what.usage);
  }
  if (issuer != nullptr && X509_self_signed(issuer->certificate.get(), 0) != 1) {
    made.between.push_back(issuer->certificate);
    made.between.insert(made.between.end(), issuer->between.begin(), issuer->between.end());
  }
  require(X509_sign(certificate, signer.key.get(), EVP_sha256()) > 0, "signature");
  return made;
}

void writeCertificate(const Identity& identity, const std::filesystem::path& path) {
  const File file(std::fopen(path.c_str(), "w"));
  require(file != nullptr && PEM_write_X509(file.get(), identity.certificate.get()) == 1, "certificate file");
  for (const auto& between : identity.between) {
    require(PEM_write_X509(file.get(), between.get()) == 1, "certificate file");
  }
}

void writeKey(const Identity& identity, const std::filesystem::path& path) {
  const File file(std::fopen(path.c_str(), "w"));
  require(file != nullptr && fchmod(fileno(file.get()), 0600) == 0 &&
              PEM_write_PrivateKey(file.get(), identity.key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1,
          "key file");
}

Peer::Peer() {
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  require(listener_ >= 0 && bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
              listen(listener_, 16) == 0 && getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) == 0 &&
              pipe2(wake_, O_CLOEXEC) == 0,
          "listening socket");
  port_ = ntohs(address.sin_port);
}

Peer::~Peer() {
  close(wake_[1]);
  if (thread_.joinable()) {
    thread_.join();
  }
  close(wake_[0]);
  close(listener_);
}

void Peer::start(Script script, const Identity& server, const Identity& authority) {
  script_ = std::move(script);
  context_.reset(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
  require(context_ != nullptr && SSL_CTX_use_certificate(context_.get(), server.certificate.get()) == 1 &&
              SSL_CTX_use_PrivateKey(context_.get(), server.key.get()) == 1 &&
              X509_STORE_add_cert(SSL_CTX_get_cert_store(context_.get()), authority.certificate.get()) == 1,
          "server's certificate");
  for (const auto& between : server.between) {
    require(SSL_CTX_add1_chain_cert(context_.get(), between.get()) == 1, "server's chain");
  }
  if (script_.newestTls < TLS1_2_VERSION) {
    SSL_CTX_set_security_level(context_.get(), 0);  // where such connections are possible at all
  }
  SSL_CTX_set_min_proto_version(context_.get(), TLS1_VERSION);
  SSL_CTX_set_max_proto_version(context_.get(), script_.newestTls);
  if (script_.wantsCertificate) {
    SSL_CTX_set_verify(context_.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  }
  thread_ = std::thread([this] { run(); });
}

// False when the test is over.
bool Peer::waitFor(int fd, short events) const {
  pollfd both[] = {{fd, events, 0}, {wake_[0], 0, 0}};
  poll(both, 2, -1);
  return both[1].revents == 0;
}

void Peer::run() {
  while (waitFor(listener_, POLLIN)) {
    const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
      continue;
    }
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // else every answer waits for the client's delayed ACK
    ++connections_;
    if (script_.accept == Script::Accept::keepSilent) {
      waitFor(fd, POLLRDHUP);
    } else if (script_.accept == Script::Accept::normally) {
      serve(fd);
    }
    close(fd);
  }
}

void Peer::serve(int fd) {
  const std::unique_ptr<SSL, void (*)(SSL*)> ssl(SSL_new(context_.get()), SSL_free);
  // A client that goes away is part of the play: no SIGPIPE on this thread.
  SSL_set_fd(ssl.get(), fd);
  sigset_t pipes;
  sigemptyset(&pipes);
  sigaddset(&pipes, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipes, nullptr);
  for (;;) {
    const int result = SSL_accept(ssl.get());
    const int reason = SSL_get_error(ssl.get(), result);
    if (reason == SSL_ERROR_NONE) {
      talk(ssl.get(), fd);
      SSL_shutdown(ssl.get());
      return;
    }
    const bool again = reason == SSL_ERROR_WANT_READ || reason == SSL_ERROR_WANT_WRITE;
    if (!again || !waitFor(fd, reason == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT)) {
      return;
    }
  }
}

bool Peer::readExactly(SSL* ssl, int fd, char* to, std::size_t size) {
  while (size > 0) {
    std::size_t done = 0;
    const int result = SSL_read_ex(ssl, to, size, &done);
    if (result == 1) {
      to += done;
      size -= done;
      continue;
    }
    const int reason = SSL_get_error(ssl, result);
    if ((reason != SSL_ERROR_WANT_READ && reason != SSL_ERROR_WANT_WRITE) || !waitFor(fd, POLLIN)) {
      return false;
    }
  }
  return true;
}

bool Peer::send(SSL* ssl, int fd, const Wire& all) {
  const std::size_t step = script_.trickle.count() > 0 ? 1 : std::max<std::size_t>(all.size(), 1);
  for (std::size_t at = 0; at < all.size();) {
    std::size_t done = 0;
    const int result = SSL_write_ex(ssl, all.data() + at, std::min(step, all.size() - at), &done);
    if (result != 1) {
      const int reason = SSL_get_error(ssl, result);
      if ((reason != SSL_ERROR_WANT_READ && reason != SSL_ERROR_WANT_WRITE) || !waitFor(fd, POLLOUT)) {
        return false;
      }
      continue;
    }
    at += done;
    if (script_.trickle.count() > 0) {
      pollfd wake = {wake_[0], 0, 0};
      if (poll(&wake, 1, static_cast<int>(script_.trickle.count())) != 0) {
        return false;
      }
    }
  }
  return true;
}

void Peer::talk(SSL* ssl, int fd) {
  for (;;) {
    Wire request(8, '\0');
    if (!readExactly(ssl, fd, request.data(), 8)) {
      return;
    }
    request.resize(8 + static_cast<std::size_t>(number(request.substr(4, 4))));
    if (!readExactly(ssl, fd, request.data() + 8, request.size() - 8)) {
      return;
    }
    ++requests_;
    const Wire reply = script_.reply(request);
    if (!reply.empty() && (!send(ssl, fd, reply) || script_.closeAfterReply)) {
      return;
    }
    if (script_.stallAfterReply) {
      waitFor(fd, POLLRDHUP);
      return;
    }
  }
}

}  // namespace kms_test
