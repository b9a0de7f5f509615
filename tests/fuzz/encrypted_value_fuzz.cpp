// SPDX-License-Identifier: Apache-2.0
//
// Any bytes as an encrypted value, and as a clear one, under any policy.
//
//   6 bytes  policy: algorithm, block mode, IV type, text encoding, range, flag
//   1 byte   bit 0: the value is clear; the other bits: bytes of output to spare, 0 for plenty of them
//   3 bytes  for a clear value: what to change in it once it is encrypted, 2 bytes where, 1 byte how
//   n bytes  value
#include <algorithm>
#include <string>

#include "fuzz/demand.h"
#include "fuzz/input.h"
#include "fuzz/value_policies.h"
#include "tests/unit/independent_cipher.h"

namespace {

using fuzz::demand;
using test::Data;
using test::Policy;

constexpr std::size_t kPlenty = 1 << 16;

bool oneWay(const Q7EncPolicyInfo& policy) {
  return policy.algID >= test::HMAC_SHA256 && policy.algID <= test::HMAC_HAS160;
}

bool leavesAsIs(const Q7EncPolicyInfo& policy, const Data& value) {
  const bool partial = policy.encPos != 0 || policy.encLen != 0;
  return partial && value.size() <= static_cast<std::size_t>(policy.encPos);
}

// The text of raw bytes in the policy's encoding.
Data encoded(const Q7EncPolicyInfo& policy, const Data& raw) {
  if (policy.strMode == test::HEX) return test::bytesOf(test::toHex(raw));
  if (policy.strMode == test::RAW) return raw;
  Data text(4 * ((raw.size() + 2) / 3) + 1);
  const int length = EVP_EncodeBlock(text.data(), raw.data(), static_cast<int>(raw.size()));
  text.resize(static_cast<std::size_t>(length));
  return text;
}

// The first bytes of a raw value, from its text.
Data headOfRaw(const Q7EncPolicyInfo& policy, const Data& text, std::size_t size) {
  if (policy.strMode == test::RAW) return {text.begin(), text.begin() + static_cast<std::ptrdiff_t>(size)};
  if (policy.strMode == test::HEX) {
    Data raw = test::fromHex(std::string(text.begin(), text.end()));
    raw.resize(size);
    return raw;
  }
  Data raw(text.size() + 3);
  demand(EVP_DecodeBlock(raw.data(), text.data(), static_cast<int>(text.size())) >= static_cast<int>(size),
         "what was decrypted is Base64");
  raw.resize(size);
  return raw;
}

// What came out of a value encrypts to that value and no other: computed a second time, from the documentation, with
// the initialization vector that the value carries or, where it is not random, with the one that belongs to the text.
void checkOpened(const Policy& policy, const Data& value, const Data& clear) {
  const Q7EncPolicyInfo& record = policy.record;
  demand(!oneWay(record), "nothing comes out of a digest");
  const test::independent::Parts parts = test::independent::split(record, clear);
  const Data flag(record.encFlag, record.encFlag + record.encFlagLen);
  const std::size_t clearParts = parts.before.size() + parts.after.size();
  demand(value.size() >= clearParts + flag.size(), "a value holds its clear parts and its flag");
  const auto start = value.begin() + static_cast<std::ptrdiff_t>(parts.before.size() + flag.size());
  const Data text(start, value.end() - static_cast<std::ptrdiff_t>(parts.after.size()));
  const std::size_t ivSize = test::independent::ivSizeOf(record);
  const Data head = headOfRaw(record, text, 1 + ivSize);
  const Data raw = test::independent::rawOf(record, parts, Data(head.begin() + 1, head.end()));
  using test::operator+;
  demand(parts.before + flag + encoded(record, raw) + parts.after == value, "what is decrypted encrypts to its value");
}

// Runs an operation; nothing for no result.
std::optional<Data> run(test::Operation operation, const Policy& policy, const Data& value, std::size_t capacity) {
  const test::Result result =
      test::run(operation, value, policy.record, policy.handle, static_cast<unsigned int>(capacity));
  if (result.code == 0) {
    demand(result.length <= capacity, "a result fits its room");
    return result.bytes;
  }
  demand(result.length == 0 || result.length > capacity, "without a result the length is none, or what is needed");
  return std::nullopt;
}

std::optional<Data> decrypt(const Policy& policy, const Data& value, std::size_t capacity) {
  const auto clear = run(Q7_DecryptBinaryExt, policy, value, capacity);
  if (!clear) return clear;
  demand(clear->size() <= value.size(), "nothing decrypts to more than itself");
  if (leavesAsIs(policy.record, value)) {
    demand(*clear == value, "a value that ends before the range stays as it is");
  } else {
    checkOpened(policy, value, *clear);
  }
  return clear;
}

struct Change {
  std::size_t where;
  unsigned char how;
};

void checkClear(const Policy& policy, const Data& clear, std::size_t capacity, const Change& change) {
  run(Q7_EncryptBinaryExt, policy, clear, capacity);
  auto value = run(Q7_EncryptBinaryExt, policy, clear, kPlenty + clear.size() * 2);
  if (!value) {
    demand(policy.record.encFlagLen != 0, "every value can be encrypted, unless it looks encrypted already");
    return;
  }
  if (oneWay(policy.record) && !leavesAsIs(policy.record, clear)) {
    demand(!decrypt(policy, *value, kPlenty), "nothing comes out of a digest");
    return;
  }
  demand(decrypt(policy, *value, kPlenty) == clear, "what was encrypted decrypts to itself");
  if (leavesAsIs(policy.record, clear) || change.how == 0) return;
  (*value)[change.where % value->size()] ^= change.how;
  const auto changed = decrypt(policy, *value, kPlenty);
  demand(!changed || !test::isAuthenticated(policy.record), "a changed value is noticed");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  fuzz::Input input({data, size});
  fuzz::PolicyNumbers numbers{};
  for (unsigned* number :
       {&numbers.algorithm, &numbers.blockMode, &numbers.ivMode, &numbers.encoding, &numbers.range, &numbers.flag}) {
    *number = input.byte();
  }
  const Policy& policy = fuzz::policyOf(numbers);
  if (!policy) return 0;
  const unsigned action = input.byte();
  const std::size_t capacity = action < 2 ? kPlenty : action / 2;
  if (action % 2 == 0) {
    const fuzz::Bytes value = input.rest();
    decrypt(policy, Data(value.begin(), value.end()), capacity);
    return 0;
  }
  const Change change{static_cast<std::size_t>(input.number(2)), static_cast<unsigned char>(input.byte())};
  const fuzz::Bytes clear = input.rest();
  checkClear(policy, Data(clear.begin(), clear.end()), capacity, change);
  return 0;
}
