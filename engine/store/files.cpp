// SPDX-License-Identifier: Apache-2.0
#include "engine/store/files.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <system_error>
#include <thread>

namespace engine::store {

int FileSystem::open(const char* path, int flags, mode_t mode) {
  return ::open(path, flags, mode);
}
int FileSystem::close(int fd) {
  return ::close(fd);
}
ssize_t FileSystem::read(int fd, void* buffer, std::size_t size) {
  return ::read(fd, buffer, size);
}
ssize_t FileSystem::write(int fd, const void* buffer, std::size_t size) {
  return ::write(fd, buffer, size);
}
int FileSystem::fsync(int fd) {
  return ::fsync(fd);
}
int FileSystem::flock(int fd, int operation) {
  return ::flock(fd, operation);
}
int FileSystem::fstat(int fd, struct stat* out) {
  return ::fstat(fd, out);
}
int FileSystem::futimens(int fd, const struct timespec* times) {
  return ::futimens(fd, times);
}
int FileSystem::stat(const char* path, struct stat* out) {
  return ::stat(path, out);
}
int FileSystem::link(const char* from, const char* to) {
  return ::link(from, to);
}
int FileSystem::rename(const char* from, const char* to) {
  return std::rename(from, to);
}
int FileSystem::unlink(const char* path) {
  return ::unlink(path);
}

namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

// Makes a call again for as long as a signal interrupts it.
template <typename Call>
auto uninterrupted(const Call& call) {
  auto result = call();
  while (result < 0 && errno == EINTR) {
    result = call();
  }
  return result;
}

// Closes a descriptor when the scope ends, errno kept. close() is not made again when it is interrupted: Linux has
// given the descriptor up by then, and another thread may have got it.
class OpenFile {
 public:
  OpenFile(FileSystem& files, const std::string& path, int flags, mode_t mode = 0)
      : files_(files), fd_(uninterrupted([&] { return files.open(path.c_str(), flags | O_CLOEXEC, mode); })) {}
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
  ~OpenFile() {
    if (fd_ >= 0) {
      const int error = errno;
      files_.close(fd_);
      errno = error;
    }
  }

  bool ok() const noexcept { return fd_ >= 0; }
  int fd() const noexcept { return fd_; }

  // Gives the descriptor up to the caller.
  int release() noexcept { return std::exchange(fd_, -1); }

 private:
  FileSystem& files_;
  int fd_;
};

// Fills `bytes` from the file. False, with errno, on failure; a file that is shorter than `bytes` shortens them.
bool readAll(FileSystem& files, int fd, cipher::SecretBytes& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t got = uninterrupted([&] { return files.read(fd, bytes.data() + done, bytes.size() - done); });
    if (got < 0) {
      return false;
    }
    if (got == 0) {
      break;
    }
    done += static_cast<std::size_t>(got);
  }
  bytes.resize(done);
  return true;
}

bool writeAll(FileSystem& files, int fd, std::span<const unsigned char> bytes) {
  while (!bytes.empty()) {
    const ssize_t put = uninterrupted([&] { return files.write(fd, bytes.data(), bytes.size()); });
    if (put < 0) {
      return false;
    }
    if (put == 0) {
      errno = EIO;
      return false;
    }
    bytes = bytes.subspan(static_cast<std::size_t>(put));
  }
  return true;
}

// Sets the file's modification time one nanosecond past `after` when the clock's granularity left it at or before that.
bool makeLater(FileSystem& files, int fd, struct stat& status, std::int64_t after) {
  if (identityOf(status).modified > after) {
    return true;
  }
  const std::int64_t later = after + 1;
  const struct timespec time = {later / kNanosecondsPerSecond, later % kNanosecondsPerSecond};
  const struct timespec times[2] = {time, time};
  return files.futimens(fd, times) == 0 && files.fstat(fd, &status) == 0;
}

// Fills a new file and gives its identity. Nothing, with errno and what could not be done, on failure.
std::optional<FileIdentity> fillFile(FileSystem& files, int fd, std::span<const unsigned char> bytes,
                                     std::optional<std::int64_t> after, const char*& failed) {
  struct stat status = {};
  failed = "cannot be written";
  if (!writeAll(files, fd, bytes)) {
    return std::nullopt;
  }
  failed = "cannot be given its time";
  if (files.fstat(fd, &status) != 0 || (after && !makeLater(files, fd, status, *after))) {
    return std::nullopt;
  }
  failed = "cannot be synced";
  if (uninterrupted([&] { return files.fsync(fd); }) != 0) {
    return std::nullopt;
  }
  return identityOf(status);
}

}  // namespace

