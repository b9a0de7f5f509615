// SPDX-License-Identifier: Apache-2.0
//
// Reporting changes and logins to the audit log. What the logging library reports is not looked at: an event that
// cannot be written is lost without effect.
#pragma once

#include <initializer_list>
#include <string>
#include <vector>

struct AuditPair {
  std::string key;
  std::string value;
};

// Writes one event of key and value pairs, at a level of logw/logw.h. An event has room for 1023 texts; those past them
// are left out.
void writeAuditEvent(int level, const std::vector<AuditPair>& pairs);

// The same for an event whose texts do not come in pairs.
void writeAuditTexts(int level, std::initializer_list<std::string> texts);
