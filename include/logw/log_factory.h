// SPDX-License-Identifier: Apache-2.0
//
// Reading logs back, one line at a time.
#pragma once

#include <cstdint>
#include <string>

#pragma GCC visibility push(default)

// A kind of log: one file a day. Every operation may be called from any thread.
class Log {
 public:
  virtual ~Log() = default;

  // Number of complete lines in the log of `date` ("YYYY-MM-DD", local time). 0 for a day without a log and for a text
  // that is not of that form. Lines that were appended since the last call are seen.
  virtual std::uint64_t getNumTotalLines(const std::string& date) = 0;

  // Line `lineNum` (from 0) of the log of `date`, without its line end, as zero-terminated text; the empty text when
  // there is no such line. The text belongs to the Log and stays valid for the next seven calls from the same thread.
  virtual const char* getLog(const std::string& date, unsigned int lineNum) = 0;
};

// Where the logs are found.
class LogFactory {
 public:
  // The one factory of the process. Never null.
  static LogFactory* getLogFactory();

  // The log of a type: 0 is the audit log. A type that is not known has an empty log. Never null; lives as long as the
  // library.
  Log* getLog(int logType);

 private:
  LogFactory() = default;
};

#pragma GCC visibility pop
