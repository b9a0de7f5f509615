// SPDX-License-Identifier: Apache-2.0
//
// The engine on a home of its own, with tables that are the same at the start of every input.
#pragma once

namespace fuzz {

// Makes a home in memory where the system has a folder there, else in the one for temporary files, and has KEZU_HOME
// name it. It is removed at the end of the program, or by the next one where that was a finding.
void makeHome();

// Sets every table back: an administrator who is logged in, a few policies and columns, but for what `start` (bits of
// Start) says. Empties the log when it is large.
void resetTables(unsigned start);

}  // namespace fuzz
