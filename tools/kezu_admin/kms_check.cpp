// SPDX-License-Identifier: Apache-2.0
//
// kezu-admin kms check
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "kms.h"

namespace admin {
namespace {

namespace kms = engine::kms;
namespace store = engine::store;
using Clock = std::chrono::steady_clock;

constexpr int kWarningDays = 30;

struct FileCloser {
  void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
struct CertificateDeleter {
  void operator()(X509* certificate) const noexcept { X509_free(certificate); }
};

// A certificate as it is shown. The dates have the form of those of the server: 2026-01-31T23:59:59Z.
struct Certificate {
  std::string subject;
  std::string issuer;
  std::string notBefore;
  std::string notAfter;
};

std::string shownTime(const std::tm& time) {
  return fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", time);
}

std::string shownTime(const ASN1_TIME* time) {
  std::tm parts = {};
  return ASN1_TIME_to_tm(time, &parts) == 1 ? shownTime(parts) : "?";
}

std::string shownName(const X509_NAME* name) {
  const std::unique_ptr<BIO, decltype(&BIO_free)> out(BIO_new(BIO_s_mem()), BIO_free);
  X509_NAME_print_ex(out.get(), name, 0, XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB);
  const char* text = nullptr;
  const long length = BIO_get_mem_data(out.get(), &text);
  return {text, static_cast<std::size_t>(length)};
}

Result<Certificate> readCertificate(const std::string& path) {
  const std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "re"));
  if (!file) {
    return store::systemError(path, "the client's certificate cannot be opened");
  }
  const std::unique_ptr<X509, CertificateDeleter> certificate(PEM_read_X509(file.get(), nullptr, nullptr, nullptr));
  if (!certificate) {
    ERR_clear_error();
    return Error{Error::Kind::invalid, store::shownPath(path) + ": is no certificate in PEM"};
  }
  return Certificate{
      shownName(X509_get_subject_name(certificate.get())), shownName(X509_get_issuer_name(certificate.get())),
      shownTime(X509_get0_notBefore(certificate.get())), shownTime(X509_get0_notAfter(certificate.get()))};
}

void print(const char* title, const Certificate& certificate) {
  fmt::print("{:<21}{}, issued by {}\n{:<21}valid from {} to {}\n", title, certificate.subject, certificate.issuer, "",
             certificate.notBefore, certificate.notAfter);
}

void warn(const char* whose, const Certificate& certificate) {
  const std::time_t soon = std::time(nullptr) + std::time_t{kWarningDays} * 24 * 60 * 60;
  std::tm parts = {};
  gmtime_r(&soon, &parts);
  if (certificate.notAfter < shownTime(parts)) {
    complain(fmt::format("the {} certificate expires in less than {} days; renew it before {}", whose, kWarningDays,
                         certificate.notAfter));
  }
}

std::string shownVersions(const std::vector<kms::Version>& versions) {
  std::vector<std::string> texts;
  texts.reserve(versions.size());
  for (const kms::Version& version : versions) {
    texts.push_back(fmt::format("{}.{}", version.major, version.minor));
  }
  return fmt::format("{}", fmt::join(texts, ", "));
}

double milliseconds(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double, std::milli>(to - from).count();
}

}  // namespace

int checkServer(const std::string& home) {
  const auto settings = openServer(home);
  if (!settings.ok()) {
    return fail(settings.error());
  }
  const auto mine = readCertificate(settings.value().certificate);
  if (!mine.ok()) {
    return fail(mine.error());
  }
  const auto start = Clock::now();
  auto client = kms::Client::connect(settings.value());
  if (!client.ok()) {
    return fail(client.error());
  }
  const auto connected = Clock::now();
  if (const auto found = client.value().locate(1); !found.ok()) {
    return fail(found.error());
  }
  const auto answered = Clock::now();
  const kms::ServerInfo& server = client.value().server();
  const Certificate theirs{server.subject, server.issuer, server.notBefore, server.notAfter};
  fmt::print("{:<21}{}, port {}\n", "Server:", settings.value().host, settings.value().port);
  fmt::print("{:<21}KMIP {}.{} (offered: {}), {}\n", "Protocol:", server.version.major, server.version.minor,
             shownVersions(server.versions), server.tls);
  print("Server certificate:", theirs);
  print("Client certificate:", mine.value());
  fmt::print("{:<21}{:.1f} ms to connect and ask for versions, {:.1f} ms to look for keys\n",
             "Round trip:", milliseconds(start, connected), milliseconds(connected, answered));
  warn("server's", theirs);
  warn("client's", mine.value());
  return kSuccess;
}

}  // namespace admin
