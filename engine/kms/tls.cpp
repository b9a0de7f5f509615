// SPDX-License-Identifier: Apache-2.0
#include "engine/kms/tls.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <string>
#include <utility>
#include <vector>

#include "cipher/library.h"
#include "engine/kms/socket.h"
#include "engine/store/home.h"

namespace engine::kms {
namespace {

constexpr std::size_t kMaxFile = std::size_t{1} << 20;

struct FreeBio {
  void operator()(BIO* bio) const noexcept { BIO_free(bio); }
};
using BioPtr = std::unique_ptr<BIO, FreeBio>;
struct FreeCertificate {
  void operator()(X509* certificate) const noexcept { X509_free(certificate); }
};
using CertificatePtr = std::unique_ptr<X509, FreeCertificate>;
struct FreeKey {
  void operator()(EVP_PKEY* key) const noexcept { EVP_PKEY_free(key); }
};

store::Error unusable(const std::string& path, const std::string& reason) {
  return {store::Error::Kind::invalid, store::shownPath(path) + ": " + reason};
}

store::Error outOfMemory() {
  return {store::Error::Kind::system, "TLS can't be set up: OpenSSL failed"};
}

// The passphrase of a key, which would be asked for at the terminal otherwise: there is none.
int noPassphrase(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*data*/) noexcept {
  return -1;
}

// A file in memory, and a BIO that reads it.
struct Pem {
  store::FileImage image;
  BioPtr bio;
};

store::Result<Pem> openPem(const std::string& path) {
  auto image = store::readFile(store::machineFiles(), path, kMaxFile, store::Links::follow);
  if (!image.ok()) {
    return image.error();
  }
  Pem pem{std::move(image.value()), nullptr};
  const cipher::SecretBytes& bytes = pem.image.bytes;
  pem.bio.reset(bytes.empty() ? BIO_new_mem_buf("", 0) : BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
  return pem.bio == nullptr ? store::Result<Pem>(outOfMemory()) : std::move(pem);
}

// The next certificate of a file, null at its end or at what is none.
CertificatePtr nextCertificate(BIO* bio) noexcept {
  cipher::forgetErrors();
  X509* certificate = X509_new_ex(cipher::libraryContext(), nullptr);
  if (certificate != nullptr && PEM_read_bio_X509(bio, &certificate, noPassphrase, nullptr) == nullptr) {
    X509_free(certificate);
    certificate = nullptr;
  }
  return CertificatePtr(certificate);
}

// Whether reading stopped because there is no further PEM block, and not at a damaged one.
bool stoppedAtEnd() noexcept {
  const unsigned long code = ERR_peek_last_error();
  return ERR_GET_LIB(code) == ERR_LIB_PEM && ERR_GET_REASON(code) == PEM_R_NO_START_LINE;
}

// All certificates of a file: one at least, none of them damaged.
store::Result<std::vector<CertificatePtr>> readCertificates(const std::string& path, const std::string& setting) {
  const auto pem = openPem(path);
  if (!pem.ok()) {
    return pem.error();
  }
  std::vector<CertificatePtr> all;
  while (CertificatePtr certificate = nextCertificate(pem.value().bio.get())) {
    all.push_back(std::move(certificate));
  }
  if (!stoppedAtEnd()) {
    return unusable(path, "holds a damaged certificate (" + setting + ")");
  }
  if (all.empty()) {
    return unusable(path, "holds no certificate (" + setting + ")");
  }
  return all;
}

store::Status addAuthorities(SSL_CTX* context, const std::string& path) {
  const auto authorities = readCertificates(path, "kms.ca");
  if (!authorities.ok()) {
    return authorities.error();
  }
  for (const CertificatePtr& authority : authorities.value()) {
    if (X509_STORE_add_cert(SSL_CTX_get_cert_store(context), authority.get()) != 1) {
      return outOfMemory();
    }
  }
  return {};
}

store::Status addCertificate(SSL_CTX* context, const std::string& path) {
  const auto chain = readCertificates(path, "kms.certificate");
  if (!chain.ok()) {
    return chain.error();
  }
  if (SSL_CTX_use_certificate(context, chain.value()[0].get()) != 1) {
    return unusable(path, "its certificate can't be used for TLS");
  }
  for (std::size_t i = 1; i < chain.value().size(); ++i) {
    if (SSL_CTX_add1_chain_cert(context, chain.value()[i].get()) != 1) {
      return unusable(path, "a certificate after the first can't be used for TLS");
    }
  }
  return {};
}

store::Status addKey(SSL_CTX* context, const std::string& path) {
  const auto pem = openPem(path);
  if (!pem.ok()) {
    return pem.error();
  }
  if (store::Status status = store::checkPrivate(pem.value().image.status, path); !status.ok()) {
    return status;
  }
  const std::unique_ptr<EVP_PKEY, FreeKey> key(PEM_read_bio_PrivateKey_ex(pem.value().bio.get(), nullptr, noPassphrase,
                                                                          nullptr, cipher::libraryContext(), nullptr));
  if (key == nullptr) {
    return unusable(path, "holds no private key that can be read without a password (kms.key)");
  }
  // A key of another algorithm than the certificate's is taken, and only found out by the check.
  if (SSL_CTX_use_PrivateKey(context, key.get()) != 1 || SSL_CTX_check_private_key(context) != 1) {
    return unusable(path, "is not the private key of the certificate (kms.key, kms.certificate)");
  }
  return {};
}

}  // namespace

void FreeContext::operator()(SSL_CTX* context) const noexcept {
  SSL_CTX_free(context);
}

store::Result<TlsContext> makeTlsContext(const store::KmsSettings& settings) {
  if (cipher::libraryContext() == nullptr) {
    return outOfMemory();
  }
  TlsContext context(SSL_CTX_new_ex(cipher::libraryContext(), nullptr, TLS_client_method()));
  if (context == nullptr || SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) != 1) {
    return outOfMemory();
  }
  SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
  SSL_CTX_set_options(context.get(), SSL_OP_CLEANSE_PLAINTEXT | SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_TICKET);
  // Without a retry inside OpenSSL, a server that sends one record after another and never an answer can't keep a read
  // from coming back to look at the time.
  SSL_CTX_clear_mode(context.get(), SSL_MODE_AUTO_RETRY);
  SSL_CTX_set_mode(context.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
  if (store::Status status = addAuthorities(context.get(), settings.ca); !status.ok()) {
    return status.error();
  }
  if (store::Status status = addCertificate(context.get(), settings.certificate); !status.ok()) {
    return status.error();
  }
  if (store::Status status = addKey(context.get(), settings.key); !status.ok()) {
    return status.error();
  }
  return context;
}

bool expectHost(SSL* ssl, const std::string& host) noexcept {
  if (isAddress(host)) {
    return X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), host.c_str()) == 1;
  }
  SSL_set_hostflags(ssl, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  return SSL_set1_host(ssl, host.c_str()) == 1 && SSL_set_tlsext_host_name(ssl, host.c_str()) == 1;
}

}  // namespace engine::kms
