// SPDX-License-Identifier: Apache-2.0
//
// What a fuzz program says when the code under test broke a promise.
#pragma once

#include <sanitizer/common_interface_defs.h>

#include <cstdlib>

namespace fuzz {

// Ends the program unless `holds`, so that libFuzzer keeps the input. `promise` is what did not hold.
inline void demand(bool holds, const char* promise) {
  if (!holds) {
    __sanitizer_report_error_summary("BROKEN:");
    __sanitizer_report_error_summary(promise);
    std::abort();
  }
}

}  // namespace fuzz
