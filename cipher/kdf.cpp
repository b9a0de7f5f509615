// SPDX-License-Identifier: Apache-2.0
#include "cipher/kdf.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/params.h>
#include <openssl/rand.h>

#include <memory>

#include "cipher/digest.h"
#include "cipher/library.h"

namespace cipher {
namespace {

struct KdfDeleter {
  void operator()(EVP_KDF_CTX* ctx) const noexcept { EVP_KDF_CTX_free(ctx); }
};

// HKDF, fetched once.
EVP_KDF* hkdf() noexcept {
  static EVP_KDF* const fetched =
      libraryContext() == nullptr ? nullptr : EVP_KDF_fetch(libraryContext(), OSSL_KDF_NAME_HKDF, nullptr);
  return fetched;
}

bool derive(std::span<unsigned char> out, std::span<const unsigned char> key, std::string_view label) noexcept {
  std::unique_ptr<EVP_KDF_CTX, KdfDeleter> ctx(hkdf() == nullptr ? nullptr : EVP_KDF_CTX_new(hkdf()));
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
  forgetErrors();
  OPENSSL_cleanse(out.data(), out.size());
  return false;
}

bool hmacSha256(std::span<unsigned char, kSha256Size> out, std::span<const unsigned char> key,
                std::span<const unsigned char> data) noexcept {
  return HmacOf<Sha256>(key).compute(out.data(), {&data, 1});
}

bool randomBytes(std::span<unsigned char> out) noexcept {
  if (libraryContext() != nullptr && RAND_priv_bytes_ex(libraryContext(), out.data(), out.size(), 0) == 1) {
    return true;
  }
  forgetErrors();
  OPENSSL_cleanse(out.data(), out.size());
  return false;
}

}  // namespace cipher
