// SPDX-License-Identifier: Apache-2.0
//
// Digests and keyed digests over libcrypto's SHA functions and librhash's HAS-160.
#define OPENSSL_SUPPRESS_DEPRECATED  // the SHA functions: see digest.h for why they are used
#include "cipher/digest.h"

#include <openssl/crypto.h>
#include <rhash.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace cipher {
namespace {

constexpr unsigned char kInnerPad = 0x36;  // RFC 2104, section 2
constexpr unsigned char kOuterPad = 0x5c;
constexpr std::size_t kHas160Size = 20;

// The calling thread's HAS-160 digest. librhash allocates a context for each digest that it starts; this one is started
// once and reset.
class Has160 {
 public:
  Has160() noexcept {
    static const bool ready = (rhash_library_init(), true);
    context_ = ready ? rhash_init(RHASH_HAS160) : nullptr;
  }
  Has160(const Has160&) = delete;
  Has160& operator=(const Has160&) = delete;
  ~Has160() {
    if (context_ != nullptr) rhash_free(context_);
  }

  static Has160& ofThread() noexcept {
    static thread_local Has160 instance;
    return instance;
  }

  bool start() noexcept {
    if (context_ == nullptr) return false;
    rhash_reset(context_);
    return true;
  }
  void update(Bytes data) noexcept { rhash_update(context_, data.data(), data.size()); }
  void final(unsigned char* out) noexcept {
    rhash_final(context_, out);
    wipe();
  }

 private:
  // librhash keeps the last block of what it hashed. A block of zeros, in two pieces so that it goes through that
  // buffer, overwrites it.
  void wipe() noexcept {
    static constexpr std::array<unsigned char, HmacHas160::kBlock> kZeros{};
    rhash_reset(context_);
    rhash_update(context_, kZeros.data(), 1);
    rhash_update(context_, kZeros.data(), kZeros.size() - 1);
  }

  rhash context_ = nullptr;
};

bool has160(unsigned char* out, Bytes data) noexcept {
  Has160& state = Has160::ofThread();
  if (!state.start()) {
    OPENSSL_cleanse(out, kHas160Size);
    return false;
  }
  state.update(data);
  state.final(out);
  return true;
}

template <typename Hash>
bool hashOnce(unsigned char* out, Bytes data) noexcept {
  typename Hash::Context context;
  Hash::init(context);
  Hash::update(context, data);
  Hash::final(context, out);
  OPENSSL_cleanse(&context, sizeof context);
  return true;
}

// Short parts are put together first: a call for each of a few bytes costs more than copying them.
template <typename Hash>
void updateAll(typename Hash::Context& context, std::span<const Bytes> parts) noexcept {
  unsigned char together[128];
  std::size_t size = 0;
  std::size_t most = 0;
  for (const Bytes part : parts) {
    if (parts.size() == 1 || part.size() > sizeof together - size) {
      Hash::update(context, {together, size});
      Hash::update(context, part);
      size = 0;
    } else {
      std::copy(part.begin(), part.end(), together + size);
      size += part.size();
      most = std::max(most, size);
    }
  }
  Hash::update(context, {together, size});
  OPENSSL_cleanse(together, most);
}

// The key as RFC 2104 has it: hashed where it is longer than a block, then padded with zeros.
template <std::size_t Block>
bool keyBlock(SecretArray<Block>& block, Bytes key, bool (*hash)(unsigned char*, Bytes) noexcept) noexcept {
  if (key.size() > Block) return hash(block.bytes, key);
  std::copy(key.begin(), key.end(), block.bytes);
  return true;
}

template <std::size_t Block>
void padBlock(SecretArray<Block>& padded, const unsigned char (&key)[Block], unsigned char pad) noexcept {
  std::transform(std::begin(key), std::end(key), std::begin(padded.bytes),
                 [pad](unsigned char byte) { return static_cast<unsigned char>(byte ^ pad); });
}

}  // namespace

bool Sha1::init(Context& context) noexcept {
  return SHA1_Init(&context) == 1;
}
void Sha1::update(Context& context, Bytes data) noexcept {
  SHA1_Update(&context, data.data(), data.size());
}
void Sha1::final(Context& context, unsigned char* out) noexcept {
  SHA1_Final(out, &context);
}

