// SPDX-License-Identifier: Apache-2.0
//
// The sealed form of a table's file.
//
//   offset  size  content
//   0       8     "KEZUSEAL"
//   8       2     format version, big-endian: 1
//   10      8     number of the master key, so that a file of another home is told from a damaged one
//   18      1     length n of the table's name
//   19      n     the table's name
//   19+n    12    nonce
//   31+n          the payload, encrypted with AES-256-GCM (NIST SP 800-38D); everything before it is authenticated with
//   it end-16  16    authentication tag
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cipher/secret.h"
#include "engine/store/result.h"

namespace engine::store {

inline constexpr unsigned kFormatVersion = 1;
inline constexpr std::size_t kMasterKeySize = 32;
inline constexpr std::size_t kKeyNumberSize = 8;

// Largest file of a table. A full table with texts at their limits takes about 7 MiB; query patterns have no fixed
// limit.
inline constexpr std::size_t kMaxFileSize = std::size_t{64} << 20;

// The keys of one table's file, derived from the master key by HKDF-SHA256 with a label each.
struct TableKeys {
  cipher::SecretArray<32> seal;                           // AES-256-GCM
  cipher::SecretArray<32> check;                          // HMAC-SHA256 of the file-check string
  std::array<unsigned char, kKeyNumberSize> number = {};  // tells master keys apart, and nothing about them
};

// The keys that a table's file may be sealed with: what is written has the current ones. The previous ones are there
// while a change of the master key is not finished.
struct TableKeyRing {
  TableKeys current;
  std::optional<TableKeys> previous;
};

// Derives the keys of a table. False when OpenSSL fails.
bool deriveTableKeys(TableKeys& keys, std::span<const unsigned char> masterKey, std::string_view table) noexcept;

// Seals a payload under a nonce of its own.
Result<std::vector<unsigned char>> sealPayload(std::span<const unsigned char> payload, std::string_view table,
                                               const TableKeys& keys);

// Opens what sealPayload() made. The error's text is the reason alone, to follow the file's name: not a sealed file, of
// a later format, of another table, of another master key, or damaged.
Result<cipher::SecretBytes> openPayload(std::span<const unsigned char> file, std::string_view table,
                                        const TableKeys& keys);

// File-check string of a payload: the first 30 hexadecimal digits of its HMAC-SHA256. Empty when OpenSSL fails.
std::string fileCheckString(std::span<const unsigned char> payload, const TableKeys& keys);

}  // namespace engine::store
