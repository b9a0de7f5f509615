// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <initializer_list>
#include <string>

// Writes one event to the audit log: texts as key and value in turn, at a level of logw/logw.h. What the logging
// library reports is not looked at; an event that cannot be written is lost without effect.
void writeAuditEvent(int level, std::initializer_list<std::string> texts);
