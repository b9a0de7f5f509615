// SPDX-License-Identifier: Apache-2.0
//
// The guard of changes as the engine implements it. RecordingEngine::enter looks at who holds it.
#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <utility>

#include "kezu/change.h"
#include "recording_engine.h"
#include "udf_call.h"

namespace {

constinit std::mutex changes;
constinit thread_local int held = 0;         // how often by this thread
constinit thread_local bool locked = false;  // not where it may have waited for ever: the test fails instead

// Written only while one thread calls.
std::function<void(int number)> comesFirst;
int begun = 0;

}  // namespace

void Q7_BeginChange() noexcept {
  EXPECT_FALSE(conformance::holdsRuleTable()) << "a thread that holds the rule table may wait for ever";
  if (held == 0 && !conformance::holdsRuleTable()) {
    if (comesFirst) {
      comesFirst(++begun);
    }
    changes.lock();
    locked = true;
  }
  ++held;
}

void Q7_EndChange() noexcept {
  EXPECT_GT(held, 0) << "nothing was begun";
  if (held > 0 && --held == 0 && std::exchange(locked, false)) {
    changes.unlock();
  }
}

void conformance::beforeChanges(std::function<void(int number)> first) {
  comesFirst = std::move(first);
  begun = 0;
}

bool conformance::holdsChange() {
  return held > 0;
}

void conformance::checkAfterCall() {
  EXPECT_EQ(0, held) << "the function came back in the middle of a change";
}
