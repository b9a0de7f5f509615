// SPDX-License-Identifier: Apache-2.0
#include "engine/kms/connection.h"

#include <fmt/format.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <system_error>

#include "cipher/library.h"
#include "engine/kms/messages.h"
#include "engine/kms/tls.h"

namespace engine::kms {
namespace {

using Kind = store::Error::Kind;
using std::chrono::steady_clock;

constexpr const char* kClosed = "it closed the connection";

// Leaves the calling thread's OpenSSL error queue empty: it serves the database server's own connection next.
struct ErrorQueue {
  ErrorQueue() noexcept { cipher::forgetErrors(); }
  ErrorQueue(const ErrorQueue&) = delete;
  ErrorQueue& operator=(const ErrorQueue&) = delete;
  ~ErrorQueue() { cipher::forgetErrors(); }
};

std::string seconds(std::chrono::milliseconds time) {
  return fmt::format("{} s", static_cast<double>(time.count()) / 1000);
}

std::string nameText(const X509_NAME* name) {
  BIO* bio = BIO_new(BIO_s_mem());
  std::string text;
  if (bio != nullptr && name != nullptr && X509_NAME_print_ex(bio, name, 0, XN_FLAG_RFC2253) >= 0) {
    char* bytes = nullptr;
    const long size = BIO_get_mem_data(bio, &bytes);
    text = shownText({bytes, static_cast<std::size_t>(size)});
  }
  BIO_free(bio);
  return text;
}

std::string timeText(const ASN1_TIME* time) {
  std::tm fields = {};
  char text[32] = "";
  if (time != nullptr && ASN1_TIME_to_tm(time, &fields) == 1) {
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &fields);
  }
  return text;
}

store::Error errorOf(const store::KmsSettings& settings, Kind kind, const std::string& reason) {
  return {kind, fmt::format("key management server {} port {}: {}", shownText(settings.host), settings.port, reason)};
}

}  // namespace

void FreeSsl::operator()(SSL* ssl) const noexcept {
  SSL_free(ssl);
}

Connection::Connection(store::KmsSettings settings, Socket socket, SslPtr ssl)
    : settings_(std::move(settings)), socket_(std::move(socket)), ssl_(std::move(ssl)) {}

Connection::~Connection() {
  const ErrorQueue queue;
  if (SSL_is_init_finished(ssl_.get()) != 0) {
    SSL_shutdown(ssl_.get());  // says goodbye where that takes no waiting
  }
  ssl_.reset();
}

store::Error Connection::error(Kind kind, const std::string& reason) const {
  return errorOf(settings_, kind, reason);
}

store::Result<std::unique_ptr<Connection>> Connection::open(const store::KmsSettings& settings) {
  const ErrorQueue queue;
  const auto context = makeTlsContext(settings);
  if (!context.ok()) {
    return context.error();
  }
  const Deadline end = steady_clock::now() + settings.connectTimeout;
  auto socket = Socket::connect(settings, end);
  if (!socket.ok()) {
    return errorOf(settings, socket.error().kind, socket.error().text);
  }
  SslPtr ssl(SSL_new(context.value().get()));
  BIO* bio = ssl == nullptr ? nullptr : socket.value().bio();
  if (bio == nullptr || !expectHost(ssl.get(), settings.host)) {
    BIO_free(bio);
    return errorOf(settings, Kind::system, "TLS can't be set up: OpenSSL failed");
  }
  SSL_set_bio(ssl.get(), bio, bio);
  std::unique_ptr<Connection> connection(new Connection(settings, std::move(socket.value()), std::move(ssl)));
  if (const Outcome outcome = connection->handshake(end); !outcome.done) {
    return connection->error(outcome.kind, outcome.reason);
  }
  return connection;
}

