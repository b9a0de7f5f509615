// SPDX-License-Identifier: Apache-2.0
//
// kezu-admin init
#include <fmt/format.h>
#include <openssl/crypto.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "access.h"
#include "cipher/kdf.h"
#include "commands.h"
#include "kezu/engine.h"

namespace admin {
namespace {

namespace fs = std::filesystem;
namespace store = engine::store;

constexpr const char* kSettingsText =
    "# Settings of the configuration home. A relative path starts at the home. The server reads this file at its "
    "start.\n"
    "\n"
    "[paths]\n"
    "# The master key that seals the tables. It may be kept on another medium.\n"
    "# master_key = \"master.key\"\n"
    "# Folder of the audit log.\n"
    "# log = \"log\"\n"
    "\n"
    "# The key management server, for the modes that fetch policies from one. All but the first four have these values "
    "by\n"
    "# themselves; without object_group every active key is taken for a policy.\n"
    "# [kms]\n"
    "# host = \"kms.example\"\n"
    "# ca = \"kms-ca.pem\"\n"
    "# certificate = \"kms-client.pem\"\n"
    "# key = \"kms-client.key\"\n"
    "# port = 5696\n"
    "# connect_timeout = 3\n"
    "# read_timeout = 5\n"
    "# object_group = \"orvanta\"\n";

// A directory that is removed with all it holds when the scope ends, unless it was moved away.
class Draft {
 public:
  explicit Draft(const std::string& beside) : path_(beside + ".XXXXXX") {
    made_ = mkdtemp(path_.data()) != nullptr;  // mode 0700
  }
  Draft(const Draft&) = delete;
  Draft& operator=(const Draft&) = delete;
  ~Draft() {
    if (made_) {
      std::error_code ignored;
      fs::remove_all(path_, ignored);
    }
  }

  bool made() const noexcept { return made_; }
  const std::string& path() const noexcept { return path_; }

  bool moveTo(const std::string& target) {
    made_ = std::rename(path_.c_str(), target.c_str()) != 0;
    return !made_;
  }

 private:
  std::string path_;
  bool made_ = false;
};

// Refuses what is already there. An empty directory may be.
Status checkFree(const std::string& home) {
  std::error_code error;
  const fs::file_status status = fs::symlink_status(home, error);
  if (status.type() == fs::file_type::not_found) {
    return {};
  }
  if (error) {
    return Error{Error::Kind::system, store::shownPath(home) + ": cannot be examined: " + error.message()};
  }
  if (!fs::is_directory(status)) {
    return Error{Error::Kind::invalid,
                 store::shownPath(home) + ": is there already and no directory; choose another --home"};
  }
  const bool empty = fs::is_empty(home, error);
  if (error || !empty) {
    return Error{Error::Kind::invalid,
                 store::shownPath(home) +
                     ": is there already and not empty; nothing was changed. Choose another --home, or "
                     "look at this one with kezu-admin status"};
  }
  return {};
}

Status writeMasterKey(const std::string& directory, cipher::SecretBytes& key) {
  key.resize(store::kMasterKeySize);
  if (!cipher::randomBytes(key)) {
    return Error{Error::Kind::system, "no random numbers: OpenSSL failed"};
  }
  const auto written =
      store::writeFile(store::machineFiles(), directory + "/" + store::kMasterKeyFile, store::masterKeyText({key, {}}));
  return written.ok() ? Status() : Status(written.error());
}

Status writeText(const std::string& path, std::string_view text) {
  const auto written = store::writeFile(store::machineFiles(), path,
                                        std::span(reinterpret_cast<const unsigned char*>(text.data()), text.size()));
  return written.ok() ? Status() : Status(written.error());
}

Status writeTables(const std::string& directory, const cipher::SecretBytes& masterKey) {
  for (const store::Table* table : store::allTables()) {
    store::TableKeys keys;
    if (!store::deriveTableKeys(keys, masterKey, table->name())) {
      return Error{Error::Kind::system, "the keys of the tables can't be derived: OpenSSL failed"};
    }
    if (Status status = store::createTableFile(store::machineFiles(), directory, *table, keys); !status.ok()) {
      return status;
    }
  }
  return {};
}

Status fill(const std::string& directory) {
  cipher::SecretBytes masterKey;
  if (Status status = writeMasterKey(directory, masterKey); !status.ok()) {
    return status;
  }
  if (Status status = writeTables(directory, masterKey); !status.ok()) {
    return status;
  }
  if (Status status = writeText(directory + "/" + store::kLockFile, ""); !status.ok()) {
    return status;
  }
  if (Status status = writeText(directory + "/" + store::kSettingsFile, kSettingsText); !status.ok()) {
    return status;
  }
  return store::syncDirectory(store::machineFiles(), directory);
}

// An empty directory that was prepared for the server's user stays that user's, with all that is in the draft.
Status keepOwner(const std::string& home, const std::string& draft) {
  struct stat status = {};
  if (::stat(home.c_str(), &status) != 0 || status.st_uid == geteuid()) {
    return {};
  }
  std::vector<std::string> paths = {draft};
  for (const auto& entry : fs::directory_iterator(draft)) {
    paths.push_back(entry.path());
  }
  for (const std::string& path : paths) {
    if (lchown(path.c_str(), status.st_uid, status.st_gid) != 0) {
      return store::systemError(path, "cannot be given to the owner of the directory that is there");
    }
  }
  return {};
}

// Makes the home beside its place and moves it there.
Status make(const std::string& home) {
  if (Status status = checkFree(home); !status.ok()) {
    return status;
  }
  const std::string parent = fs::path(home).parent_path();
  Draft draft(home);
  if (!draft.made()) {
    return store::systemError(parent, "nothing can be made there");
  }
  if (Status status = fill(draft.path()); !status.ok()) {
    return status;
  }
  if (Status status = keepOwner(home, draft.path()); !status.ok()) {
    return status;
  }
  if (!draft.moveTo(home)) {
    return errno == EBUSY ? Error{Error::Kind::system,
                                  store::shownPath(home) + ": is a mount point; choose a directory inside it as --home"}
                          : store::systemError(home, "cannot be put in its place");
  }
  return store::syncDirectory(store::machineFiles(), parent);
}

void printNextSteps(const std::string& home) {
  fmt::print("The configuration home {} is ready, with the administrator \"{}\".\n\nNext:\n", home, kAdministrator);
  int step = 1;
  if (home != store::kDefaultHome) {
    fmt::print("  {}. Set KEZU_HOME={} in the environment of the database server.\n", step++, home);
  }
  struct stat status = {};
  if (::stat(home.c_str(), &status) == 0 && status.st_uid == 0) {
    fmt::print("  {}. Give the home to the user that the server runs as, for instance: chown -R mysql:mysql {}\n",
               step++, home);
  }
  fmt::print("  {}. Restart the server and register the functions: run install.sql in an SQL client.\n", step++);
  fmt::print("  {}. Keep a copy of {}/{} in a safe place: nothing here can be opened without it.\n", step, home,
             store::kMasterKeyFile);
}

}  // namespace

int initHome(const std::string& home, const std::string& passwordFile) {
  const auto password = readPassword(passwordFile);
  if (!password.ok()) {
    return fail(password.error());
  }
  Q7UserInfo& user = g_userInfo[0];
  std::snprintf(user.id, sizeof user.id, "%s", kAdministrator);
  storePassword(user, password.value());
  g_numberOfUserInfo = 1;
  const Status status = make(home);
  OPENSSL_cleanse(&user, sizeof user);
  if (!status.ok()) {
    return fail(status.error());
  }
  printNextSteps(home);
  return kSuccess;
}

}  // namespace admin
