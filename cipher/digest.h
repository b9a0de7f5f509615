// SPDX-License-Identifier: Apache-2.0
//
// Digests and keyed digests of values, prepared so that one of a short value costs little more than its compressions.
#pragma once

#include <openssl/sha.h>

#include <cstddef>
#include <span>
#include <variant>

#include "cipher/secret.h"

namespace cipher {

using Bytes = std::span<const unsigned char>;

// Digest identifiers, as callers of the engine use them.
enum class Digest : int {
  kSha1 = 1,    // FIPS 180-4
  kSha256 = 2,  // FIPS 180-4
  kSha512 = 3,  // FIPS 180-4
  kHas160 = 4,  // TTAS.KO-12.0011/R2
};

inline constexpr std::size_t kMaxDigestSize = 64;  // bytes of the longest digest

// Whether an identifier is one of the above.
constexpr bool isDigest(int identifier) noexcept {
  return identifier >= 1 && identifier <= 4;
}

// Bytes of a digest: 20, 32, 64 or 20.
constexpr std::size_t digestSize(Digest digest) noexcept {
  switch (digest) {
    case Digest::kSha256:
      return 32;
    case Digest::kSha512:
      return 64;
    default:
      return 20;
  }
}

// The digest of `data` into `out`, which holds digestSize() bytes. False, with `out` wiped, when the library has no
// memory for the thread's first HAS-160 digest.
bool digest(Digest algorithm, unsigned char* out, Bytes data) noexcept;

// The hash functions as the templates below use them: a context that is copied by value, with init, update and final.
//
// SHA-1 and SHA-2 go through libcrypto's SHAxxx_* functions: their state is plain memory, so a keyed state is copied
// per value (114 ns for an HMAC-SHA256 of 44 bytes), where OpenSSL's EVP interfaces allocate for each copy (205 ns by
// EVP_MD_CTX_copy_ex, 243 ns by EVP_MAC_init without a key).
struct Sha1 {
  using Context = SHA_CTX;
  static constexpr std::size_t kSize = 20;
  static constexpr std::size_t kBlock = 64;
  static bool init(Context& context) noexcept;
  static void update(Context& context, Bytes data) noexcept;
  static void final(Context& context, unsigned char* out) noexcept;
};
struct Sha256 {
  using Context = SHA256_CTX;
  static constexpr std::size_t kSize = 32;
  static constexpr std::size_t kBlock = 64;
  static bool init(Context& context) noexcept;
  static void update(Context& context, Bytes data) noexcept;
  static void final(Context& context, unsigned char* out) noexcept;
};
struct Sha512 {
  using Context = SHA512_CTX;
  static constexpr std::size_t kSize = 64;
  static constexpr std::size_t kBlock = 128;
  static bool init(Context& context) noexcept;
  static void update(Context& context, Bytes data) noexcept;
  static void final(Context& context, unsigned char* out) noexcept;
};

// HMAC (RFC 2104) under a key that was taken in once. Immutable after construction; wiped when it goes.
template <typename Hash>
class HmacOf {
 public:
  // A key of any length; one longer than the hash's block is hashed first.
  explicit HmacOf(Bytes key) noexcept;
  HmacOf(const HmacOf&) = delete;
  HmacOf& operator=(const HmacOf&) = delete;
  ~HmacOf();

  // The code of the parts, one after the other, into `out`, which holds Hash::kSize bytes.
  bool compute(unsigned char* out, std::span<const Bytes> parts) const noexcept;

 private:
  typename Hash::Context inner_;
  typename Hash::Context outer_;
};
extern template class HmacOf<Sha1>;
extern template class HmacOf<Sha256>;
extern template class HmacOf<Sha512>;

// HMAC with HAS-160 over librhash, whose states cannot be copied: the key's two blocks are compressed again for each
// value.
class HmacHas160 {
 public:
  static constexpr std::size_t kBlock = 64;

  explicit HmacHas160(Bytes key) noexcept;
  HmacHas160(const HmacHas160&) = delete;
  HmacHas160& operator=(const HmacHas160&) = delete;

  // As HmacOf::compute, 20 bytes. False, with `out` wiped, when the thread's first digest finds no memory.
  bool compute(unsigned char* out, std::span<const Bytes> parts) const noexcept;

 private:
  bool round(unsigned char* out, unsigned char pad, std::span<const Bytes> parts) const noexcept;

  SecretArray<kBlock> key_;
  bool usable_ = true;
};

// HMAC with a digest chosen at run time.
class Hmac {
 public:
  // The states' constructors do not throw, so neither does choosing one of them.
  // NOLINTNEXTLINE(bugprone-exception-escape)
  Hmac(Digest algorithm, Bytes key) noexcept;

  [[nodiscard]] Digest algorithm() const noexcept { return algorithm_; }

  // The code of the parts, one after the other, into `out`, which holds digestSize(algorithm()) bytes. False, with
  // `out` wiped, on failure.
  bool compute(unsigned char* out, std::span<const Bytes> parts) const noexcept;

 private:
  Digest algorithm_;
  std::variant<std::monostate, HmacOf<Sha1>, HmacOf<Sha256>, HmacOf<Sha512>, HmacHas160> state_;
};

}  // namespace cipher