FileSystem& machineFiles() noexcept {
  static FileSystem files;
  return files;
}

FileIdentity identityOf(const struct stat& status) noexcept {
  return {status.st_dev, status.st_ino, status.st_size,
          status.st_mtim.tv_sec * kNanosecondsPerSecond + status.st_mtim.tv_nsec};
}

std::string shownPath(std::string_view path) {
  constexpr std::size_t kShown = 150;
  return path.size() <= kShown ? std::string(path) : "..." + std::string(path.substr(path.size() - kShown));
}

Error systemError(std::string_view path, std::string_view doing) {
  const int error = errno;
  return {Error::Kind::system,
          fmt::format("{}: {}: {}", shownPath(path), doing, std::generic_category().message(error))};
}

Result<struct stat> statFile(FileSystem& files, const std::string& path) {
  struct stat status = {};
  if (files.stat(path.c_str(), &status) == 0) {
    return status;
  }
  if (errno == ENOENT) {
    return Error{Error::Kind::system, shownPath(path) + ": the file is missing"};
  }
  return systemError(path, "cannot be examined");
}

Result<FileImage> readFile(FileSystem& files, const std::string& path, std::size_t limit, Links links) {
  // O_NONBLOCK keeps a named pipe in the file's place from hanging the caller; a regular file doesn't mind.
  const OpenFile file(files, path, O_RDONLY | O_NONBLOCK | (links == Links::refuse ? O_NOFOLLOW : 0));
  if (!file.ok()) {
    return errno == ENOENT ? Error{Error::Kind::system, shownPath(path) + ": the file is missing"}
                           : systemError(path, "cannot be opened");
  }
  FileImage image;
  if (files.fstat(file.fd(), &image.status) != 0) {
    return systemError(path, "cannot be examined");
  }
  if (!S_ISREG(image.status.st_mode)) {
    return Error{Error::Kind::invalid, shownPath(path) + ": is not a regular file"};
  }
  if (image.status.st_size < 0 || static_cast<std::size_t>(image.status.st_size) > limit) {
    return Error{Error::Kind::invalid, fmt::format("{}: is larger than {} bytes", shownPath(path), limit)};
  }
  image.bytes.resize(static_cast<std::size_t>(image.status.st_size));
  if (!readAll(files, file.fd(), image.bytes)) {
    return systemError(path, "cannot be read");
  }
  return image;
}

Result<FileIdentity> writeFile(FileSystem& files, const std::string& path, std::span<const unsigned char> bytes,
                               std::optional<std::int64_t> after) {
  if (files.unlink(path.c_str()) != 0 && errno != ENOENT) {
    return systemError(path, "cannot be replaced");
  }
  const OpenFile file(files, path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, S_IRUSR | S_IWUSR);
  if (!file.ok()) {
    return systemError(path, "cannot be created");
  }
  const char* failed = nullptr;
  if (const auto identity = fillFile(files, file.fd(), bytes, after, failed)) {
    return *identity;
  }
  const Error error = systemError(path, failed);
  files.unlink(path.c_str());
  return error;
}

Status syncDirectory(FileSystem& files, const std::string& directory) {
  const OpenFile folder(files, directory, O_RDONLY | O_DIRECTORY);
  if (!folder.ok() || uninterrupted([&] { return files.fsync(folder.fd()); }) != 0) {
    return systemError(directory, "cannot be synced");
  }
  return {};
}

Result<FileLock> FileLock::acquire(FileSystem& files, const std::string& path) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kLockWaitSeconds);
  while (true) {
    OpenFile file(files, path, O_RDWR | O_CREAT | O_NOFOLLOW, S_IRUSR | S_IWUSR);
    if (!file.ok()) {
      return systemError(path, "cannot be opened");
    }
    if (files.flock(file.fd(), LOCK_EX | LOCK_NB) == 0) {
      // A lock on a file that was replaced meanwhile excludes nobody.
      struct stat held = {};
      struct stat named = {};
      if (files.fstat(file.fd(), &held) == 0 && files.stat(path.c_str(), &named) == 0 && held.st_dev == named.st_dev &&
          held.st_ino == named.st_ino) {
        return FileLock(files, file.release());
      }
    } else if (errno != EWOULDBLOCK && errno != EINTR) {
      return systemError(path, "cannot be locked");
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      return Error{Error::Kind::system, shownPath(path) + ": another process holds the lock"};
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

FileLock::FileLock(FileLock&& other) noexcept : files_(other.files_), fd_(std::exchange(other.fd_, -1)) {}

FileLock::~FileLock() {
  if (fd_ >= 0) {
    files_->close(fd_);
  }
}

}  // namespace engine::store
