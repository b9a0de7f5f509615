// SPDX-License-Identifier: Apache-2.0
#include "logging/log_files.h"

#include <mutex>

#include "logging/line_format.h"
#include "logging/log_config.h"

namespace logging {
namespace {

struct Settings {
  std::mutex mutex;
  std::string directory;
};

Settings& settings() {
  static Settings settings;
  return settings;
}

}  // namespace

bool isDate(std::string_view text) noexcept {
  if (text.size() != kDateSize) {
    return false;
  }
  for (std::size_t i = 0; i < kDateSize; ++i) {
    const bool hyphen = i == 4 || i == 7;
    if (hyphen ? text[i] != '-' : (text[i] < '0' || text[i] > '9')) {
      return false;
    }
  }
  return true;
}

std::string auditLogPath(const std::string& directory, std::string_view date) {
  return std::string(directory).append("/audit-").append(date).append(".log");
}

std::string logDirectory() {
  Settings& shared = settings();
  const std::scoped_lock lock(shared.mutex);
  return shared.directory;
}

void setLogDirectory(const std::string& directory) {
  std::string copy(directory);
  Settings& shared = settings();
  const std::scoped_lock lock(shared.mutex);
  shared.directory.swap(copy);
}

}  // namespace logging
