// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

// Stores a password value for the administrator `id`, in a new record at the end when there is none. At most 128 bytes;
// a value of exactly 128 fills its field, and its terminating zero empties the session id behind it, which ends that
// session. Returns the record's index; -1, with nothing changed, for a value that is too long or holds a zero byte, and
// when only records from index 15 on are left (with a line on standard output). Does not save: the caller holds the
// guard of changes (kezu/change.h) until it has.
int setPasswd(const std::string& id, const std::string& passwd);
