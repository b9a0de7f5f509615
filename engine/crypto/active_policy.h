// SPDX-License-Identifier: Apache-2.0
//
// Finding a policy by its name in the active slot of the table.
#pragma once

#include <string_view>

#include "kezu/engine.h"

namespace engine {

// The first record of that name in the active slot, or null. The slot can become another's while the caller reads the
// record: copy it first.
const Q7EncPolicyInfo* findActivePolicy(std::string_view name) noexcept;

}  // namespace engine
