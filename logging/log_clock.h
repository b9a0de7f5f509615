// SPDX-License-Identifier: Apache-2.0
//
// The logs' clock, so that tests can cross midnight.
#pragma once

#include <ctime>

namespace logging {

using Clock = timespec (*)() noexcept;

// The time to log with: the system's real-time clock unless setClock() replaced it.
timespec now() noexcept;

// Replaces the clock; null brings the system's back. From any thread.
void setClock(Clock clock) noexcept;

}  // namespace logging
