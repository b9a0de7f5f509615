// SPDX-License-Identifier: Apache-2.0
//
// Files of the source tree that tests read.
#pragma once

#include <string>

namespace test {

// The bytes of a file, by its path from the tests' folder. Throws when it can't be read.
std::string readSource(const std::string& path);

}  // namespace test
