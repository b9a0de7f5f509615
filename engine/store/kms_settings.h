// SPDX-License-Identifier: Apache-2.0
//
// What kezu.toml says about the key management server.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace engine::store {

inline constexpr int kKmsPort = 5696;  // registered for KMIP
inline constexpr std::chrono::milliseconds kKmsConnectTimeout{3000};
inline constexpr std::chrono::milliseconds kKmsReadTimeout{5000};
inline constexpr std::chrono::milliseconds kKmsShortestTimeout{10};
inline constexpr std::chrono::milliseconds kKmsLongestTimeout{3600 * 1000};
inline constexpr std::size_t kKmsMaxObjectGroup = 255;  // bytes

// [kms] of kezu.toml. The files are PEM, their paths absolute here.
struct KmsSettings {
  std::string host;         // name or address, without port; the server's certificate must be issued for it
  int port = kKmsPort;      // 1 to 65535
  std::string ca;           // certificates of the authorities that may have issued the server's
  std::string certificate;  // this client's certificate, perhaps with those that lead to its authority after it
  std::string key;          // its private key, without a password, closed to group and others
  std::chrono::milliseconds connectTimeout = kKmsConnectTimeout;  // for TCP and TLS together
  std::chrono::milliseconds readTimeout = kKmsReadTimeout;        // for one request and the whole of its answer
  std::string objectGroup;  // policies are looked for in this Object Group alone; empty for no such filter
};

}  // namespace engine::store
