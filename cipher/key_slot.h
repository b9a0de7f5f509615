// SPDX-License-Identifier: Apache-2.0
//
// Key handles: made from a suite, key material and a binding, used through a Session.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "bcipher/bcipher.h"
#include "cipher/digest.h"
#include "cipher/prepared_key.h"
#include "cipher/suite.h"

namespace cipher {

inline constexpr std::size_t kMaxBindingSize = 136;  // bytes that a handle can be bound to

// A new handle for `suite` (one of findSuite's) with a copy of `material`, bound to `binding`: at most kMaxBindingSize
// bytes that say what the key was made for, and that whoever uses the handle has to present. `algorithm` goes into the
// handle's field of that name. Null for a null suite, a binding that is too long, or when memory runs out. The caller
// owns the handle (BCIPHER_WipeKey, then BCIPHER_DelKey). May be called from any thread.
BCipherKey makeKey(int algorithm, const Suite* suite, const KeyMaterial& material, Bytes binding) noexcept;

class KeySlot;
struct PooledKey;

// The bytes that a handle is bound to, read where the handle keeps them. Another thread may be putting others there:
// what was read counts only when the session's finish() says so.
class Binding {
 public:
  Binding(std::size_t size, const std::atomic<std::uint64_t>* words) noexcept : size_(size), words_(words) {}

  // Bytes, at most kMaxBindingSize.
  [[nodiscard]] std::size_t size() const noexcept { return size_; }

  // The eight bytes from 8 * index on as they lie in memory, zeros past the end. `index` is below kMaxBindingSize / 8.
  [[nodiscard]] std::uint64_t word(std::size_t index) const noexcept {
    return words_[index].load(std::memory_order_acquire);
  }

 private:
  std::size_t size_;
  const std::atomic<std::uint64_t>* words_;
};

// One operation with a handle. Any thread may wipe, delete or make anew the handle meanwhile; finish() tells.
//
// A handle keeps the keys that were prepared from it in a small pool, from which a session takes one without a lock.
// Only the first sessions prepare keys: there come to be as many as threads work with the handle at one moment, up to
// one a processor (at least 8).
class Session {
 public:
  // Takes a prepared key when the handle lives and is bound to what the caller presents: matches(Bytes binding)
  // compares the two, in constant time, and returns whether they are equal.
  template <typename Matches>
  Session(BCipherKey key, const Matches& matches) noexcept : Session(key) {
    if (pooled_ != nullptr && !matches(binding())) finish();
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  ~Session() {
    if (pooled_ != nullptr) finish();
  }

  // Whether there is a key to work with: false for a null handle, one that was wiped or deleted, one with another
  // binding, and when memory ran out.
  explicit operator bool() const noexcept { return pooled_ != nullptr; }

  // The key. Only while the session is true.
  PreparedKey& key() noexcept;

  // Gives the prepared key back and ends the session. Returns whether the handle is still what it was at the beginning:
  // only then may what was computed be handed out. False as well for a session that had no key or was ended already.
  bool finish() noexcept;

 private:
  explicit Session(BCipherKey key) noexcept;
  [[nodiscard]] Binding binding() const noexcept;

  KeySlot* slot_;
  PooledKey* pooled_ = nullptr;
};

}  // namespace cipher
