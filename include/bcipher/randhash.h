// SPDX-License-Identifier: Apache-2.0
//
// Random numbers for identifiers and keys, from OpenSSL's generator (seeded by the operating system).
#pragma once

#pragma GCC visibility push(default)

extern "C" {

// Context of one drawer, on the caller's stack or wherever it likes. It holds no secret and needs no release.
struct RANDHASH_CTX {
  unsigned int ready;  // set by RANDHASH_Initialize
};

// Prepares a context. Returns 0, non-zero for a null context.
int RANDHASH_Initialize(RANDHASH_CTX* ctx);

// Fills `buffer` with `length` random bytes. Returns 0; non-zero, with the buffer zeroed, when the context was not
// prepared or the generator fails. Length 0 is accepted and writes nothing.
int RANDHASH_GetRandomNum(unsigned char* buffer, unsigned int length, RANDHASH_CTX* ctx);

}  // extern "C"

#pragma GCC visibility pop
