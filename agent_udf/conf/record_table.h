// SPDX-License-Identifier: Apache-2.0
//
// The engine's single-slot tables of keyed records: found by position or by key, appended at the end, removed by moving
// the last record into the hole. No lock: every word is read and written atomically, and the count is published after
// the record. Each operation reads the count once, so that two changes at once may lose one of them but never leave the
// table.
#pragma once

#include <algorithm>
#include <cstddef>

#include "kezu/shared.h"

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
    kezu::storeRecord(record, records_[last]);
    kezu::publish(count_, last);
  }

 private:
  Record (&records_)[Capacity];
  int& count_;
};
