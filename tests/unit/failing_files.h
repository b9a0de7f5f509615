// SPDX-License-Identifier: Apache-2.0
//
// A file system of which any one call fails.
#pragma once

#include <cerrno>

#include "engine/store/files.h"

namespace store_test {

// Fails the call number `failAt` (from 0), with `error`.
class FailingFiles : public engine::store::FileSystem {
 public:
  int open(const char* path, int flags, mode_t mode) override {
    return fails() ? -1 : FileSystem::open(path, flags, mode);
  }
  ssize_t read(int fd, void* buffer, std::size_t size) override {
    return fails() ? -1 : FileSystem::read(fd, buffer, size);
  }
  ssize_t write(int fd, const void* buffer, std::size_t size) override {
    if (fails()) {
      if (error_ == EINTR) {
        return -1;
      }
      // What a disk that fills up does: a part is written.
      return FileSystem::write(fd, buffer, size / 2) < 0 ? -1 : fail();
    }
    return FileSystem::write(fd, buffer, size);
  }
  int fsync(int fd) override { return fails() ? -1 : FileSystem::fsync(fd); }
  int flock(int fd, int operation) override { return fails() ? -1 : FileSystem::flock(fd, operation); }
  int fstat(int fd, struct stat* out) override { return fails() ? -1 : FileSystem::fstat(fd, out); }
  int futimens(int fd, const struct timespec* times) override { return fails() ? -1 : FileSystem::futimens(fd, times); }
  int stat(const char* path, struct stat* out) override { return fails() ? -1 : FileSystem::stat(path, out); }
  int link(const char* from, const char* to) override { return fails() ? -1 : FileSystem::link(from, to); }
  int rename(const char* from, const char* to) override { return fails() ? -1 : FileSystem::rename(from, to); }
  int unlink(const char* path) override { return fails() ? -1 : FileSystem::unlink(path); }

  void failAt(int call, int withError) {
    calls_ = 0;
    failAt_ = call;
    error_ = withError;
    failed_ = false;
  }
  bool failed() const { return failed_; }

 private:
  int fail() {
    errno = error_;
    failed_ = true;
    return -1;
  }
  bool fails() { return calls_++ == failAt_ && fail() == -1; }

  int calls_ = 0;
  int failAt_ = -1;
  int error_ = 0;
  bool failed_ = false;
};

}  // namespace store_test
