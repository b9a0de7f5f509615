// SPDX-License-Identifier: Apache-2.0
#include "logw/log_factory.h"

#include <algorithm>
#include <array>
#include <memory>
#include <mutex>
#include <vector>

#include "logging/line_index.h"
#include "logging/log_files.h"

namespace {

using logging::LineIndex;

constexpr int kAuditLog = 0;
constexpr std::size_t kMaxIndexes = 32;  // days whose index is kept; the one not used for longest goes first
constexpr std::size_t kLinesAlive = 8;   // lines of a thread that stay valid

// Where this thread's next line goes. The lines before it stay valid, so that a statement that reads several sees each.
std::string& nextLine() {
  thread_local std::array<std::string, kLinesAlive> lines;
  thread_local std::size_t next = 0;
  std::string& line = lines[next];
  next = (next + 1) % kLinesAlive;
  return line;
}

// The audit log.
class AuditLog final : public Log {
 public:
  std::uint64_t getNumTotalLines(const std::string& date) override {
    try {
      const std::shared_ptr<LineIndex> index = indexOf(date);
      return index ? index->countLines() : 0;
    } catch (...) {
      return 0;
    }
  }

  const char* getLog(const std::string& date, unsigned int lineNum) override {
    try {
      std::string& line = nextLine();
      const std::shared_ptr<LineIndex> index = indexOf(date);
      line = index ? index->readLine(lineNum) : std::string();
      return line.c_str();
    } catch (...) {
      return "";
    }
  }

 private:
  // The index of a day's file; null for a text that is no date, and while no folder is set.
  std::shared_ptr<LineIndex> indexOf(const std::string& date) {
    const std::string directory = logging::logDirectory();
    if (directory.empty() || !logging::isDate(date)) {
      return nullptr;
    }
    std::string path = logging::auditLogPath(directory, date);
    const std::scoped_lock lock(mutex_);
    const auto found = std::find_if(indexes_.begin(), indexes_.end(), [&](const auto& i) { return i->path() == path; });
    if (found != indexes_.end()) {
      std::rotate(indexes_.begin(), found, found + 1);
      return indexes_.front();
    }
    indexes_.insert(indexes_.begin(), std::make_shared<LineIndex>(std::move(path)));
    if (indexes_.size() > kMaxIndexes) {
      indexes_.pop_back();
    }
    return indexes_.front();
  }

  std::mutex mutex_;
  std::vector<std::shared_ptr<LineIndex>> indexes_;  // last used first
};

// The log of a type that is not known.
class EmptyLog final : public Log {
 public:
  std::uint64_t getNumTotalLines(const std::string& /*date*/) override { return 0; }
  const char* getLog(const std::string& /*date*/, unsigned int /*lineNum*/) override { return ""; }
};

}  // namespace

LogFactory* LogFactory::getLogFactory() {
  static LogFactory factory;
  return &factory;
}

// Not static: an object method is what callers were promised.
Log* LogFactory::getLog(int logType) {  // NOLINT(readability-convert-member-functions-to-static)
  static AuditLog audit;
  static EmptyLog empty;
  return logType == kAuditLog ? static_cast<Log*>(&audit) : &empty;
}
