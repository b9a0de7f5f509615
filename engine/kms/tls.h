// SPDX-License-Identifier: Apache-2.0
//
// What TLS to the key management server needs, made from the files that the settings name.
#pragma once

#include <openssl/types.h>

#include <memory>

#include "engine/store/kms_settings.h"
#include "engine/store/result.h"

namespace engine::kms {

struct FreeContext {
  void operator()(SSL_CTX* context) const noexcept;
};
using TlsContext = std::unique_ptr<SSL_CTX, FreeContext>;

// A context for connections to the server: TLS 1.2 or later, the configured authorities and no others, the client's
// certificate and key. The error names the file.
store::Result<TlsContext> makeTlsContext(const store::KmsSettings& settings);

// Has a connection check that the server's certificate is issued for the host. False when OpenSSL has no memory.
bool expectHost(SSL* ssl, const std::string& host) noexcept;

}  // namespace engine::kms
