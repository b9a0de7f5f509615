// SPDX-License-Identifier: Apache-2.0
//
// The cipher library's own OpenSSL library context.
#pragma once

#include <openssl/types.h>

namespace cipher {

// The context holds the "default" provider, and "legacy" for SEED where the system has it. It reads no configuration
// file, so what the server configures for its own connections neither reaches the ciphers here nor is changed by them.
// It is made on first use and kept until the process ends: other threads may encrypt up to the last moment. Null when
// OpenSSL cannot make it; nothing is encrypted then.
OSSL_LIB_CTX* libraryContext() noexcept;

// Empties the calling thread's OpenSSL error queue after a failure here. An entry left behind would be taken for a
// failure of the next operation on the server's own encrypted connection, which the same thread serves.
void forgetErrors() noexcept;

}  // namespace cipher
