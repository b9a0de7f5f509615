// SPDX-License-Identifier: Apache-2.0
//
// The configuration home: where it is, whether it can be trusted, and what kezu.toml says.
#pragma once

#include <optional>
#include <string>

#include "engine/store/files.h"
#include "engine/store/kms_settings.h"

namespace engine::store {

inline constexpr const char* kDefaultHome = "/var/lib/kezu";
inline constexpr const char* kSettingsFile = "kezu.toml";
inline constexpr const char* kMasterKeyFile = "master.key";
inline constexpr const char* kLockFile = ".lock";
inline constexpr const char* kLogFolder = "log";

// A home whose checks passed.
struct Home {
  std::string directory;
  std::string masterKey;           // path of the master key's file
  std::string log;                 // folder of the logs
  std::optional<KmsSettings> kms;  // nothing where no key management server is configured

  std::string file(std::string_view name) const { return directory + "/" + std::string(name); }
};

// KEZU_HOME where it is set and not empty, else /var/lib/kezu. As it is: openHome() checks it.
std::string configuredHome();

// Checks a home and reads its kezu.toml. The directory must be named by an absolute path, belong to the effective user,
// and be closed to group and others. The error says what to do.
Result<Home> openHome(FileSystem& files, const std::string& directory);

// Settings of kezu.toml, each optional; a relative path starts at the home. A key that is not listed here, or a value
// of another type, is refused with the file and the line.
//
//   [paths]
//   master_key = "master.key"   # the master key, for instance on another medium
//   log = "log"                 # folder of the logs
//
//   [kms]                       # the key management server; the first four settings must be there
//   host = "kms.example"        # name or address
//   ca = "kms-ca.pem"           # authorities that may have issued the server's certificate
//   certificate = "kms-client.pem"
//   key = "kms-client.key"      # closed to group and others, without a password
//   port = 5696
//   connect_timeout = 3         # seconds, 0.01 to 3600
//   read_timeout = 5            # seconds, 0.01 to 3600
//   object_group = "orvanta"    # 1 to 255 bytes; without it, all active symmetric keys are taken for policies
Result<Home> readSettings(FileSystem& files, const std::string& directory);

// The keys in the master key's file.
struct MasterKeys {
  cipher::SecretBytes current;   // kMasterKeySize bytes: seals what is written
  cipher::SecretBytes previous;  // the one before, while a change of the key is not finished; else empty
};

// Reads the master key: 64 hexadecimal digits, and perhaps a line end. While a change of it is not finished, the key
// before stands on a second line. The file must be closed to group and others.
Result<MasterKeys> readMasterKeys(FileSystem& files, const std::string& path);

// The text of the master key's file.
cipher::SecretBytes masterKeyText(const MasterKeys& keys);

// An error when a file is open to group or others. `path` is for the message.
Status checkPrivate(const struct stat& status, const std::string& path);

}  // namespace engine::store
