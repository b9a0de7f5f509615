// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

// 1 when `name` can name a policy, else 0: at most 16 bytes, ASCII letters and digits only. The empty name is accepted.
int Q7_CheckPolicyName(std::string& name);

// Index of the policy `name` in the active slot, compared exactly; -1 when there is none.
int findPolicy(std::string& name);
