// SPDX-License-Identifier: Apache-2.0
//
// The file system as the store uses it: every system call behind one interface, so that a test can make any of them
// fail, and the few operations that are built on them.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "cipher/secret.h"
#include "engine/store/result.h"

namespace engine::store {

// The system calls. Each member is the call of the same name: its arguments, -1 and errno for a failure.
//
// A signal can interrupt open, read, write, fsync and flock (EINTR, POSIX.1-2017): the operations below make these
// again. The others are not interrupted; a failure of theirs is final, whatever its number.
class FileSystem {
 public:
  FileSystem() = default;
  FileSystem(const FileSystem&) = delete;
  FileSystem& operator=(const FileSystem&) = delete;
  virtual ~FileSystem() = default;

  virtual int open(const char* path, int flags, mode_t mode);
  virtual int close(int fd);
  virtual ssize_t read(int fd, void* buffer, std::size_t size);
  virtual ssize_t write(int fd, const void* buffer, std::size_t size);
  virtual int fsync(int fd);
  virtual int flock(int fd, int operation);
  virtual int fstat(int fd, struct stat* out);
  virtual int futimens(int fd, const struct timespec* times);
  virtual int stat(const char* path, struct stat* out);
  virtual int link(const char* from, const char* to);
  virtual int rename(const char* from, const char* to);
  virtual int unlink(const char* path);
};

// The file system of the machine.
FileSystem& machineFiles() noexcept;

// Which version of a file it is. Two versions of a file that the store wrote always differ: a new version never has the
// modification time of the one that it replaces.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  std::int64_t modified = 0;  // nanoseconds since the epoch

  bool operator==(const FileIdentity&) const = default;
};

FileIdentity identityOf(const struct stat& status) noexcept;

// A file's contents, and what the file was when they were read.
struct FileImage {
  cipher::SecretBytes bytes;
  struct stat status = {};
};

// A path for a message: its last 150 bytes when it is longer, with "..." in front.
std::string shownPath(std::string_view path);

// The error of a system call that failed just now (errno): "PATH: DOING: REASON".
Error systemError(std::string_view path, std::string_view doing);

// Status of the file at `path`. The error says that it is missing when it is.
Result<struct stat> statFile(FileSystem& files, const std::string& path);

// Whether a symbolic link may stand for the file that is read.
enum class Links { refuse, follow };

// Reads a regular file of at most `limit` bytes whole. A file that is larger, or no regular file, is an error.
Result<FileImage> readFile(FileSystem& files, const std::string& path, std::size_t limit, Links links);

// Writes `bytes` to a new file, mode 0600, and syncs it. What is left at `path` from a save that was cut short is
// replaced. With `after`, the new file's modification time is made later than that. Nothing is left behind on failure.
Result<FileIdentity> writeFile(FileSystem& files, const std::string& path, std::span<const unsigned char> bytes,
                               std::optional<std::int64_t> after = std::nullopt);

// Makes the directory's entries durable.
Status syncDirectory(FileSystem& files, const std::string& directory);

// Holds an exclusive lock (flock) while it lives. The lock file is made where it is missing.
class FileLock {
 public:
  // Waits for at most kLockWaitSeconds, so that a process that hangs with the lock can't hang a server.
  static Result<FileLock> acquire(FileSystem& files, const std::string& path);

  FileLock(FileLock&& other) noexcept;
  FileLock& operator=(FileLock&&) = delete;
  ~FileLock();

 private:
  FileLock(FileSystem& files, int fd) noexcept : files_(&files), fd_(fd) {}

  FileSystem* files_;
  int fd_;
};

inline constexpr int kLockWaitSeconds = 5;

}  // namespace engine::store
