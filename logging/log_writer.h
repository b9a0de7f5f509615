// SPDX-License-Identifier: Apache-2.0
//
// Appends lines to the log of the day.
#pragma once

#include <mutex>
#include <string>

#include "logging/unique_fd.h"

namespace logging {

// Keeps the day's file open. Each line is one write(2) to a file opened for append, so that lines of several processes
// don't mix; a lock keeps the lines of this process in the order of their times. The file is opened anew when the day
// or the folder changes, and when it was removed, renamed or replaced. A line waits for other
// processes' writers at most some 100 milliseconds. Lines reach the operating system, not the disk: nothing is synced.
//
// A line that was only partly written (full disk) is lost; the piece of it that got there is ended by the next line's
// writer, so that the next line stands alone.
class LogWriter {
 public:
  // Stamps a line from formatEvent() and writes it. Returns false when it was lost: no folder is set, or the file can't
  // be opened or written. From any thread. Throws std::bad_alloc.
  bool append(std::string line);

 private:
  bool openFor(std::string path, const std::string& directory);
  bool stillNamed() const noexcept;
  bool lastLineIsOpen() const noexcept;

  std::mutex mutex_;
  std::string path_;  // of the open file
  UniqueFd file_;
};

}  // namespace logging
