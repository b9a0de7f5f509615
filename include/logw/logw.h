// SPDX-License-Identifier: Apache-2.0
//
// Writing the audit log.
#pragma once

#pragma GCC visibility push(default)

extern "C" {

// What a category is to lw_log.
struct lw_category;

// Levels of an event.
inline constexpr int kLogChange = 2;   // a completed change, or a successful login
inline constexpr int kLogNotice = 3;   // a change that the rules refuse, or a fall-back
inline constexpr int kLogFailure = 4;  // a failure

// Number of the audit log's category.
int logwCategory();

// The handle of a category, or null for a number that is none. It lives as long as the library.
lw_category* lw_get_category(int category);

// Writes one event as one line: the time (ISO 8601 with milliseconds and zone), the level, then each key with its value
// as key="value". Control characters, quotes, backslashes and line ends inside are escaped, so that no value can forge
// a line.
//   category  from lw_get_category; with null nothing is written.
//   level     one of the levels above; written as its number.
//   messages  zero-terminated texts, key and value in turn, ended by a null pointer. A last key without a value is
//             written as key="".
// Returns 0 when the line was written; non-zero when it was lost (no log is configured, the file cannot be written).
// May be called from any thread, from several at once; lines never mix.
int lw_log(lw_category* category, int level, const char* const* messages);

}  // extern "C"

#pragma GCC visibility pop
