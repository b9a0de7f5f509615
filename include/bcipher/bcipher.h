// SPDX-License-Identifier: Apache-2.0
//
// Cipher key handles, as holders of the policy table see them.
#pragma once

#pragma GCC visibility push(default)

extern "C" {

// A prepared cipher key. Opaque: only the cipher library reads or writes the fields.
struct _BCipherKey {       // NOLINT(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the interface's name
  int alg;                 // algorithm code
  unsigned char* keyMat;   // key material
  unsigned int keyMatLen;  // bytes of key material
  void* roundKey;          // what the ciphers prepared from it
};
using BCipherKey = _BCipherKey*;

// Handles are type-stable: the memory of a deleted handle is only ever reused for another handle, so that a thread that
// still holds it reads a handle that is not valid any more, never foreign memory. Every operation may be called from
// any thread, with a null handle as well.

// A new handle with its own copy of the key material. Null for a null handle, a wiped one, or when memory runs out. The
// caller owns it.
BCipherKey BCIPHER_DupKey(BCipherKey key);

// Overwrites the key material and everything prepared from it. The handle stays allocated and encrypts nothing any
// more. Operations that are under way with it in other threads end without a result. A null handle is left alone.
void BCIPHER_WipeKey(BCipherKey key);

// Gives the handle back, wiping it first where that has not been done. A null handle, or one that was given back, is
// left alone.
void BCIPHER_DelKey(BCipherKey key);

// 1 when the processor has AES instructions, else 0.
int Check_CPU_support_AES();

}  // extern "C"

#pragma GCC visibility pop
