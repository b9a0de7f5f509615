// SPDX-License-Identifier: Apache-2.0
//
// The engine's single-slot tables of keyed records: found by position or by key, appended at the end, removed by moving
// the last record into the hole. No lock here: whoever changes a table holds the guard of changes (kezu/change.h) from
// finding a record to saving the table. Readers hold nothing: every word is read and written atomically, the count is
// published after the record, and each operation reads the count once and never leaves the table.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>
#include <tuple>
#include <utility>

#include "frame/args.h"
#include "kezu/shared.h"

// The text fields that identify a record, as pointers to members, in the order in which callers give the texts.
template <typename Record, typename... Field>
class RecordKey {
 public:
  static constexpr std::size_t kSize = sizeof...(Field);
  using Texts = std::array<std::string_view, kSize>;

  constexpr explicit RecordKey(Field Record::*... fields) noexcept : fields_(fields...) {}

  // The texts of a call, from argument `first` on.
  static Texts arguments(const frame::Args& args, unsigned int first) {
    Texts texts;
    for (unsigned int i = 0; i < texts.size(); ++i) {
      texts[i] = args.text(first + i);
    }
    return texts;
  }

  // Whether every field equals its text exactly.
  bool matches(const Record& record, const Texts& texts) const noexcept {
    return all([&](auto field, std::string_view text) { return kezu::fieldEquals(record.*field, text); }, texts);
  }

  // Whether every text fits its field.
  bool holds(const Texts& texts) const noexcept {
    return all([](auto field, std::string_view text) { return kezu::fieldHolds(Record{}.*field, text); }, texts);
  }

  // The text of the field at a position of the key, in place; 0 <= position < kSize.
  std::string_view text(const Record& record, std::size_t position) const noexcept {
    const Texts texts = std::apply([&](auto... field) { return Texts{kezu::fieldText(record.*field)...}; }, fields_);
    return texts[position];
  }

  // Stores texts that the fields hold.
  void store(Record& record, const Texts& texts) const noexcept {
    all([&](auto field, std::string_view text) { return kezu::storeField(record.*field, text), true; }, texts);
  }

 private:
  template <typename Test>
  bool all(Test test, const Texts& texts) const {
    return [&]<std::size_t... I>(std::index_sequence<I...>) {
      return (test(std::get<I>(fields_), texts[I]) && ...);
    }
    (std::index_sequence_for<Field...>{});
  }

  std::tuple<Field Record::*...> fields_;
};

template <typename Record, std::size_t Capacity>
class RecordTable {
 public:
  constexpr RecordTable(Record (&records)[Capacity], int& count) noexcept : records_(records), count_(count) {}

  // Records in use, 0 to the capacity.
  int count() const noexcept { return std::clamp(kezu::observe(count_), 0, static_cast<int>(Capacity)); }

  // The record at a position, or null for one outside the table, a negative one included.
  Record* at(int index) const noexcept { return index >= 0 && index < count() ? &records_[index] : nullptr; }

  // The first record that matches, or null.
  template <typename Matches>
  Record* find(Matches matches) const {
    const int n = count();
    for (int i = 0; i < n; ++i) {
      if (matches(static_cast<const Record&>(records_[i]))) {
        return &records_[i];
      }
    }
    return nullptr;
  }

  // The first record with this key, or null.
  template <typename Key>
  Record* find(const Key& key, const typename Key::Texts& texts) const {
    return find([&](const Record& record) { return key.matches(record, texts); });
  }

  // Appends a record. Returns false, with nothing changed, when the table is full.
  bool append(const Record& record) const noexcept {
    const int n = count();
    if (n == static_cast<int>(Capacity)) {
      return false;
    }
    kezu::storeRecord(records_[n], record);
    kezu::publish(count_, n + 1);
    return true;
  }

  // Removes a record that find() or at() returned. The order of the others changes; the vacated last record is not
  // cleared. Nothing changes when the table was emptied meanwhile.
  void remove(Record& record) const noexcept {
    const int last = count() - 1;
    if (last < 0) {
      return;
    }
    Record moved;
    kezu::loadRecord(moved, records_[last]);
    kezu::storeRecord(record, moved);
    kezu::publish(count_, last);
  }

 private:
  Record (&records_)[Capacity];
  int& count_;
};
