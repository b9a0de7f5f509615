// SPDX-License-Identifier: Apache-2.0
//
// What the tests set of the logging and random-number libraries.
#pragma once

#include <map>
#include <string>
#include <vector>

struct lw_category;

namespace conformance {

// The lines that each log holds, by type and date.
std::map<int, std::map<std::string, std::vector<std::string>>>& logLines();

// The handle that lw_get_category gives unless it is scripted to give none (result 1).
lw_category* auditCategory();

// Number that logwCategory gives.
inline constexpr int kAuditCategoryNumber = 73;

}  // namespace conformance
