// SPDX-License-Identifier: Apache-2.0
//
// Key derivation and one-shot message authentication.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

namespace cipher {

inline constexpr std::size_t kSha256Size = 32;

// HKDF-SHA256 (RFC 5869) with an empty salt: fills `out` (at most 8160 bytes) from `key`, separated by `label` (the
// info input). Returns false, with `out` wiped, when OpenSSL fails.
bool hkdfSha256(std::span<unsigned char> out, std::span<const unsigned char> key, std::string_view label) noexcept;

// HMAC-SHA256 (RFC 2104) of `data`. Always succeeds.
bool hmacSha256(std::span<unsigned char, kSha256Size> out, std::span<const unsigned char> key,
                std::span<const unsigned char> data) noexcept;

// Fills `out` with random bytes from OpenSSL's generator for secrets, seeded by the operating system. Returns false,
// with `out` wiped, when it fails.
bool randomBytes(std::span<unsigned char> out) noexcept;

}  // namespace cipher
