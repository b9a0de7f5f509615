// SPDX-License-Identifier: Apache-2.0
//
// The engine's single-slot tables of keyed records: found by position or by key, appended at the end, removed by moving
// the last record into the hole. No lock: every word is read and written atomically, and the count is published after
// the record.
#pragma once

#include <cstddef>

#include "kezu/shared.h"

template <typename Record, std::size_t Capacity>
class RecordTable {
 public:
  constexpr RecordTable(Record (&records)[Capacity], int& count) noexcept : records_(records), count_(count) {}

  int count() const noexcept { return kezu::observe(count_); }
  bool isFull() const noexcept { return count() >= static_cast<int>(Capacity); }

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

  // Appends to a table that is not full.
  void append(const Record& record) const noexcept {
    const int n = count();
    kezu::storeRecord(records_[n], record);
    kezu::publish(count_, n + 1);
  }

  // Removes a record that find() or at() returned. The order of the others changes; the vacated last record is not
  // cleared.
  void remove(Record& record) const noexcept {
    const int last = count() - 1;
    kezu::storeRecord(record, records_[last]);
    kezu::publish(count_, last);
  }

 private:
  Record (&records_)[Capacity];
  int& count_;
};
