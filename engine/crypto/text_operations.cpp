// SPDX-License-Identifier: Apache-2.0
//
// Base64 and hexadecimal text for callers of the engine.
#include <climits>
#include <cstddef>

#include "engine/crypto/text_encoding.h"
#include "kezu/engine.h"

extern "C" {

int Q7_GetEncode64(char* out, unsigned int capacity, unsigned int* outLen, unsigned char* in, int inLen) {
  if (outLen == nullptr) return 1;
  *outLen = 0;
  if (inLen < 0 || (in == nullptr && inLen > 0) || (out == nullptr && capacity > 0)) return 1;
  const engine::Bytes data(in, static_cast<std::size_t>(inLen));
  const std::size_t size = engine::base64Size(data.size());
  if (size > capacity) return 1;
  engine::encodeBase64(reinterpret_cast<unsigned char*>(out), data);
  if (size < capacity) out[size] = '\0';
  *outLen = static_cast<unsigned int>(size);
  return 0;
}

int bin2hex(char* in, char* out, int length, int flag) {
  if (out == nullptr) return 0;
  const bool usable = length >= 0 && length <= INT_MAX / 2 && (in != nullptr || length == 0);
  const std::size_t size = usable ? static_cast<std::size_t>(length) : 0;
  engine::encodeHex(reinterpret_cast<unsigned char*>(out), {reinterpret_cast<const unsigned char*>(in), size},
                    flag != 0);
  out[engine::hexSize(size)] = '\0';
  return static_cast<int>(engine::hexSize(size));
}

}  // extern "C"
