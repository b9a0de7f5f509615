// SPDX-License-Identifier: Apache-2.0
//
// A file descriptor that closes itself, and the one way in which log files are opened.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>

namespace logging {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) noexcept : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    std::swap(fd_, other.fd_);
    other.reset();
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  int get() const noexcept { return fd_; }
  explicit operator bool() const noexcept { return fd_ >= 0; }

  void reset() noexcept {
    if (fd_ >= 0) {
      close(fd_);
      fd_ = -1;
    }
  }

 private:
  int fd_ = -1;
};

// Opens a regular file, creating it with mode 0600 where `flags` say so; never a link, and never waiting for whatever
// else was put in its place. Empty with errno set on failure (EINVAL for what is no regular file).
inline UniqueFd openRegularFile(const std::string& path, int flags) noexcept {
  UniqueFd file(open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0600));
  struct stat status = {};
  if (file && fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode)) {
    return file;
  }
  if (file) {
    file.reset();
    errno = EINVAL;
  }
  return {};
}

}  // namespace logging
