// SPDX-License-Identifier: Apache-2.0
//
// The cipher library's own OpenSSL library context.
#include "cipher/library.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/provider.h>

namespace cipher {
namespace {

OSSL_LIB_CTX* open() noexcept {
  OSSL_LIB_CTX* context = OSSL_LIB_CTX_new();
  if (context == nullptr || OSSL_PROVIDER_load(context, "default") == nullptr) {
    OSSL_LIB_CTX_free(context);
    context = nullptr;
  } else {
    OSSL_PROVIDER_load(context, "legacy");  // without it SEED is not offered
  }
  forgetErrors();
  return context;
}

}  // namespace

OSSL_LIB_CTX* libraryContext() noexcept {
  static OSSL_LIB_CTX* const context = open();
  return context;
}

void forgetErrors() noexcept {
  ERR_clear_error();
}

}  // namespace cipher
