// SPDX-License-Identifier: Apache-2.0
//
// Memory for keys that live long: kept out of core dumps.
#pragma once

#include <cstddef>

namespace cipher {

inline constexpr std::size_t kPageSize = 4096;

// Keeps memory out of core dumps (MADV_DONTDUMP). Whole pages: `memory` begins one, and what follows `size` bytes to
// the end of the last one goes with them. A kernel that can't do it leaves everything as it is.
void hideFromDumps(void* memory, std::size_t size) noexcept;

// Memory on pages of its own that is kept out of core dumps, or null. Given back with freeHidden() and the same size,
// which wipes it.
void* allocateHidden(std::size_t size) noexcept;
void freeHidden(void* memory, std::size_t size) noexcept;

}  // namespace cipher
