// SPDX-License-Identifier: Apache-2.0
//
// Watches the first write to each of a few variables, to tell the order in which code under test stores them. Each must
// stand on a memory page of its own.
#pragma once

#include <csignal>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace conformance {

// Watches from its construction until each variable was written once, or to its end. One at a time.
class WriteWatch {
 public:
  explicit WriteWatch(std::vector<std::pair<std::string, void*>> variables);
  ~WriteWatch();
  WriteWatch(const WriteWatch&) = delete;
  WriteWatch& operator=(const WriteWatch&) = delete;

  // Names of the variables that were written, in the order of their first write.
  std::vector<std::string> order() const;

 private:
  struct sigaction before_ = {};
};

}  // namespace conformance
