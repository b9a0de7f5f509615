// SPDX-License-Identifier: Apache-2.0
//
// The engine on a home of its own, with tables that are the same at the start of every input.
#pragma once

namespace fuzz {

// Makes a home in memory where the system has room there, else in the folder for temporary files, to be removed at the
// end of the program, and has KEZU_HOME name it.
void makeHome();

// Sets every table back: an administrator who is logged in, a few policies and columns, but for what `start` (bits of
// Start) says. Empties the log when it is large.
void resetTables(unsigned start);

}  // namespace fuzz
