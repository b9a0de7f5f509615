// SPDX-License-Identifier: Apache-2.0
//
// What a fuzz program says when the code under test broke a promise.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace fuzz {

// Ends the program unless `holds`, so that libFuzzer keeps the input. `promise` says what did not hold.
inline void demand(bool holds, const char* promise) {
  if (!holds) {
    std::fprintf(stderr, "BROKEN: %s\n", promise);
    std::abort();
  }
}

}  // namespace fuzz
