// SPDX-License-Identifier: Apache-2.0
//
// Access to the engine's tables from several threads at once. The tables are plain memory without a lock; these
// operations make each access to a word of them atomic, so that a reader never sees half of a word, and a count
// published before a flag is seen by whoever sees the flag. On x86-64 each compiles to plain moves.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace kezu {

// Reads what another thread published with publish(): everything written before it is visible afterwards.
template <typename T>
T observe(const T& shared) noexcept {
  return std::atomic_ref<T>(const_cast<T&>(shared)).load(std::memory_order_acquire);
}

// Stores `value` after everything written before.
template <typename T>
void publish(T& shared, T value) noexcept {
  std::atomic_ref<T>(shared).store(value, std::memory_order_release);
}

// Makes a slot of the policy table, which holds `count` policies, the active one. The count goes before the flag, so
// that whoever sees the new flag sees the new count.
template <std::size_t Slots>
void publishSlot(int (&counts)[Slots], int& flag, int slot, int count) noexcept {
  publish(counts[slot], count);
  publish(flag, slot);
}

namespace detail {

template <std::size_t Alignment>
using Word = std::conditional_t<Alignment % 8 == 0, std::uint64_t,
                                std::conditional_t<Alignment % 4 == 0, std::uint32_t, unsigned char>>;

template <typename T>
inline constexpr std::size_t kWords = sizeof(T) / sizeof(Word<alignof(T)>);

template <typename T>
Word<alignof(T)>* words(T& record) noexcept {
  static_assert(std::is_trivially_copyable_v<T>);
  return reinterpret_cast<Word<alignof(T)>*>(&record);
}

}  // namespace detail

// Copies a record of a table into memory of the caller's, word by word. The copy may mix two versions of the record
// when another thread stores it meanwhile; no word of it is torn.
template <typename T>
void loadRecord(T& own, const T& shared) noexcept {
  auto* to = detail::words(own);
  auto* from = detail::words(const_cast<T&>(shared));
  for (std::size_t i = 0; i < detail::kWords<T>; ++i) {
    to[i] = std::atomic_ref(from[i]).load(std::memory_order_relaxed);
  }
}

// Stores a record of the caller's into a table, word by word.
template <typename T>
void storeRecord(T& shared, const T& own) noexcept {
  auto* to = detail::words(shared);
  auto* from = detail::words(const_cast<T&>(own));
  for (std::size_t i = 0; i < detail::kWords<T>; ++i) {
    std::atomic_ref(to[i]).store(from[i], std::memory_order_relaxed);
  }
}

// Zeroes a record of a table.
template <typename T>
void clearRecord(T& shared) noexcept {
  auto* to = detail::words(shared);
  for (std::size_t i = 0; i < detail::kWords<T>; ++i) {
    std::atomic_ref(to[i]).store(0, std::memory_order_relaxed);
  }
}

// Whether a zero-terminated text field of a table equals `text`. A text with an embedded zero, or one that does not fit
// the field, equals none. For texts that are no secret: the time depends on where they differ.
template <std::size_t N>
bool fieldEquals(const char (&field)[N], std::string_view text) noexcept {
  if (text.size() >= N) {
    return false;
  }
  auto at = [&field](std::size_t i) {
    return std::atomic_ref(const_cast<char&>(field[i])).load(std::memory_order_relaxed);
  };
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\0' || at(i) != text[i]) {
      return false;
    }
  }
  return at(text.size()) == '\0';
}

// The text of a zero-terminated text field of a table, in place: what it points to may become another text, never one
// that is longer than the field.
template <std::size_t N>
std::string_view fieldText(const char (&field)[N]) noexcept {
  std::size_t length = 0;
  while (length < N && std::atomic_ref(const_cast<char&>(field[length])).load(std::memory_order_relaxed) != '\0') {
    ++length;
  }
  return {field, length};
}

// Whether `text` can be stored in a field: it leaves room for the terminating zero and has none inside.
template <std::size_t N>
bool fieldHolds(const char (&)[N], std::string_view text) noexcept {
  return text.size() < N && text.find('\0') == std::string_view::npos;
}

// Stores a text that fieldHolds() into a field, and zeroes the rest of it.
template <std::size_t N>
void storeField(char (&field)[N], std::string_view text) noexcept {
  for (std::size_t i = 0; i < N; ++i) {
    std::atomic_ref(field[i]).store(i < text.size() ? text[i] : '\0', std::memory_order_relaxed);
  }
}

}  // namespace kezu
