// SPDX-License-Identifier: Apache-2.0
//
// The engine's tables in memory as the store sees them: each gives its payload, and takes one.
#pragma once

#include <array>
#include <memory>
#include <string_view>

#include "cipher/secret.h"
#include "engine/store/result.h"
#include "kezu/engine.h"

namespace engine::store {

// A table that was read and checked whole, not in use yet.
class StagedTable {
 public:
  StagedTable() = default;
  StagedTable(const StagedTable&) = delete;
  StagedTable& operator=(const StagedTable&) = delete;
  virtual ~StagedTable() = default;

  // Takes the place of the table in memory, with the settings that travel with it. To be called once.
  virtual void publish() noexcept = 0;
};

// A file-check string where callers read it.
using CheckString = char[kFileChkStrSize];

class Table {
 public:
  Table() = default;
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;
  virtual ~Table() = default;

  // Name in the file and of the file.
  virtual std::string_view name() const noexcept = 0;

  // Where callers read the file-check string; null for a table without one.
  virtual CheckString* checkString() const noexcept = 0;

  // Payload of the table as it is in memory.
  virtual cipher::SecretBytes capture() const = 0;

  // An error when a payload is none of this table's. Its text is the reason alone, to follow the file's name.
  virtual Status check(const cipher::SecretBytes& payload) const = 0;

  // Checks a payload and makes everything ready that publishing it takes.
  virtual Result<std::unique_ptr<StagedTable>> stage(const cipher::SecretBytes& payload) const = 0;
};

enum class TableId { policy, column, access, privilege, queryPriv, tableInfo, user };
inline constexpr std::size_t kTableCount = 7;

// The tables, in the order of TableId.
const std::array<const Table*, kTableCount>& allTables() noexcept;

inline const Table& tableOf(TableId id) noexcept {
  return *allTables()[static_cast<std::size_t>(id)];
}

}  // namespace engine::store
