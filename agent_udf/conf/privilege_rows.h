// SPDX-License-Identifier: Apache-2.0
//
// Setting and deleting rows of the two privilege tables, which differ in their keys and flags only.
#pragma once

#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

#include "conf/audit_event.h"
#include "conf/record_table.h"
#include "frame/function.h"
#include "logw/logw.h"

// One privilege table: its records, its key, the key's names in audit events, its save operation and its name.
template <typename Record, std::size_t Capacity, typename Key, std::size_t KeySize>
class PrivilegeRows {
 public:
  using Texts = typename Key::Texts;
  using Names = std::array<const char*, KeySize>;
  using Save = int (*)();

  static constexpr long long kAdded = 1;
  static constexpr long long kChanged = 2;
  static constexpr long long kDeleted = 3;
  static constexpr long long kNotSaved = -2;

  constexpr PrivilegeRows(RecordTable<Record, Capacity> table, Key key, Names names, Save save, const char* name)
      : table_(table), key_(key), names_(names), save_(save), name_(name) {}

  const RecordTable<Record, Capacity>& table() const noexcept { return table_; }
  const Record* find(const Texts& texts) const noexcept { return table_.find(key_, texts); }

  // The key of a call: its texts follow the session.
  static Texts key(const frame::Args& args) { return Key::arguments(args, 1); }

  // Adds a row, or changes the flags of the one that is there. set_flags(record) stores the flags, flag_pairs report
  // them.
  template <typename SetFlags>
  long long set(const Texts& texts, SetFlags set_flags, std::vector<AuditPair> flag_pairs) const {
    if (Record* found = table_.find(key_, texts)) {
      set_flags(*found);
      return finish(kChanged, "CHANGE ", texts, std::move(flag_pairs));
    }
    if (!key_.holds(texts)) {
      return kNotSaved;
    }
    Record row = {};
    key_.store(row, texts);
    set_flags(row);
    if (!table_.append(row)) {
      return kNotSaved;
    }
    return finish(kAdded, "ADD ", texts, std::move(flag_pairs));
  }

  // Deletes a row; SQL NULL when there is none.
  long long remove(const Texts& texts, frame::Flags& flags) const {
    Record* found = table_.find(key_, texts);
    if (found == nullptr) {
      flags.setNull();
      return 0;
    }
    table_.remove(*found);
    return finish(kDeleted, "DELETE ", texts, {});
  }

 private:
  // Saves the table, then reports the change: what was not saved is not reported.
  long long finish(long long result, const char* action, const Texts& texts, std::vector<AuditPair> flag_pairs) const {
    if (save_() == -1) {
      return kNotSaved;
    }
    std::vector<AuditPair> event = {{"group", "policy"}};
    for (std::size_t i = 0; i < KeySize; ++i) {
      event.push_back({names_[i], std::string(texts[i])});
    }
    std::move(flag_pairs.begin(), flag_pairs.end(), std::back_inserter(event));
    event.push_back({"desc", std::string(action) + name_});
    writeAuditEvent(kLogChange, event);
    return result;
  }

  RecordTable<Record, Capacity> table_;
  Key key_;
  Names names_;
  Save save_;
  const char* name_;
};
