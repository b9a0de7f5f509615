// SPDX-License-Identifier: Apache-2.0
//
// The two privilege tables in SQL. They differ in their keys and flags, and in how a row is looked up.
#pragma once

#include <array>
#include <string>
#include <utility>
#include <vector>

#include "conf/audit_event.h"
#include "conf/check_auth.h"
#include "conf/listing.h"
#include "conf/record_table.h"
#include "frame/function.h"
#include "kezu/change.h"
#include "logw/logw.h"

// One privilege table: its records, its key and flags with their names in audit events, its save operation, its name.
template <typename Record, std::size_t Capacity, typename Key, std::size_t Flags>
class PrivilegeRows {
 public:
  static constexpr unsigned int kKeySize = Key::kSize;
  static constexpr unsigned int kFlags = Flags;
  using Names = std::array<const char*, kKeySize + kFlags>;
  using Save = int (*)();

  constexpr PrivilegeRows(RecordTable<Record, Capacity> table, Key key, std::array<char Record::*, Flags> flags,
                          Names names, Save save, const char* name)
      : table_(table), key_(std::move(key)), flags_(flags), names_(names), save_(save), name_(name) {}

  int count() const noexcept { return table_.count(); }

  // (session, key): deletes a row (3); SQL NULL when there is none.
  // (session, key, flags): adds a row (1) or changes its flags (2), of which the low 8 bits are kept.
  // -2 when the save fails, with the change in memory, and when the table is full or a text too long, with nothing
  // changed. SQL NULL without a valid session and for other forms.
  long long set(const frame::Args& args, frame::Flags& result) const {
    if (checkAuth(args)) {
      const kezu::ConfigurationChange change;
      switch (args.count()) {
        case 1 + kKeySize:
          return remove(args, result);
        case 1 + kKeySize + kFlags:
          return store(args);
      }
    }
    result.setNull();
    return 0;
  }

  // A field of the row at a position: the texts of the key, then the flags. SQL NULL for a row or field that is not
  // there.
  frame::Answer fieldAt(int index, int field) const {
    const Record* row = table_.at(index);
    if (row == nullptr) {
      return frame::Answer::null();
    }
    const auto position = static_cast<unsigned int>(field);  // a negative one is past every field
    if (position < kKeySize) {
      const std::string_view text = key_.text(*row, position);
      return frame::Answer::text(text.data(), text.size());
    }
    return flagOf(row, position - kKeySize);
  }

  // (session, key, ...): a flag of the row with this key. SQL NULL for a row or flag that is not there.
  frame::Answer lookUp(const frame::Args& args, unsigned int flag) const {
    return flagOf(table_.find(key_, Key::arguments(args, 1)), flag);
  }

 private:
  static constexpr long long kAdded = 1;
  static constexpr long long kChanged = 2;
  static constexpr long long kDeleted = 3;
  static constexpr long long kNotSaved = -2;

  frame::Answer flagOf(const Record* row, unsigned int flag) const {
    return row == nullptr || flag >= kFlags ? frame::Answer::null() : flagText(row->*flags_[flag]);
  }

  long long store(const frame::Args& args) const {
    const auto texts = Key::arguments(args, 1);
    if (Record* found = table_.find(key_, texts)) {
      storeFlags(*found, args);
      return finish(kChanged, "CHANGE ", args);
    }
    if (!key_.holds(texts)) {
      return kNotSaved;
    }
    Record row = {};
    key_.store(row, texts);
    storeFlags(row, args);
    return table_.append(row) ? finish(kAdded, "ADD ", args) : kNotSaved;
  }

  long long remove(const frame::Args& args, frame::Flags& result) const {
    Record* found = table_.find(key_, Key::arguments(args, 1));
    if (found == nullptr) {
      result.setNull();
      return 0;
    }
    table_.remove(*found);
    return finish(kDeleted, "DELETE ", args);
  }

  void storeFlags(Record& row, const frame::Args& args) const {
    for (unsigned int i = 0; i < kFlags; ++i) {
      kezu::publish(row.*flags_[i], static_cast<char>(args.int32(1 + kKeySize + i)));
    }
  }

  // Saves the table, then reports the change with the texts and flags as given: what was not saved is not reported.
  long long finish(long long result, const char* action, const frame::Args& args) const {
    if (save_() == -1) {
      return kNotSaved;
    }
    std::vector<AuditPair> event = {{"group", "policy"}};
    for (unsigned int i = 1; i < args.count(); ++i) {
      event.push_back({names_[i - 1], i <= kKeySize ? std::string(args.text(i)) : std::to_string(args.int32(i))});
    }
    event.push_back({"desc", std::string(action) + name_});
    writeAuditEvent(kLogChange, event);
    return result;
  }

  RecordTable<Record, Capacity> table_;
  Key key_;
  std::array<char Record::*, Flags> flags_;
  Names names_;
  Save save_;
  const char* name_;
};
