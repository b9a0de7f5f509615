// SPDX-License-Identifier: Apache-2.0
//
// The only file that knows where the sources are: KEZU_TESTS_FOLDER is defined for it alone. __FILE__ is no way to find
// them, since a compiler cache may make it relative.
#include "unit/source_folder.h"

#include <fstream>
#include <iterator>
#include <stdexcept>

namespace test {

std::string readSource(const std::string& path) {
  std::ifstream file(std::string(KEZU_TESTS_FOLDER "/") + path, std::ios::binary);
  if (!file) {
    throw std::runtime_error("cannot read " + path);
  }
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace test
