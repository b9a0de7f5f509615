// SPDX-License-Identifier: Apache-2.0
//
// The query-privilege rules: which action applies to statements of two types whose texts match two patterns. Every
// operation works on the engine's table in place; nothing here reloads or saves it. Each holds the table's guard
// (kezu/query_priv.h) for as long as it needs, and none while it writes to the audit log.
#pragma once

#include <string>

#include "kezu/engine.h"

// Number of a statement type by its name in the engine's sqlType table; -1 for a name that it does not have.
int parseQueryType(const std::string& name);

namespace query_priv {

// Adds the rule (1), or changes the action of the one with the same types and patterns (2), and reports it to the audit
// log. -2, with nothing changed, when the table is full. A type that is not known counts as -1.
int set(const std::string& type1, const std::string& ptn1, const std::string& type2, const std::string& ptn2, int priv);

// Deletes the rule and reports it (3); 0 when there is none. The last rule takes its place.
int remove(const std::string& type1, const std::string& ptn1, const std::string& type2, const std::string& ptn2);

// Number of registered encrypted columns. (The number of rules is g_numberOfQueryPriv.)
int size();

// The rule at a position, or null. The position just behind the last rule has a record too, an empty or stale one, as
// long as the table has room for it. The caller holds the table's guard while it calls this and uses the rule.
Q7QueryPriv* get(int index);

// A field of the rule at a position as text: 0 first type, 1 first pattern, 2 second type, 3 second pattern, 4 action.
// The empty text where there is no such rule or field.
std::string get(int index, int field);

}  // namespace query_priv
