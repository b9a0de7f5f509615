// SPDX-License-Identifier: Apache-2.0
//
// Finds lines of a log file by number.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "logging/unique_fd.h"

namespace logging {

// Where the lines of one file begin. Every kStride-th line's offset is kept, 8 bytes each (a million lines: 31 KiB).
// The first look reads the file once; later ones read what was appended since. A file that was replaced or cut is read
// anew: it is recognised by device, inode and size, and, since an inode number may come back and a cut file grow again,
// by the bytes at its start and at the end of what was read.
//
// Only lines that are ended count. From any thread; operations throw nothing but std::bad_alloc. A file that is missing
// or can't be read has no lines.
class LineIndex {
 public:
  static constexpr std::uint64_t kStride = 256;

  explicit LineIndex(std::string path) : path_(std::move(path)) {}

  const std::string& path() const noexcept { return path_; }

  // Number of lines in the file as it is now.
  std::uint64_t countLines();

  // Line `number` (from 0) without its line end, cut after kMaxLine bytes; empty when there is none.
  std::string readLine(std::uint64_t number);

 private:
  UniqueFd look();
  bool isContinued(int fd, const struct stat& status) const;
  void extend(int fd, std::uint64_t size);
  void remember(int fd);
  void forget();

  const std::string path_;
  std::mutex mutex_;  // guards all below
  dev_t device_ = 0;
  ino_t inode_ = 0;
  std::uint64_t scanned_ = 0;           // bytes read so far
  std::uint64_t lines_ = 0;             // line ends among them
  std::vector<std::uint64_t> offsets_;  // [i] is where line i * kStride begins
  std::string head_;                    // the file's first bytes
  std::string tail_;                    // the bytes in front of scanned_
};

}  // namespace logging
