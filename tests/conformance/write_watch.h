// SPDX-License-Identifier: Apache-2.0
//
// Watches the first write to each of a few variables, to tell the order in which code under test stores them. Each must
// stand on a memory page of its own.
#pragma once

#include <csignal>
#include <cstddef>
#include <string>
#include <vector>

namespace conformance {

struct WatchedVariable {
  std::string name;
  void* start;
  std::size_t size;  // bytes
};

// Watches from its construction until each variable was written once, or to its end. One at a time.
class WriteWatch {
 public:
  explicit WriteWatch(const std::vector<WatchedVariable>& variables);
  ~WriteWatch();
  WriteWatch(const WriteWatch&) = delete;
  WriteWatch& operator=(const WriteWatch&) = delete;

  // Names of the variables that were written, in the order of their first write. A variable that shares its page with
  // something that was written first appears as "not NAME": its own first write was not seen.
  std::vector<std::string> order() const;

 private:
  struct sigaction before_ = {};
};

}  // namespace conformance
