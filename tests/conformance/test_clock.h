// SPDX-License-Identifier: Apache-2.0
//
// The clock that the UDF library reads in these tests: time() of this program returns what is set here.
#pragma once

#include <ctime>

namespace conformance {

// A moment in 2023 that the tests start from.
inline constexpr time_t kStart = 1'700'000'000;

void setTime(time_t now);
void advanceTime(time_t seconds);
time_t currentTime();

// From now on each reading of the clock moves it on by so many seconds; setTime ends that.
void tickOnEachReading(time_t seconds);

}  // namespace conformance
