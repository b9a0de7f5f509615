// SPDX-License-Identifier: Apache-2.0
//
// The random-number and processor operations of the cipher library's interface.
#include "bcipher/randhash.h"

#include <cstring>

#include "bcipher/bcipher.h"
#include "cipher/kdf.h"

namespace {
constexpr unsigned int kReady = 0x52414e44;  // a context that holds anything else was not prepared
}

extern "C" {

int RANDHASH_Initialize(RANDHASH_CTX* ctx) {
  if (ctx == nullptr) return 1;
  ctx->ready = kReady;
  return 0;
}

int RANDHASH_GetRandomNum(unsigned char* buffer, unsigned int length, RANDHASH_CTX* ctx) {
  if (length == 0) return ctx != nullptr && ctx->ready == kReady ? 0 : 1;
  if (buffer == nullptr) return 1;
  if (ctx != nullptr && ctx->ready == kReady && cipher::randomBytes({buffer, length})) return 0;
  std::memset(buffer, 0, length);
  return 1;
}

int Check_CPU_support_AES() {
  static const bool supported = (__builtin_cpu_init(), __builtin_cpu_supports("aes") != 0);
  return supported ? 1 : 0;
}

}  // extern "C"
