// SPDX-License-Identifier: Apache-2.0
//
// The guard of the rule table.
#include <shared_mutex>

#include "kezu/query_priv.h"

namespace {

constinit std::shared_mutex mutex;
constinit thread_local int held_for_writing = 0;  // how often by this thread

}  // namespace

extern "C" {

void Q7_LockQueryPriv(Q7QueryPrivUse use) noexcept {
  if (held_for_writing > 0) {
    ++held_for_writing;
  } else if (use == Q7_QUERY_PRIV_READ) {
    mutex.lock_shared();
  } else {
    mutex.lock();
    held_for_writing = 1;
  }
}

void Q7_UnlockQueryPriv(Q7QueryPrivUse use) noexcept {
  if (held_for_writing == 0 && use == Q7_QUERY_PRIV_READ) {
    mutex.unlock_shared();
  } else if (--held_for_writing == 0) {
    mutex.unlock();
  }
}

}  // extern "C"
