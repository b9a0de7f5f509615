// SPDX-License-Identifier: Apache-2.0
//
// The configuration home as a whole: loading, reloading and saving the tables.
#pragma once

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "engine/store/envelope.h"
#include "engine/store/files.h"
#include "engine/store/home.h"
#include "engine/store/memory.h"

namespace engine::store {

// A table's file that was opened and authenticated.
struct TableImage {
  cipher::SecretBytes payload;
  FileIdentity identity;
  std::string checkString;
};

// Derives the keys of a table.
Status deriveKeyRing(TableKeyRing& keys, const MasterKeys& masterKeys, const Table& table);

// Opens the file of a table, at its own path or another. The payload's contents are not looked at yet.
Result<TableImage> openTableFile(FileSystem& files, const std::string& path, const Table& table,
                                 const TableKeyRing& keys);

// Path of a table's file.
std::string tablePath(const Home& home, const Table& table);

// Not safe for several threads at once: the caller holds a lock over every call.
class Store final {
 public:
  // Checks the home and reads its settings and master key. No table is loaded yet. `files` outlives the store.
  static Result<std::unique_ptr<Store>> open(FileSystem& files, Home home);

  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  // It holds the keys of the files: on pages that are kept out of core dumps.
  static void* operator new(std::size_t size);
  static void operator delete(void* memory) noexcept;

  FileSystem& files() const noexcept { return files_; }
  const Home& home() const noexcept { return home_; }
  std::string path(TableId id) const;
  const TableKeyRing& keys(TableId id) const noexcept { return entry(id).keys; }

  // Loads every table, or none on failure.
  Status loadAll();

  // Loads every table whose file is not the one last loaded or saved here, or none on failure. One stat a file when
  // nothing changed.
  Status reloadChanged();

  // The same for one table.
  Status reloadChanged(TableId id);

  // Loads a table from its file, or from the file at `source` if that is not empty, changed or not.
  Status load(TableId id, const std::string& source);

  // Saves a table. Fails with Error::Kind::conflict, with nothing written, when the file on disk is not the one last
  // loaded or saved here: another process saved in between.
  //
  // The order of steps keeps the file and, once there was a save, its .bak whole at every instant: the new version is
  // complete and synced before anything is renamed, the .bak is replaced by a link to the old version in one rename,
  // and then the file by the new one in another.
  Status save(TableId id);

 private:
  struct Entry {
    const Table* table = nullptr;
    TableKeyRing keys;
    FileIdentity identity;    // of the version last loaded or saved here
    std::string checkString;  // of that version
  };
  struct Staged {
    Entry* entry = nullptr;
    std::unique_ptr<StagedTable> table;
    FileIdentity identity;
    std::string checkString;
  };

  Store(FileSystem& files, Home home) : files_(files), home_(std::move(home)) {}

  Entry& entry(TableId id) noexcept { return entries_[static_cast<std::size_t>(id)]; }
  const Entry& entry(TableId id) const noexcept { return entries_[static_cast<std::size_t>(id)]; }
  std::string path(const Entry& entry) const;

  Result<bool> changed(const Entry& entry) const;
  Result<Staged> stage(Entry& entry, const std::string& path) const;
  Status reload(const std::vector<Entry*>& entries);
  void publish(Staged& staged) noexcept;

  // Gives the check string to its readers: that of the file, to be called when file and table in memory are the same.
  static void show(const Entry& entry) noexcept;

  Status write(Entry& entry, const cipher::SecretBytes& payload);
  Status replace(const std::string& path, const std::string& fresh);

  FileSystem& files_;
  Home home_;
  std::array<Entry, kTableCount> entries_;
};

// Writes the first version of a table's file into a home that is being made.
Status createTableFile(FileSystem& files, const std::string& directory, const Table& table, const TableKeys& keys);

}  // namespace engine::store
