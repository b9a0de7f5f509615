// SPDX-License-Identifier: Apache-2.0
#include "cipher/kdf.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/kdf.h>
#include <openssl/params.h>
#include <openssl/rand.h>

#include <climits>
#include <memory>

namespace cipher {
namespace {

struct KdfDeleter {
  void operator()(EVP_KDF* kdf) const noexcept { EVP_KDF_free(kdf); }
  void operator()(EVP_KDF_CTX* ctx) const noexcept { EVP_KDF_CTX_free(ctx); }
};

bool derive(std::span<unsigned char> out, std::span<const unsigned char> key, std::string_view label) noexcept {
  std::unique_ptr<EVP_KDF, KdfDeleter> kdf(EVP_KDF_fetch(nullptr, OSSL_KDF_NAME_HKDF, nullptr));
  std::unique_ptr<EVP_KDF_CTX, KdfDeleter> ctx(kdf ? EVP_KDF_CTX_new(kdf.get()) : nullptr);
  if (!ctx) {
    return false;
  }
  char digest[] = "SHA256";
  OSSL_PARAM params[] = {
      OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, const_cast<unsigned char*>(key.data()), key.size()),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, const_cast<char*>(label.data()), label.size()),
      OSSL_PARAM_construct_end(),
  };
  return EVP_KDF_derive(ctx.get(), out.data(), out.size(), params) == 1;
}

}  // namespace

bool hkdfSha256(std::span<unsigned char> out, std::span<const unsigned char> key, std::string_view label) noexcept {
  if (derive(out, key, label)) {
    return true;
  }
  OPENSSL_cleanse(out.data(), out.size());
  return false;
}

bool hmacSha256(std::span<unsigned char, kSha256Size> out, std::span<const unsigned char> key,
                std::span<const unsigned char> data) noexcept {
  unsigned int length = 0;
  if (key.size() <= INT_MAX && HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), data.data(), data.size(),
                                    out.data(), &length) != nullptr) {
    return true;
  }
  OPENSSL_cleanse(out.data(), out.size());
  return false;
}

bool randomBytes(std::span<unsigned char> out) noexcept {
  if (out.size() <= INT_MAX && RAND_bytes(out.data(), static_cast<int>(out.size())) == 1) {
    return true;
  }
  OPENSSL_cleanse(out.data(), out.size());
  return false;
}

}  // namespace cipher
