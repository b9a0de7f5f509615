// SPDX-License-Identifier: Apache-2.0
#include "logging/log_writer.h"

#include <sys/file.h>

#include <cerrno>
#include <string_view>

#include "logging/line_format.h"
#include "logging/log_clock.h"
#include "logging/log_files.h"

namespace logging {
namespace {

// Writes all of `text`, with one write where the system takes it whole.
bool writeAll(int fd, std::string_view text) noexcept {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written > 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (written == 0 || errno != EINTR) {
      return false;
    }
  }
  return true;
}

// Keeps other processes from writing to the file while it is looked at and written. One that holds the lock for longer
// than a line takes (it was stopped, or is no logger) isn't waited for: then the lines are kept apart by their single
// writes alone.
class FileLock {
 public:
  explicit FileLock(int fd) noexcept : fd_(fd) {
    constexpr int kTries = 200;
    constexpr timespec kPause = {0, 500'000};
    for (int i = 0; i < kTries && flock(fd_, LOCK_EX | LOCK_NB) != 0 && (errno == EWOULDBLOCK || errno == EINTR); ++i) {
      nanosleep(&kPause, nullptr);
    }
  }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  ~FileLock() { flock(fd_, LOCK_UN); }

 private:
  int fd_;
};

UniqueFd openForAppend(const std::string& path) noexcept {
  return openRegularFile(path, O_RDWR | O_APPEND | O_CREAT);
}

}  // namespace

bool LogWriter::append(std::string line) {
  const std::string directory = logDirectory();
  if (directory.empty()) {
    return false;
  }
  const std::scoped_lock lock(mutex_);
  if (!stampTime(line, now())) {
    return false;
  }
  if (!openFor(auditLogPath(directory, std::string_view(line).substr(0, kDateSize)), directory)) {
    return false;
  }
  const FileLock fileLock(file_.get());
  if (lastLineIsOpen()) {
    line.insert(line.begin(), '\n');
  }
  return writeAll(file_.get(), line);
}

// Has file_ open at `path`, making the folder where it is missing.
bool LogWriter::openFor(std::string path, const std::string& directory) {
  if (file_ && path == path_ && stillNamed()) {
    return true;
  }
  path_ = std::move(path);
  file_ = openForAppend(path_);
  // Another process may make the folder at the same moment.
  if (!file_ && errno == ENOENT && (mkdir(directory.c_str(), 0700) == 0 || errno == EEXIST)) {
    file_ = openForAppend(path_);
  }
  return static_cast<bool>(file_);
}

// Whether the open file is the one that its path names.
bool LogWriter::stillNamed() const noexcept {
  struct stat opened = {};
  struct stat named = {};
  return fstat(file_.get(), &opened) == 0 && lstat(path_.c_str(), &named) == 0 && opened.st_dev == named.st_dev &&
         opened.st_ino == named.st_ino;
}

// Whether the file ends in a piece of a line.
bool LogWriter::lastLineIsOpen() const noexcept {
  struct stat status = {};
  char last = '\n';
  return fstat(file_.get(), &status) == 0 && status.st_size > 0 &&
         pread(file_.get(), &last, 1, status.st_size - 1) == 1 && last != '\n';
}

}  // namespace logging
