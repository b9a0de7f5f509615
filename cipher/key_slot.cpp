// SPDX-License-Identifier: Apache-2.0
//
// The slots that handles live in, and the pools of prepared keys.
//
// A slot's memory is never given back and only ever holds handles, so that a thread with an old handle reads a slot,
// whatever became of it. The generation number says what: it is odd while the slot holds a key, and grows by one
// whenever a key comes or goes. A user notes it first and checks it last. In between it may read the words of two
// different keys mixed, each of them atomically; the generation then differs at the end and nothing of what it computed
// is handed out.
//
// Order between a user and a wiper: the wiper advances the generation, then overwrites the words and takes every
// prepared key out of the pool. A user puts its prepared key back, then reads the generation, and takes everything out
// again when it moved. These four steps are sequentially consistent, so one of the two sees what the other did and no
// wiped key stays in a pool.
#include "cipher/key_slot.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <new>
#include <thread>
#include <type_traits>
#include <utility>

#include "cipher/hidden_memory.h"

namespace cipher {
namespace {

// What a slot holds while it is live.
struct KeyData {
  const Suite* suite;
  std::uint64_t bindingSize;
  unsigned char binding[kMaxBindingSize];
  KeyMaterial material;
};
static_assert(std::is_trivially_copyable_v<KeyData> && sizeof(KeyData) % sizeof(std::uint64_t) == 0);

constexpr std::size_t kDataWords = sizeof(KeyData) / sizeof(std::uint64_t);
constexpr std::size_t kBindingSizeWord = offsetof(KeyData, bindingSize) / sizeof(std::uint64_t);
constexpr std::size_t kBindingWord = offsetof(KeyData, binding) / sizeof(std::uint64_t);
static_assert(offsetof(KeyData, binding) % sizeof(std::uint64_t) == 0 && kMaxBindingSize % sizeof(std::uint64_t) == 0);

}  // namespace

// A prepared key, with the generation of the slot that it was prepared from.
struct PooledKey {
  std::uint64_t generation;
  PreparedKey key;
};

namespace {

// Entries lie on cache lines of their own: threads that work with one key do not slow each other down.
struct alignas(64) PoolEntry {
  std::atomic<PooledKey*> pooled{nullptr};
};

// Entries of a pool, a power of two: threads that are inside an operation at one moment are about as many as
// processors.
std::size_t poolSize() noexcept {
  static const std::size_t size = std::bit_ceil(std::clamp(std::thread::hardware_concurrency(), 8U, 256U));
  return size;
}

// Where the calling thread begins to look in every pool.
std::size_t threadEntry() noexcept {
  static std::atomic<std::size_t> threads{0};
  static thread_local const std::size_t mine = threads.fetch_add(1, std::memory_order_relaxed);
  return mine;
}

}  // namespace

class KeySlot : public _BCipherKey {
 public:
  KeySlot() noexcept : _BCipherKey{} {}

  // For the holder of the store's lock.
  [[nodiscard]] bool live() const noexcept { return generation_.load(std::memory_order_relaxed) % 2 != 0; }
  void fill(int algorithm, const KeyData& data) noexcept;
  void wipe() noexcept;
  void read(KeyData& data) const noexcept;

  // For any thread, without a lock.
  PooledKey* take() noexcept;
  [[nodiscard]] Binding binding() const noexcept {
    return {words_[kBindingSizeWord].load(std::memory_order_acquire), &words_[kBindingWord]};
  }
  bool giveBack(PooledKey* pooled) noexcept;

  // The store's.
  KeySlot* next = nullptr;  // in its list of free slots
  bool given = false;       // a caller owns the handle

 private:
  PooledKey* takePooled(std::uint64_t generation) noexcept;
  [[nodiscard]] PooledKey* prepare(std::uint64_t generation) const noexcept;
  PoolEntry* pool() noexcept;
  static bool put(PoolEntry* pool, PooledKey* pooled) noexcept;
  static void drain(PoolEntry* pool) noexcept;

