// SPDX-License-Identifier: Apache-2.0
#include "test_clock.h"

#include <atomic>

namespace {

std::atomic<time_t> g_now{conformance::kStart};
std::atomic<time_t> g_tick{0};

}  // namespace

// Takes precedence over libc's for everything that is linked into this program.
extern "C" time_t time(time_t* out) noexcept {
  const time_t now = g_now.fetch_add(g_tick.load());
  if (out != nullptr) {
    *out = now;
  }
  return now;
}

namespace conformance {

void setTime(time_t now) {
  g_tick = 0;
  g_now = now;
}

void advanceTime(time_t seconds) {
  g_now += seconds;
}

time_t currentTime() {
  return g_now;
}

void tickOnEachReading(time_t seconds) {
  g_tick = seconds;
}

}  // namespace conformance
