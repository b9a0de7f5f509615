// SPDX-License-Identifier: Apache-2.0
//
// The policy table as its writers and listings see it.
#pragma once

#include <string_view>

// The slot in use.
int activePolicySlot();

// Number of policies in the slot in use.
int activePolicyCount();

// Index of the policy `name` in a slot, compared exactly; -1 when there is none.
int findPolicyIn(int slot, std::string_view name);

// Wipes and deletes all key handles of a slot and zeroes its records. The slot's count is left alone.
void clearPolicySlot(int slot);
