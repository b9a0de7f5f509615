// SPDX-License-Identifier: Apache-2.0
//
// Where a thread last found policies of a name.
#pragma once

#include <string_view>

#include "kezu/engine.h"

// The only policy of a name, in a table of this count in this slot, and its key. A table that was changed has another
// slot or, after five changes, other keys.
struct PolicyHint {
  int slot = -1;  // no slot: nothing is known
  int count = 0;
  int index = 0;
  BCipherKey key = nullptr;
};

// The calling thread's hint for a name. Another name may have the same place: it is for the caller to compare the name
// with the record's.
PolicyHint& policyHint(std::string_view name) noexcept;
