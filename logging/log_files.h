// SPDX-License-Identifier: Apache-2.0
//
// Where the log of a day is.
#pragma once

#include <string>
#include <string_view>

namespace logging {

// Whether a text is a date as the logs are named by: YYYY-MM-DD, digits and hyphens only. Nothing else ever becomes
// part of a path.
bool isDate(std::string_view text) noexcept;

// The path of the audit log of a date that isDate(). Throws std::bad_alloc.
std::string auditLogPath(const std::string& directory, std::string_view date);

// The folder of the log files, as setLogDirectory() set it; empty when there is none. From any thread. Throws
// std::bad_alloc.
std::string logDirectory();

}  // namespace logging