bool Sha256::init(Context& context) noexcept {
  return SHA256_Init(&context) == 1;
}
void Sha256::update(Context& context, Bytes data) noexcept {
  SHA256_Update(&context, data.data(), data.size());
}
void Sha256::final(Context& context, unsigned char* out) noexcept {
  SHA256_Final(out, &context);
}

bool Sha512::init(Context& context) noexcept {
  return SHA512_Init(&context) == 1;
}
void Sha512::update(Context& context, Bytes data) noexcept {
  SHA512_Update(&context, data.data(), data.size());
}
void Sha512::final(Context& context, unsigned char* out) noexcept {
  SHA512_Final(out, &context);
}

bool digest(Digest algorithm, unsigned char* out, Bytes data) noexcept {
  switch (algorithm) {
    case Digest::kSha1:
      return hashOnce<Sha1>(out, data);
    case Digest::kSha256:
      return hashOnce<Sha256>(out, data);
    case Digest::kSha512:
      return hashOnce<Sha512>(out, data);
    case Digest::kHas160:
      return has160(out, data);
  }
  return false;
}

template <typename Hash>
HmacOf<Hash>::HmacOf(Bytes key) noexcept {
  SecretArray<Hash::kBlock> block;
  SecretArray<Hash::kBlock> padded;
  keyBlock(block, key, hashOnce<Hash>);
  padBlock(padded, block.bytes, kInnerPad);
  Hash::init(inner_);
  Hash::update(inner_, padded.bytes);
  padBlock(padded, block.bytes, kOuterPad);
  Hash::init(outer_);
  Hash::update(outer_, padded.bytes);
}

template <typename Hash>
HmacOf<Hash>::~HmacOf() {
  OPENSSL_cleanse(&inner_, sizeof inner_);
  OPENSSL_cleanse(&outer_, sizeof outer_);
}

template <typename Hash>
bool HmacOf<Hash>::compute(unsigned char* out, std::span<const Bytes> parts) const noexcept {
  typename Hash::Context context = inner_;
  updateAll<Hash>(context, parts);
  Hash::final(context, out);
  context = outer_;
  Hash::update(context, {out, Hash::kSize});
  Hash::final(context, out);
  OPENSSL_cleanse(&context, sizeof context);
  return true;
}

template class HmacOf<Sha1>;
template class HmacOf<Sha256>;
template class HmacOf<Sha512>;

HmacHas160::HmacHas160(Bytes key) noexcept : usable_(keyBlock(key_, key, has160)) {}

bool HmacHas160::round(unsigned char* out, unsigned char pad, std::span<const Bytes> parts) const noexcept {
  Has160& state = Has160::ofThread();
  if (!usable_ || !state.start()) {
    OPENSSL_cleanse(out, kHas160Size);
    return false;
  }
  SecretArray<kBlock> padded;
  padBlock(padded, key_.bytes, pad);
  state.update(padded.bytes);
  for (const Bytes part : parts) state.update(part);
  state.final(out);
  return true;
}

bool HmacHas160::compute(unsigned char* out, std::span<const Bytes> parts) const noexcept {
  SecretArray<kHas160Size> inner;
  const Bytes innerDigest = inner.bytes;
  return round(inner.bytes, kInnerPad, parts) && round(out, kOuterPad, {&innerDigest, 1});
}

// The states' constructors do not throw, so neither does emplace().
// NOLINTNEXTLINE(bugprone-exception-escape)
Hmac::Hmac(Digest algorithm, Bytes key) noexcept : algorithm_(algorithm) {
  switch (algorithm) {
    case Digest::kSha1:
      state_.emplace<HmacOf<Sha1>>(key);
      break;
    case Digest::kSha256:
      state_.emplace<HmacOf<Sha256>>(key);
      break;
    case Digest::kSha512:
      state_.emplace<HmacOf<Sha512>>(key);
      break;
    case Digest::kHas160:
      state_.emplace<HmacHas160>(key);
      break;
  }
}

bool Hmac::compute(unsigned char* out, std::span<const Bytes> parts) const noexcept {
  if (const auto* sha256 = std::get_if<HmacOf<Sha256>>(&state_)) return sha256->compute(out, parts);
  if (const auto* sha512 = std::get_if<HmacOf<Sha512>>(&state_)) return sha512->compute(out, parts);
  if (const auto* sha1 = std::get_if<HmacOf<Sha1>>(&state_)) return sha1->compute(out, parts);
  if (const auto* keyed = std::get_if<HmacHas160>(&state_)) return keyed->compute(out, parts);
  return false;
}

}  // namespace cipher
