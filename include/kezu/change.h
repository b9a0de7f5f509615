// SPDX-License-Identifier: Apache-2.0
//
// Changes of the configuration, one at a time.
#pragma once

#pragma GCC visibility push(default)

extern "C" {

// The guard of changes. A change is everything from the first look at a table to the end of its save: whoever changes a
// table, a mode or a session of kezu/engine.h holds the guard all that time, so that no other connection's change and
// no reload comes in between. Who only reads goes without, and no operation on the path of a row takes it.
//
// Begin waits until nobody else is changing anything; End, on the same thread, ends that. They don't fail. The wait is
// as long as the changes that came first take: a change's save waits at most 5 seconds for the home's lock, which
// another process may hold, and fails then. A thread that holds the guard may begin again, and gives it back with the
// last End; an End too many does nothing.
//
// The engine's reloads and loads replace tables and take the guard themselves, as do its saves. Therefore a thread may
// save while it holds the guard, but not reload, load or fetch (Q7_Reload..., Q7_Load..., Q7_GetPolicyInfoFromKMS):
// that would replace what it is changing. Nor may it begin a change while it holds the guard of the rules
// (kezu/query_priv.h), which is taken inside this one.
void Q7_BeginChange() noexcept;
void Q7_EndChange() noexcept;

}  // extern "C"

#pragma GCC visibility pop

namespace kezu {

// Holds the guard of changes as long as it lives.
class ConfigurationChange {
 public:
  ConfigurationChange() noexcept { Q7_BeginChange(); }
  ConfigurationChange(const ConfigurationChange&) = delete;
  ConfigurationChange& operator=(const ConfigurationChange&) = delete;
  ~ConfigurationChange() { Q7_EndChange(); }
};

}  // namespace kezu