// Why an operation failed: the certificate, the server's alert, or a connection that is gone.
Connection::Outcome Connection::failure(int sslError) {
  const long verified = SSL_get_verify_result(ssl_.get());
  if (verified != X509_V_OK) {
    return {false, Kind::invalid,
            fmt::format("its certificate is not accepted: {}", X509_verify_cert_error_string(verified))};
  }
  const unsigned long code = ERR_peek_last_error();
  if (sslError == SSL_ERROR_SSL && ERR_GET_REASON(code) != SSL_R_UNEXPECTED_EOF_WHILE_READING) {
    const char* reason = ERR_reason_error_string(code);
    return {false, Kind::invalid, fmt::format("TLS failed: {}", reason == nullptr ? "no reason given" : reason)};
  }
  if (sslError == SSL_ERROR_SYSCALL && errno != 0) {
    return {false, Kind::system, std::generic_category().message(errno)};
  }
  return {false, Kind::system, kClosed};
}

template <typename Operation>
Connection::Outcome Connection::run(const Operation& operation, Deadline end, const std::string& late) {
  for (;;) {
    if (steady_clock::now() > end) {
      return {false, Kind::system, late};
    }
    cipher::forgetErrors();
    errno = 0;
    const int result = operation();
    const int reason = SSL_get_error(ssl_.get(), result);
    if (reason == SSL_ERROR_NONE) {
      return {true, {}, {}};
    }
    if (reason != SSL_ERROR_WANT_READ && reason != SSL_ERROR_WANT_WRITE) {
      return failure(reason);
    }
    if (!socket_.wait(reason == SSL_ERROR_WANT_READ, end)) {
      return {false, Kind::system, late};
    }
  }
}

Connection::Outcome Connection::handshake(Deadline end) {
  return run([this] { return SSL_connect(ssl_.get()); }, end,
             "no TLS connection within connect_timeout, " + seconds(settings_.connectTimeout));
}

Connection::Outcome Connection::writeAll(Bytes bytes, Deadline end) {
  std::size_t done = 0;
  while (!bytes.empty()) {
    Outcome outcome = run([&] { return SSL_write_ex(ssl_.get(), bytes.data(), bytes.size(), &done); }, end,
                          "it does not take the request within read_timeout, " + seconds(settings_.readTimeout));
    if (!outcome.done) {
      return outcome;
    }
    bytes = bytes.subspan(done);
  }
  return {true, {}, {}};
}

Connection::Outcome Connection::readAll(std::span<unsigned char> bytes, Deadline end) {
  std::size_t done = 0;
  while (!bytes.empty()) {
    Outcome outcome = run([&] { return SSL_read_ex(ssl_.get(), bytes.data(), bytes.size(), &done); }, end,
                          "no whole answer within read_timeout, " + seconds(settings_.readTimeout));
    if (!outcome.done) {
      return outcome;
    }
    bytes = bytes.subspan(done);
  }
  return {true, {}, {}};
}

store::Result<cipher::SecretBytes> Connection::exchange(Bytes request, Deadline end) {
  const ErrorQueue queue;
  end = std::min(end, steady_clock::now() + settings_.readTimeout);
  if (const Outcome sent = writeAll(request, end); !sent.done) {
    return error(sent.kind, sent.reason);
  }
  cipher::SecretBytes answer(kHeaderSize);
  if (const Outcome header = readAll(answer, end); !header.done) {
    return error(header.kind, header.reason);
  }
  const auto length = messageLength(answer);
  if (!length.ok()) {
    return error(length.error().kind, "its answer " + length.error().text);
  }
  answer.resize(length.value());
  const std::span<unsigned char> whole(answer);
  if (const Outcome body = readAll(whole.subspan(kHeaderSize), end); !body.done) {
    return error(body.kind,
                 body.reason == kClosed ? "it closed the connection in the middle of an answer" : body.reason);
  }
  return answer;
}

void Connection::describe(ServerInfo& server) const {
  const ErrorQueue queue;
  server.tls = SSL_get_version(ssl_.get());
  const X509* certificate = SSL_get0_peer_certificate(ssl_.get());
  if (certificate != nullptr) {
    server.subject = nameText(X509_get_subject_name(certificate));
    server.issuer = nameText(X509_get_issuer_name(certificate));
    server.notBefore = timeText(X509_get0_notBefore(certificate));
    server.notAfter = timeText(X509_get0_notAfter(certificate));
  }
}

}  // namespace engine::kms
