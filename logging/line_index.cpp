// SPDX-License-Identifier: Apache-2.0
#include "logging/line_index.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "logging/line_format.h"

namespace logging {
namespace {

constexpr std::size_t kChunk = 16384;   // bytes read at once; lives on the stack of a connection thread
constexpr std::uint64_t kSample = 128;  // bytes compared at the start and at the end: more than a time stamp

using Chunk = std::array<char, kChunk>;

// Reads at most `limit` bytes at an offset. Empty at the end of the file and on an error.
std::string_view readAt(int fd, Chunk& chunk, std::uint64_t offset, std::uint64_t limit) noexcept {
  const std::size_t wanted = static_cast<std::size_t>(std::min<std::uint64_t>(limit, chunk.size()));
  ssize_t got = 0;
  do {
    got = pread(fd, chunk.data(), wanted, static_cast<off_t>(offset));
  } while (got < 0 && errno == EINTR);
  return {chunk.data(), got > 0 ? static_cast<std::size_t>(got) : 0};
}

std::string sampleAt(int fd, std::uint64_t offset, std::uint64_t size) {
  Chunk chunk;
  return std::string(readAt(fd, chunk, offset, size));
}

}  // namespace

std::uint64_t LineIndex::countLines() {
  const std::scoped_lock lock(mutex_);
  look();
  return lines_;
}

std::string LineIndex::readLine(std::uint64_t number) {
  const std::scoped_lock lock(mutex_);
  const UniqueFd file = look();
  std::string line;
  if (!file || number >= lines_) {
    return line;
  }
  Chunk chunk;
  std::uint64_t offset = offsets_[number / kStride];
  std::uint64_t toSkip = number % kStride;
  while (line.size() < kMaxLine) {
    std::string_view text = readAt(file.get(), chunk, offset, kChunk);
    if (text.empty()) {
      return {};  // cut since it was looked at
    }
    offset += text.size();
    std::size_t end = text.find('\n');
    for (; toSkip > 0 && end != std::string_view::npos; --toSkip) {
      text.remove_prefix(end + 1);
      end = text.find('\n');
    }
    if (toSkip == 0) {
      line.append(text.substr(0, end));
      if (end != std::string_view::npos) {
        break;
      }
    }
  }
  line.resize(std::min(line.size(), kMaxLine));
  return line;
}

// Brings the index up to date with the file. Returns the file, open for reading; empty when there is none.
UniqueFd LineIndex::look() {
  UniqueFd file = openRegularFile(path_, O_RDONLY);
  struct stat status = {};
  if (!file || fstat(file.get(), &status) != 0) {
    forget();
    return {};
  }
  if (!isContinued(file.get(), status)) {
    forget();
    device_ = status.st_dev;
    inode_ = status.st_ino;
  }
  extend(file.get(), static_cast<std::uint64_t>(status.st_size));
  return file;
}

// Whether the file is the one that was read, with nothing changed up to there.
bool LineIndex::isContinued(int fd, const struct stat& status) const {
  return device_ == status.st_dev && inode_ == status.st_ino &&
         scanned_ <= static_cast<std::uint64_t>(status.st_size) && head_ == sampleAt(fd, 0, head_.size()) &&
         tail_ == sampleAt(fd, scanned_ - tail_.size(), tail_.size());
}

void LineIndex::extend(int fd, std::uint64_t size) {
  if (scanned_ >= size) {
    return;
  }
  if (offsets_.empty()) {
    offsets_.push_back(0);
  }
  Chunk chunk;
  while (scanned_ < size) {
    const std::string_view text = readAt(fd, chunk, scanned_, size - scanned_);
    if (text.empty()) {
      break;
    }
    for (std::size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n', end + 1)) {
      if ((lines_ + 1) % kStride == 0) {
        offsets_.push_back(scanned_ + end + 1);
      }
      ++lines_;
    }
    scanned_ += text.size();
  }
  remember(fd);
}

void LineIndex::remember(int fd) {
  const std::uint64_t sample = std::min(scanned_, kSample);
  head_ = sampleAt(fd, 0, sample);
  tail_ = sampleAt(fd, scanned_ - sample, sample);
}

void LineIndex::forget() {
  device_ = 0;
  inode_ = 0;
  scanned_ = 0;
  lines_ = 0;
  offsets_.clear();
  head_.clear();
  tail_.clear();
}

}  // namespace logging
