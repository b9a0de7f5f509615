// SPDX-License-Identifier: Apache-2.0
#include "engine/store/master_key.h"

#include <array>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <system_error>
#include <vector>

#include "cipher/kdf.h"
#include "engine/store/store.h"

namespace engine::store {
namespace {

namespace fs = std::filesystem;

struct SealedFile {
  std::string path;
  const Table* table = nullptr;
};

// The files that are sealed with the master key. A .bak is there once a table was saved.
Result<std::vector<SealedFile>> sealedFiles(FileSystem& files, const Home& home) {
  std::vector<SealedFile> sealed;
  for (const Table* table : allTables()) {
    const std::string path = tablePath(home, *table);
    sealed.push_back({path, table});
    struct stat status = {};
    if (files.stat((path + ".bak").c_str(), &status) == 0) {
      sealed.push_back({path + ".bak", table});
    } else if (errno != ENOENT) {
      return systemError(path + ".bak", "cannot be examined");
    }
  }
  return sealed;
}

Result<TableImage> openSealed(FileSystem& files, const SealedFile& file, const MasterKeys& keys, TableKeyRing& ring) {
  if (Status status = deriveKeyRing(ring, keys, *file.table); !status.ok()) {
    return status.error();
  }
  return openTableFile(files, file.path, *file.table, ring);
}

Status checkAll(FileSystem& files, const std::vector<SealedFile>& sealed, const MasterKeys& keys) {
  for (const SealedFile& file : sealed) {
    TableKeyRing ring;
    if (const auto image = openSealed(files, file, keys, ring); !image.ok()) {
      return Error{image.error().kind,
                   image.error().text + "; the master key is not changed. See what is wrong with kezu-admin verify"};
    }
  }
  return {};
}

// Puts a new version of a file in its place.
Status replaceFile(FileSystem& files, const std::string& path, std::span<const unsigned char> bytes,
                   std::optional<std::int64_t> after) {
  const std::string fresh = path + ".tmp";
  const auto written = writeFile(files, fresh, bytes, after);
  if (!written.ok()) {
    return written.error();
  }
  if (files.rename(fresh.c_str(), path.c_str()) != 0) {
    const Error error = systemError(path, "cannot be replaced");
    files.unlink(fresh.c_str());
    return error;
  }
  return {};
}

Status sealAnew(FileSystem& files, const SealedFile& file, const MasterKeys& keys) {
  TableKeyRing ring;
  const auto image = openSealed(files, file, keys, ring);
  if (!image.ok()) {
    return image.error();
  }
  const auto sealed = sealPayload(image.value().payload, file.table->name(), ring.current);
  if (!sealed.ok()) {
    return Error{sealed.error().kind, shownPath(file.path) + ": " + sealed.error().text};
  }
  return replaceFile(files, file.path, sealed.value(), image.value().identity.modified);
}

// The file itself, where the settings name a symbolic link: that one is not replaced.
Result<std::string> keyFileOf(const Home& home) {
  std::error_code error;
  const fs::path path = fs::canonical(home.masterKey, error);
  if (error) {
    return Error{Error::Kind::system, shownPath(home.masterKey) + ": cannot be found: " + error.message()};
  }
  return path.string();
}

Status writeKeys(FileSystem& files, const std::string& path, const MasterKeys& keys) {
  if (Status status = replaceFile(files, path, masterKeyText(keys), std::nullopt); !status.ok()) {
    return status;
  }
  return syncDirectory(files, fs::path(path).parent_path());
}

// Puts a new key in front of the old one.
Status beginChange(FileSystem& files, const std::vector<SealedFile>& sealed, const std::string& keyFile,
                   MasterKeys& keys) {
  if (Status status = checkAll(files, sealed, keys); !status.ok()) {
    return status;
  }
  keys.previous = std::move(keys.current);
  keys.current = cipher::SecretBytes(kMasterKeySize);
  if (!cipher::randomBytes(keys.current)) {
    return Error{Error::Kind::system, "no random numbers: OpenSSL failed"};
  }
  return writeKeys(files, keyFile, keys);
}

}  // namespace

Result<KeyChange> changeMasterKey(FileSystem& files, const Home& home) {
  const auto lock = FileLock::acquire(files, home.file(kLockFile));
  if (!lock.ok()) {
    return lock.error();
  }
  auto keys = readMasterKeys(files, home.masterKey);
  const auto keyFile = keyFileOf(home);
  const auto sealed = sealedFiles(files, home);
  if (!keys.ok() || !keyFile.ok() || !sealed.ok()) {
    return !keys.ok() ? keys.error() : !keyFile.ok() ? keyFile.error() : sealed.error();
  }
  const KeyChange change = keys.value().previous.empty() ? KeyChange::made : KeyChange::finished;
  if (change == KeyChange::made) {
    if (Status status = beginChange(files, sealed.value(), keyFile.value(), keys.value()); !status.ok()) {
      return status.error();
    }
  }
  for (const SealedFile& file : sealed.value()) {
    if (Status status = sealAnew(files, file, keys.value()); !status.ok()) {
      return status.error();
    }
  }
  if (Status status = syncDirectory(files, home.directory); !status.ok()) {
    return status.error();
  }
  if (Status status = writeKeys(files, keyFile.value(), {keys.value().current, {}}); !status.ok()) {
    return status.error();
  }
  return change;
}

}  // namespace engine::store
