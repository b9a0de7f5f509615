// SPDX-License-Identifier: Apache-2.0
//
// Random initialization vectors.
#pragma once

#include <span>

namespace cipher {

// Fills `iv` (at most 4096 bytes) with random bytes that were never given out before. They come from OpenSSL's
// generator, drawn 4096 bytes at a time into a block of the calling thread's, and are wiped there as they are used. A
// process that forks does not share what is left of a block with its child. False, with `iv` untouched, when the
// generator fails.
bool randomIv(std::span<unsigned char> iv) noexcept;

}  // namespace cipher
