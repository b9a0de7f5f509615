// SPDX-License-Identifier: Apache-2.0
#include "engine/store/home.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>

#include "engine/store/envelope.h"
#include "engine/store/toml_values.h"

namespace engine::store {
namespace {

constexpr std::size_t kMaxSettingsSize = std::size_t{1} << 20;
constexpr mode_t kGroupAndOthers = S_IRWXG | S_IRWXO;

Error invalid(const std::string& path, const std::string& reason) {
  return {Error::Kind::invalid, shownPath(path) + ": " + reason};
}

Status checkDirectory(FileSystem& files, const std::string& directory) {
  if (directory.empty() || directory.front() != '/') {
    return invalid(directory, "the configuration home must be an absolute path; set KEZU_HOME to one");
  }
  struct stat status = {};
  if (files.stat(directory.c_str(), &status) != 0) {
    if (errno == ENOENT) {
      return Error{Error::Kind::system,
                   shownPath(directory) +
                       ": the configuration home does not exist; make it with kezu-admin init, or set "
                       "KEZU_HOME of the server to where it is"};
    }
    return systemError(directory, "the configuration home cannot be examined");
  }
  if (!S_ISDIR(status.st_mode)) {
    return invalid(directory, "is not a directory; set KEZU_HOME of the server to the configuration home");
  }
  if (status.st_uid != geteuid()) {
    return invalid(directory,
                   fmt::format("the configuration home belongs to user number {} and the server runs as {}; give "
                               "it to the server's user with chown -R",
                               status.st_uid, geteuid()));
  }
  if ((status.st_mode & kGroupAndOthers) != 0) {
    return invalid(directory, fmt::format("the configuration home is open to other users (mode {:04o}); close it with "
                                          "chmod 700",
                                          status.st_mode & 07777));
  }
  return {};
}

Status readPaths(const toml::table& paths, const std::string& source, Home& home) {
  for (const auto& [key, value] : paths) {
    const std::string name(key.str());
    std::string* path = name == "master_key" ? &home.masterKey : name == "log" ? &home.log : nullptr;
    if (path == nullptr) {
      return invalidSetting(source, key.source(), "unknown setting 'paths." + name + "'");
    }
    if (Status status = readPath(value, source, "paths." + name, home.directory, *path); !status.ok()) {
      return status;
    }
  }
  return {};
}

Status readTables(const toml::table& settings, const std::string& source, Home& home) {
  for (const auto& [key, value] : settings) {
    const std::string name(key.str());
    if (name != "paths" && name != "kms") {
      return invalidSetting(source, key.source(), "unknown setting '" + name + "'");
    }
    if (!value.is_table()) {
      return invalidSetting(source, value.source(), fmt::format("'{0}' must be a table: [{0}]", name));
    }
    Status status = name == "paths" ? readPaths(*value.as_table(), source, home)
                                    : readKms(*value.as_table(), source, home.directory, home.kms.emplace());
    if (!status.ok()) {
      return status;
    }
  }
  return {};
}

int hexDigit(unsigned char c) noexcept {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

bool decodeHex(std::span<const unsigned char> text, cipher::SecretBytes& bytes) {
  bytes.resize(kMasterKeySize);
  if (text.size() != 2 * bytes.size()) {
    return false;
  }
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const int high = hexDigit(text[2 * i]);
    const int low = hexDigit(text[2 * i + 1]);
    if (high < 0 || low < 0) {
      return false;
    }
    bytes[i] = static_cast<unsigned char>(high << 4 | low);
  }
  return true;
}

// Reads what stands on the lines of a text: one key or two.
bool decodeKeys(std::span<const unsigned char> text, MasterKeys& keys) {
  constexpr std::size_t kDigits = 2 * kMasterKeySize;
  if (text.size() <= kDigits) {
    return decodeHex(text, keys.current);
  }
  return decodeHex(text.first(kDigits), keys.current) && text[kDigits] == '\n' &&
         decodeHex(text.subspan(kDigits + 1), keys.previous);
}

void appendLine(cipher::SecretBytes& text, const cipher::SecretBytes& key) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  for (const unsigned char byte : key) {
    text.push_back(static_cast<unsigned char>(kDigits[byte >> 4]));
    text.push_back(static_cast<unsigned char>(kDigits[byte & 15]));
  }
  text.push_back('\n');
}

}  // namespace

Error invalidSetting(const std::string& source, const toml::source_region& where, const std::string& reason) {
  return invalid(source, fmt::format("line {}: {}", where.begin.line, reason));
}

Status readPath(const toml::node& value, const std::string& source, const std::string& key,
                const std::string& directory, std::string& path) {
  const auto text = value.value_exact<std::string>();
  if (!text || text->empty() || text->find('\0') != std::string::npos) {
    return invalidSetting(source, value.source(), "'" + key + "' must be a path in quotes");
  }
  path = text->front() == '/' ? *text : directory + "/" + *text;
  return {};
}

std::string configuredHome() {
  const char* home = std::getenv("KEZU_HOME");
  return home != nullptr && *home != '\0' ? home : kDefaultHome;
}

Status checkPrivate(const struct stat& status, const std::string& path) {
  if ((status.st_mode & kGroupAndOthers) != 0) {
    return invalid(
        path, fmt::format("is open to other users (mode {:04o}); close it with chmod 600", status.st_mode & 07777));
  }
  return {};
}

Result<Home> openHome(FileSystem& files, const std::string& directory) {
  if (Status status = checkDirectory(files, directory); !status.ok()) {
    return status.error();
  }
  return readSettings(files, directory);
}

Result<Home> readSettings(FileSystem& files, const std::string& directory) {
  Home home{directory, directory + "/" + kMasterKeyFile, directory + "/" + kLogFolder, std::nullopt};
  const std::string source = home.file(kSettingsFile);
  auto image = readFile(files, source, kMaxSettingsSize, Links::follow);
  if (!image.ok()) {
    return Error{image.error().kind,
                 image.error().text + "; a configuration home is made with kezu-admin init, or restored from a backup"};
  }
  const auto& bytes = image.value().bytes;
  try {
    const toml::table settings =
        toml::parse(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
    if (Status status = readTables(settings, source, home); !status.ok()) {
      return status.error();
    }
  } catch (const toml::parse_error& error) {
    return invalidSetting(source, error.source(), std::string(error.description().substr(0, 100)));
  } catch (const TomlFault&) {
    return invalid(source, "is not valid TOML");
  }
  return home;
}

Result<MasterKeys> readMasterKeys(FileSystem& files, const std::string& path) {
  auto image = readFile(files, path, 2 * (2 * kMasterKeySize + 2), Links::follow);
  if (!image.ok()) {
    return Error{image.error().kind, image.error().text + "; the tables can't be opened without their master key"};
  }
  if (Status status = checkPrivate(image.value().status, path); !status.ok()) {
    return status.error();
  }
  cipher::SecretBytes& text = image.value().bytes;
  for (int i = 0; i < 2 && !text.empty() && (text.back() == '\n' || text.back() == '\r'); ++i) {
    text.pop_back();
  }
  MasterKeys keys;
  if (!decodeKeys(text, keys)) {
    return invalid(path, fmt::format("is not a master key: {} hexadecimal digits", 2 * kMasterKeySize));
  }
  return keys;
}

cipher::SecretBytes masterKeyText(const MasterKeys& keys) {
  cipher::SecretBytes text;
  text.reserve(2 * (2 * kMasterKeySize + 1));
  appendLine(text, keys.current);
  if (!keys.previous.empty()) {
    appendLine(text, keys.previous);
  }
  return text;
}

}  // namespace engine::store