  std::atomic<std::uint64_t> generation_{0};
  std::atomic<PoolEntry*> pool_{nullptr};  // made by the first session that gives a key back; the slot keeps it
  std::array<std::atomic<std::uint64_t>, kDataWords> words_{};
};

void KeySlot::fill(int algorithm, const KeyData& data) noexcept {
  std::uint64_t words[kDataWords];
  std::memcpy(words, &data, sizeof data);
  for (std::size_t i = 0; i < kDataWords; ++i) words_[i].store(words[i], std::memory_order_release);
  OPENSSL_cleanse(words, sizeof words);
  alg = algorithm;
  keyMat = reinterpret_cast<unsigned char*>(words_.data());
  keyMatLen = sizeof data;
  generation_.fetch_add(1);
}

void KeySlot::wipe() noexcept {
  if (!live()) return;
  generation_.fetch_add(1);
  for (auto& word : words_) word.store(0, std::memory_order_release);
  alg = 0;
  keyMat = nullptr;
  keyMatLen = 0;
  drain(pool_.load());
}

void KeySlot::read(KeyData& data) const noexcept {
  std::uint64_t words[kDataWords];
  for (std::size_t i = 0; i < kDataWords; ++i) words[i] = words_[i].load(std::memory_order_acquire);
  std::memcpy(&data, words, sizeof data);
  OPENSSL_cleanse(words, sizeof words);
}

PooledKey* KeySlot::take() noexcept {
  const std::uint64_t generation = generation_.load();
  if (generation % 2 == 0) return nullptr;
  PooledKey* pooled = takePooled(generation);
  return pooled != nullptr ? pooled : prepare(generation);
}

PooledKey* KeySlot::takePooled(std::uint64_t generation) noexcept {
  PoolEntry* entries = pool_.load(std::memory_order_acquire);
  if (entries == nullptr) return nullptr;
  const std::size_t first = threadEntry();
  const std::size_t size = poolSize();
  for (std::size_t i = 0; i < size; ++i) {
    auto& entry = entries[(first + i) & (size - 1)].pooled;
    if (entry.load(std::memory_order_relaxed) == nullptr) continue;
    PooledKey* pooled = entry.exchange(nullptr);
    if (pooled == nullptr) continue;
    if (pooled->generation == generation) return pooled;
    delete pooled;
  }
  return nullptr;
}

PooledKey* KeySlot::prepare(std::uint64_t generation) const noexcept {
  KeyData data;
  read(data);
  PooledKey* pooled = generation_.load() == generation
                          ? new (std::nothrow) PooledKey{generation, PreparedKey(*data.suite, data.material)}
                          : nullptr;
  OPENSSL_cleanse(&data, sizeof data);
  return pooled;
}

PoolEntry* KeySlot::pool() noexcept {
  PoolEntry* entries = pool_.load(std::memory_order_acquire);
  if (entries != nullptr) return entries;
  auto* made = new (std::nothrow) PoolEntry[poolSize()];
  if (made == nullptr || pool_.compare_exchange_strong(entries, made)) return made;
  delete[] made;
  return entries;
}

bool KeySlot::put(PoolEntry* pool, PooledKey* pooled) noexcept {
  const std::size_t first = threadEntry();
  const std::size_t size = poolSize();
  for (std::size_t i = 0; i < size; ++i) {
    PooledKey* none = nullptr;
    if (pool[(first + i) & (size - 1)].pooled.compare_exchange_strong(none, pooled)) return true;
  }
  return false;
}

void KeySlot::drain(PoolEntry* pool) noexcept {
  if (pool == nullptr) return;
  for (std::size_t i = 0; i < poolSize(); ++i) delete pool[i].pooled.exchange(nullptr);
}

bool KeySlot::giveBack(PooledKey* pooled) noexcept {
  const std::uint64_t generation = pooled->generation;
  PoolEntry* entries = generation_.load() == generation ? pool() : nullptr;
  if (entries == nullptr || !put(entries, pooled)) delete pooled;
  if (generation_.load() == generation) return true;
  drain(pool_.load());
  return false;
}

namespace {

// Every slot there is, and which of them are free. Slots are made in chunks and stay.
class SlotStore {
 public:
  BCipherKey make(int algorithm, const KeyData& data) noexcept {
    const std::lock_guard lock(mutex_);
    return fillFree(algorithm, data);
  }

