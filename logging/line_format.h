// SPDX-License-Identifier: Apache-2.0
//
// From an event to its line. A line reads
//
//   2026-01-31T23:59:59.123+09:00 2 group="policy" desc="SET ENV ACCESS DENY PRIOR"
//
// and holds no control character, no bare quote and no line end but its own, whatever the texts hold.
#pragma once

#include <cstddef>
#include <ctime>
#include <string>

namespace logging {

// Bytes of a time stamp: YYYY-MM-DDThh:mm:ss.mmm and the zone as +hh:mm.
inline constexpr std::size_t kStampSize = 29;

// Bytes of a date, YYYY-MM-DD: the stamp's leading bytes.
inline constexpr std::size_t kDateSize = 10;

// Longest line in bytes, its line end included. A value that would go past it is cut between two characters, a key that
// would is left out; the line then ends in `[cut]` behind a closing quote, where no text can put it, and whatever pairs
// follow are left out.
inline constexpr std::size_t kMaxLine = 65536;

// The line of an event, line end included, with kStampSize blanks where the time stamp goes.
//   level     written in decimal.
//   messages  zero-terminated texts, key and value in turn, ended by a null pointer; a last key without a value gets an
//             empty one.
// Throws std::bad_alloc.
//
// Escapes: \" \\ \n \r \t, and \xNN (lower-case digits) for the other bytes of control characters (C0, DEL, C1, line
// and paragraph separators, the controls that reorder bidirectional text) and for bytes that are not part of valid
// UTF-8 (RFC 3629). In keys also \x3d: a pair's key ends at the first =", and its value at the next quote that is not
// escaped. Blanks in keys stand as they are.
std::string formatEvent(int level, const char* const* messages);

// Writes the local time with milliseconds and zone over the blanks. Returns false, with the line unchanged, for a time
// that has no year of four digits.
bool stampTime(std::string& line, const timespec& time) noexcept;

}  // namespace logging
