// SPDX-License-Identifier: Apache-2.0
#include "logging/log_clock.h"

#include <atomic>

namespace logging {
namespace {

timespec systemClock() noexcept {
  timespec time = {};
  clock_gettime(CLOCK_REALTIME, &time);
  return time;
}

constinit std::atomic<Clock> g_clock = &systemClock;

}  // namespace

timespec now() noexcept {
  return g_clock.load(std::memory_order_acquire)();
}

void setClock(Clock clock) noexcept {
  g_clock.store(clock != nullptr ? clock : &systemClock, std::memory_order_release);
}

}  // namespace logging
