// SPDX-License-Identifier: Apache-2.0
//
// The guard of changes.
#include <mutex>

#include "kezu/change.h"

namespace {

constinit std::mutex mutex;
constinit thread_local int held = 0;  // how often by this thread

}  // namespace

extern "C" {

void Q7_BeginChange() noexcept {
  if (held == 0) {
    mutex.lock();
  }
  ++held;
}

void Q7_EndChange() noexcept {
  if (held > 0 && --held == 0) {
    mutex.unlock();
  }
}

}  // extern "C"
