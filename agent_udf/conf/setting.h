// SPDX-License-Identifier: Apache-2.0
//
// What the functions share that set and read a single number of the engine's.
#pragma once

#include <optional>
#include <string>

#include "frame/answer.h"
#include "frame/args.h"
#include "frame/function.h"

// Whether a call may go on. If not, a flag is set and the result is 0: the error flag for another number of arguments
// than `count`, the null flag for a call that checkAuth() refuses.
bool mayProceed(const frame::Args& args, frame::Flags& flags, unsigned int count);

// The answer of a getter with the arguments (session, col): the number that `read` has for `col`. SQL NULL for a call
// that checkAuth() refuses; with the error flag for another number of arguments, and for a `col` without a number.
frame::Answer readSetting(const frame::Args& args, frame::Flags& flags, frame::ServerBuffer buffer,
                          std::optional<int> (*read)(int col));

// Writes the event of a setting that changed, or was refused.
void logSetting(int level, const std::string& description);
