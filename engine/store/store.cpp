// SPDX-License-Identifier: Apache-2.0
#include "engine/store/store.h"

#include <cerrno>
#include <new>

#include "cipher/hidden_memory.h"
#include "kezu/shared.h"

namespace engine::store {
namespace {

constexpr const char* kSuffix = ".kz";

Error at(const std::string& path, const Error& reason) {
  return {reason.kind, shownPath(path) + ": " + reason.text};
}

Error advised(const Error& error) {
  return {error.kind, error.text + "; see what can be restored with kezu-admin verify"};
}

Error conflict(const std::string& path) {
  return {Error::Kind::conflict,
          shownPath(path) + ": was changed by another process in the meantime, and is not overwritten; try again"};
}

// Keeps the current version of `path` as `path`.bak. A save that was cut short may have left the two names on one file
// already; rename() then does nothing, and the name in between is removed.
Status keepOld(FileSystem& files, const std::string& path) {
  const std::string backup = path + ".bak";
  const std::string between = path + ".bak.tmp";
  if (files.unlink(between.c_str()) != 0 && errno != ENOENT) {
    return systemError(between, "cannot be replaced");
  }
  if (files.link(path.c_str(), between.c_str()) != 0) {
    return systemError(between, "cannot be linked to the old version");
  }
  if (files.rename(between.c_str(), backup.c_str()) != 0) {
    const Error error = systemError(backup, "cannot be replaced");
    files.unlink(between.c_str());
    return error;
  }
  files.unlink(between.c_str());
  return {};
}

}  // namespace

Status deriveKeyRing(TableKeyRing& keys, const MasterKeys& masterKeys, const Table& table) {
  const bool done =
      deriveTableKeys(keys.current, masterKeys.current, table.name()) &&
      (masterKeys.previous.empty() || deriveTableKeys(keys.previous.emplace(), masterKeys.previous, table.name()));
  return done ? Status()
              : Error{Error::Kind::system, "the keys of the configuration files can't be derived: OpenSSL failed"};
}

Result<TableImage> openTableFile(FileSystem& files, const std::string& path, const Table& table,
                                 const TableKeyRing& keys) {
  auto image = readFile(files, path, kMaxFileSize, Links::refuse);
  if (!image.ok()) {
    return image.error();
  }
  if (Status status = checkPrivate(image.value().status, path); !status.ok()) {
    return status.error();
  }
  auto payload = openPayload(image.value().bytes, table.name(), keys.current);
  if (!payload.ok() && keys.previous) {
    if (auto older = openPayload(image.value().bytes, table.name(), *keys.previous); older.ok()) {
      payload = std::move(older);
    }
  }
  if (!payload.ok()) {
    return at(path, payload.error());
  }
  std::string check = fileCheckString(payload.value(), keys.current);
  return TableImage{std::move(payload.value()), identityOf(image.value().status), std::move(check)};
}

void* Store::operator new(std::size_t size) {
  void* memory = cipher::allocateHidden(size);
  return memory != nullptr ? memory : throw std::bad_alloc();
}

void Store::operator delete(void* memory) noexcept {
  cipher::freeHidden(memory, sizeof(Store));
}

Result<std::unique_ptr<Store>> Store::open(FileSystem& files, Home home) {
  const auto master = readMasterKeys(files, home.masterKey);
  if (!master.ok()) {
    return master.error();
  }
  std::unique_ptr<Store> store(new Store(files, std::move(home)));
  for (std::size_t i = 0; i < kTableCount; ++i) {
    store->entries_[i].table = allTables()[i];
    if (Status status = deriveKeyRing(store->entries_[i].keys, master.value(), *allTables()[i]); !status.ok()) {
      return status.error();
    }
  }
  return store;
}

std::string tablePath(const Home& home, const Table& table) {
  return home.file(std::string(table.name()) + kSuffix);
}

std::string Store::path(const Entry& entry) const {
  return tablePath(home_, *entry.table);
}

std::string Store::path(TableId id) const {
  return path(entry(id));
}

Status Store::loadAll() {
  std::vector<Entry*> all;
  for (Entry& entry : entries_) {
    all.push_back(&entry);
  }
  return reload(all);
}

Status Store::reloadChanged() {
  std::vector<Entry*> stale;
  for (Entry& entry : entries_) {
    const auto answer = changed(entry);
    if (!answer.ok()) {
      return answer.error();
    }
    if (answer.value()) {
      stale.push_back(&entry);
    }
  }
  return stale.empty() ? Status() : reload(stale);
}

Status Store::reloadChanged(TableId id) {
  const auto answer = changed(entry(id));
  if (!answer.ok()) {
    return answer.error();
  }
  return answer.value() ? reload({&entry(id)}) : Status();
}

Status Store::load(TableId id, const std::string& source) {
  Entry& mine = entry(id);
  const std::string own = path(mine);
  auto staged = stage(mine, source.empty() ? own : source);
  if (!staged.ok()) {
    return staged.error();
  }
  if (!source.empty() && source != own) {
    staged.value().identity = mine.identity;
  }
  publish(staged.value());
  return {};
}

Result<bool> Store::changed(const Entry& entry) const {
  auto status = statFile(files_, path(entry));
  if (!status.ok()) {
    return advised(status.error());
  }
  return identityOf(status.value()) != entry.identity;
}

Result<Store::Staged> Store::stage(Entry& entry, const std::string& path) const {
  auto image = openTableFile(files_, path, *entry.table, entry.keys);
  if (!image.ok()) {
    return advised(image.error());
  }
  auto table = entry.table->stage(image.value().payload);
  if (!table.ok()) {
    return advised(at(path, table.error()));
  }
  return Staged{&entry, std::move(table.value()), image.value().identity, std::move(image.value().checkString)};
}

Status Store::reload(const std::vector<Entry*>& entries) {
  std::vector<Staged> all;
  for (Entry* entry : entries) {
    auto staged = stage(*entry, path(*entry));
    if (!staged.ok()) {
      return staged.error();
    }
    all.push_back(std::move(staged.value()));
  }
  for (Staged& staged : all) {
    publish(staged);
  }
  return {};
}

void Store::publish(Staged& staged) noexcept {
  Entry& entry = *staged.entry;
  staged.table->publish();
  entry.identity = staged.identity;
  entry.checkString = std::move(staged.checkString);
  show(entry);
}

void Store::show(const Entry& entry) noexcept {
  if (auto* shown = entry.table->checkString()) {
    kezu::storeField(*shown, entry.checkString);
  }
}

Status Store::save(TableId id) {
  Entry& mine = entry(id);
  const cipher::SecretBytes payload = mine.table->capture();
  if (Status status = mine.table->check(payload); !status.ok()) {
    return at(path(mine),
              {status.error().kind, "not saved, because it could not be loaded again: " + status.error().text});
  }
  return write(mine, payload);
}

Status Store::write(Entry& entry, const cipher::SecretBytes& payload) {
  const std::string target = path(entry);
  const std::string fresh = target + ".tmp";
  std::string check = fileCheckString(payload, entry.keys.current);
  const auto lock = FileLock::acquire(files_, home_.file(kLockFile));
  if (!lock.ok()) {
    return lock.error();
  }
  const auto current = statFile(files_, target);
  if (!current.ok()) {
    return current.error();
  }
  if (identityOf(current.value()) != entry.identity) {
    return conflict(target);
  }
  const auto sealed = sealPayload(payload, entry.table->name(), entry.keys.current);
  if (!sealed.ok()) {
    return at(target, sealed.error());
  }
  const auto written = writeFile(files_, fresh, sealed.value(), entry.identity.modified);
  if (!written.ok()) {
    return written.error();
  }
  if (Status status = replace(target, fresh); !status.ok()) {
    files_.unlink(fresh.c_str());
    return status;
  }
  // The new version is in place, also where the sync fails.
  entry.identity = written.value();
  entry.checkString = std::move(check);
  show(entry);
  return syncDirectory(files_, home_.directory);
}

Status Store::replace(const std::string& path, const std::string& fresh) {
  if (Status status = keepOld(files_, path); !status.ok()) {
    return status;
  }
  if (files_.rename(fresh.c_str(), path.c_str()) != 0) {
    return systemError(path, "cannot be replaced");
  }
  return {};
}

Status createTableFile(FileSystem& files, const std::string& directory, const Table& table, const TableKeys& keys) {
  const std::string path = directory + "/" + std::string(table.name()) + kSuffix;
  const cipher::SecretBytes payload = table.capture();
  if (Status status = table.check(payload); !status.ok()) {
    return at(path, status.error());
  }
  const auto sealed = sealPayload(payload, table.name(), keys);
  if (!sealed.ok()) {
    return at(path, sealed.error());
  }
  const auto written = writeFile(files, path, sealed.value());
  return written.ok() ? Status() : Status(written.error());
}

}  // namespace engine::store
