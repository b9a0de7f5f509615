// SPDX-License-Identifier: Apache-2.0
//
// Policies and values for the tests of encryption.
#pragma once

#include <algorithm>
#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "kezu/engine.h"
#include "tests/unit/guarded_room.h"

namespace test {

using Data = std::vector<unsigned char>;

inline Data bytesOf(std::string_view text) {
  return {text.begin(), text.end()};
}

inline Data fromHex(std::string_view digits) {
  if (digits.size() % 2 != 0) throw std::invalid_argument("odd number of digits");
  Data bytes;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    bytes.push_back(static_cast<unsigned char>(std::stoi(std::string(digits.substr(i, 2)), nullptr, 16)));
  }
  return bytes;
}

inline std::string toHex(const Data& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const unsigned char byte : bytes) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

inline Data operator+(Data left, const Data& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

// Bytes that differ from their neighbours, so that a shifted result is not taken for the right one.
inline Data patternOf(std::size_t size) {
  Data bytes(size);
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(i * 7 + i / 251 + 1);
  return bytes;
}

// Codes of Q7_AddPolicyInfo, as docs/ciphertext.md has them.
enum Algorithm {
  AES128,
  AES192,
  AES256,
  ARIA128,
  ARIA192,
  ARIA256,
  SEED128,
  CAMELLIA128,
  CAMELLIA192,
  CAMELLIA256,
  SM4,
  TDES168,
  CHACHA20,
  HMAC_SHA256,
  HMAC_SHA512,
  HMAC_HAS160,
  AES128_NI = 19,
  AES256_NI = 20
};
enum BlockMode { ECB, CBC, CFB, OFB, CTR, GCM, CCM, SIV, CBC_HMAC, CFB8, CTR_HMAC, OCB };
enum IvType { DETERMINISTIC, RANDOM };
enum Encoding { RAW, BASE64, HEX };

struct PolicyParameters {
  int algorithm = AES256;
  int blockMode = CBC;
  int ivMode = RANDOM;
  int strMode = RAW;
  int encPos = 0;
  int encLen = 0;
  std::string flag{};
  Data columnKey{};  // empty: drawn
  std::string name = "p1";
};

// Whether somebody without the key can neither make nor change a value: docs/ciphertext.md, "Authentication".
inline bool isAuthenticated(const Q7EncPolicyInfo& policy) {
  switch (policy.algID == CHACHA20 ? +CTR : policy.blockMode) {
    case ECB:
      return false;
    case CBC:
    case CFB:
    case CFB8:
    case OFB:
    case CTR:
      return policy.ivMode == DETERMINISTIC;
    default:
      return true;
  }
}

// A policy and its key handle.
class Policy {
 public:
  explicit Policy(const PolicyParameters& parameters) {
    Data key = parameters.columnKey;
    made_ = Q7_AddPolicyInfo(record, &handle, parameters.name.c_str(), parameters.algorithm, parameters.ivMode,
                             key.empty() ? nullptr : key.data(),
                             key.empty() ? 0xFFFFFFFF : static_cast<unsigned int>(key.size()), parameters.encPos,
                             parameters.encLen, parameters.blockMode, parameters.strMode, parameters.flag.c_str()) != 0;
  }
  Policy(const Policy&) = delete;
  Policy& operator=(const Policy&) = delete;
  ~Policy() {
    BCIPHER_WipeKey(handle);
    BCIPHER_DelKey(handle);
  }

  explicit operator bool() const { return made_; }

  Q7EncPolicyInfo record{};
  BCipherKey handle = nullptr;

 private:
  bool made_ = false;
};

using Operation = int (*)(unsigned char*, unsigned int*, const unsigned char*, unsigned int, Q7EncPolicyInfo*,
                          _BCipherKey*);

// A result: what the operation returned, the length that it reported, and, where it returned 0, the bytes.
struct Result {
  int code;
  unsigned int length;
  Data bytes;
};

// Runs an operation with an output of exactly `capacity` bytes and inputs of exactly their size, so that a byte too
// many is noticed, whoever reads or writes it.
inline Result run(Operation operation, const Data& in, const Q7EncPolicyInfo& record, BCipherKey handle,
                  unsigned int capacity) {
  static thread_local GuardedRoom input;
  static thread_local GuardedRoom output;
  unsigned char* exact = input.take(in.size());
  std::copy(in.begin(), in.end(), exact);
  unsigned char* out = output.take(capacity);
  std::fill_n(out, capacity, static_cast<unsigned char>(0xEE));
  Q7EncPolicyInfo copy = record;
  Result result{0, capacity, {}};
  result.code = operation(out, &result.length, exact, static_cast<unsigned int>(in.size()), &copy, handle);
  if (result.code == 0) result.bytes.assign(out, out + result.length);
  return result;
}

inline std::optional<Data> encrypt(const Policy& policy, const Data& value) {
  const Result result = run(Q7_EncryptBinaryExt, value, policy.record, policy.handle, 16384);
  return result.code == 0 ? std::optional(result.bytes) : std::nullopt;
}

// Nothing also where the operation reported a length without a result.
inline std::optional<Data> decrypt(const Policy& policy, const Data& value) {
  const Result result = run(Q7_DecryptBinaryExt, value, policy.record, policy.handle, 16384);
  if (result.code == 0) return result.bytes;
  if (result.length != 0) throw std::runtime_error("a length without a result");
  return std::nullopt;
}

}  // namespace test