  BCipherKey duplicate(const KeySlot& slot) noexcept {
    const std::lock_guard lock(mutex_);
    if (!slot.live()) return nullptr;
    KeyData data;
    slot.read(data);
    BCipherKey copy = fillFree(slot.alg, data);
    OPENSSL_cleanse(&data, sizeof data);
    return copy;
  }

  void wipe(KeySlot& slot) noexcept {
    const std::lock_guard lock(mutex_);
    slot.wipe();
  }

  void remove(KeySlot& slot) noexcept {
    const std::lock_guard lock(mutex_);
    if (!slot.given) return;
    slot.wipe();
    slot.given = false;
    addFree(slot);
  }

 private:
  struct Chunk {
    KeySlot slots[64];
    Chunk* next = nullptr;
  };

  BCipherKey fillFree(int algorithm, const KeyData& data) noexcept {
    if (firstFree_ == nullptr && !addChunk()) return nullptr;
    KeySlot* slot = firstFree_;
    firstFree_ = slot->next;
    slot->next = nullptr;
    slot->given = true;
    slot->fill(algorithm, data);
    return slot;
  }

  bool addChunk() noexcept {
    void* const memory = allocateHidden(sizeof(Chunk));
    if (memory == nullptr) return false;
    auto* chunk = new (memory) Chunk;
    chunk->next = chunks_;
    chunks_ = chunk;
    for (KeySlot& slot : chunk->slots) addFree(slot);
    return true;
  }

  // To the end, so that a slot rests as long as possible before it is another handle.
  void addFree(KeySlot& slot) noexcept {
    (firstFree_ == nullptr ? firstFree_ : lastFree_->next) = &slot;
    lastFree_ = &slot;
  }

  std::mutex mutex_;
  Chunk* chunks_ = nullptr;
  KeySlot* firstFree_ = nullptr;
  KeySlot* lastFree_ = nullptr;
};

// Kept until the process ends, for threads that still encrypt then. In static memory, so that it cannot fail to be
// there.
SlotStore& store() noexcept {
  alignas(SlotStore) static unsigned char memory[sizeof(SlotStore)];
  static auto* const made = new (memory) SlotStore;
  return *made;
}

KeySlot& slotOf(BCipherKey key) noexcept {
  return *static_cast<KeySlot*>(key);
}

}  // namespace

BCipherKey makeKey(int algorithm, const Suite* suite, const KeyMaterial& material, Bytes binding) noexcept {
  if (suite == nullptr || binding.size() > kMaxBindingSize) return nullptr;
  KeyData data{suite, binding.size(), {}, material};
  std::copy(binding.begin(), binding.end(), data.binding);
  BCipherKey key = store().make(algorithm, data);
  OPENSSL_cleanse(&data, sizeof data);
  return key;
}

Session::Session(BCipherKey key) noexcept
    : slot_(key == nullptr ? nullptr : &slotOf(key)), pooled_(slot_ == nullptr ? nullptr : slot_->take()) {}

PreparedKey& Session::key() noexcept {
  return pooled_->key;
}

Binding Session::binding() const noexcept {
  return slot_->binding();
}

bool Session::finish() noexcept {
  PooledKey* pooled = std::exchange(pooled_, nullptr);
  return pooled != nullptr && slot_->giveBack(pooled);
}

}  // namespace cipher

extern "C" {

BCipherKey BCIPHER_DupKey(BCipherKey key) {
  return key == nullptr ? nullptr : cipher::store().duplicate(cipher::slotOf(key));
}

void BCIPHER_WipeKey(BCipherKey key) {
  if (key != nullptr) cipher::store().wipe(cipher::slotOf(key));
}

void BCIPHER_DelKey(BCipherKey key) {
  if (key != nullptr) cipher::store().remove(cipher::slotOf(key));
}

}  // extern "C"
