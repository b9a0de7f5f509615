// SPDX-License-Identifier: Apache-2.0
//
// toml++, to be included through this header only.
//
// Its parser rests on assumptions about the text that some texts don't keep. Its assertions end the process where they
// are on, and let the compiler take them for granted where they are off. Here they are checks in every build: a text
// that fails one makes the parser throw std::invalid_argument.
#pragma once

#include <stdexcept>

#pragma push_macro("NDEBUG")
#undef NDEBUG
#define TOML_ASSERT(expr) (static_cast<bool>(expr) ? static_cast<void>(0) : throw std::invalid_argument("no TOML"))
#include <toml++/toml.h>
#pragma pop_macro("NDEBUG")
