// SPDX-License-Identifier: Apache-2.0
//
// The engine's operations, recorded.
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>

#include "kezu/engine.h"
#include "recording_engine.h"

using conformance::CipherAnswer;
using conformance::CipherCall;
using conformance::inQuotes;
using conformance::RecordingEngine;

namespace {

RecordingEngine& engine() {
  return RecordingEngine::get();
}

// A call that takes nothing and returns a code.
int plainCall(const char* operation) {
  engine().enter(operation, "");
  return engine().resultOf(operation);
}

std::string textOf(const char* text) {
  return text == nullptr ? "null" : inQuotes(text);
}

std::string bytesOf(const unsigned char* bytes, std::size_t length) {
  return inQuotes({reinterpret_cast<const char*>(bytes), length});
}

void copyText(char* field, std::size_t size, const std::string& text) {
  const std::size_t length = std::min(size - 1, text.size());
  std::memcpy(field, text.data(), length);
  field[length] = '\0';
}

const EVP_MD* digestOf(int algorithm) {
  switch (algorithm) {
    case kHashSha1:
      return EVP_sha1();
    case kHashSha256:
      return EVP_sha256();
    case kHashSha512:
      return EVP_sha512();
    case kHashHas160:  // a digest of the right length stands for it
      return EVP_ripemd160();
    default:
      return nullptr;
  }
}

// The failure of an operation that has written something before it failed, its length too: none of it is a result.
int failAfterWriting(unsigned char* out, unsigned int* outLen, int result) {
  std::memset(out, 'F', 3);
  *outLen = 3;
  return result != 0 ? result : 1;
}

int hash(const char* operation, unsigned char* out, unsigned int* outLen, const unsigned char* in, unsigned int inLen,
         int algorithm) {
  engine().enter(operation, bytesOf(in, inLen) + ", " + std::to_string(algorithm));
  const int result = engine().resultOf(operation);
  const EVP_MD* digest = digestOf(algorithm);
  if (result != 0 || digest == nullptr) {
    return failAfterWriting(out, outLen, result);
  }
  return EVP_Digest(in, inLen, out, outLen, digest, nullptr) == 1 ? 0 : 1;
}

// What a decryption yields when nothing is scripted: the value that the transformation was made from, else nothing.
CipherAnswer untransformed(const CipherCall& call) {
  const std::string& in = call.input;
  if (in.empty() || in.front() != '\x81') {
    return {"", 0, 1};
  }
  return CipherAnswer::text(conformance::transformed(std::string_view(in).substr(1), call.policy).substr(1));
}

int cipher(const char* operation, bool decrypt, unsigned char* out, unsigned int* outLen, const unsigned char* in,
           unsigned int inLen, const Q7EncPolicyInfo* policy, BCipherKey key) {
  CipherCall call{operation, {}, *outLen, *policy, key, out};
  call.input.assign(reinterpret_cast<const char*>(in), inLen);
  engine().enter(operation, inQuotes(call.input) + ", " + textOf(policy->policyID) + ", " + engine().keyName(key));
  // The caller said that it has room for so many bytes.
  std::memset(out, 0xEE, *outLen);
  CipherAnswer answer;
  if (!engine().takeCipherAnswer(call, answer)) {
    answer = decrypt ? untransformed(call) : CipherAnswer::text(conformance::transformed(call.input, call.policy));
  }
  std::memcpy(out, answer.bytes.data(), std::min<std::size_t>(answer.bytes.size(), call.capacity));
  *outLen = answer.length;
  return answer.result;
}

// Gives a text to a caller that may have passed no buffer.
void giveText(char* buffer, std::size_t size, const char* operation) {
  const std::string text = engine().textOf(operation);
  if (buffer != nullptr && !text.empty()) {
    copyText(buffer, size, text);
  }
}

}  // namespace

int kezuInitialize(unsigned int mode, char* scratch, char* message) {
  engine().enter("kezuInitialize", std::to_string(mode) + ", " + (scratch != nullptr ? "scratch" : "null") + ", " +
                                       (message != nullptr ? "message" : "null"));
  const int result = engine().resultOf("kezuInitialize");
  if (scratch != nullptr) {
    std::memset(scratch, 'v', kInitScratchSize - 1);
    scratch[kInitScratchSize - 1] = '\0';
  }
  if (result != 0 && message != nullptr) {
    copyText(message, kInitMessageSize, engine().textOf("kezuInitialize", "the engine does not start"));
  }
  return result;
}

int Q7_ReloadAllInfoIfChanged() {
  return plainCall("Q7_ReloadAllInfoIfChanged");
}
int Q7_ReloadAllInfoIfChanged3() {
  return plainCall("Q7_ReloadAllInfoIfChanged3");
}
int Q7_LoadPolicyInfo(const char* source) {
  engine().enter("Q7_LoadPolicyInfo", textOf(source));
  return engine().resultOf("Q7_LoadPolicyInfo");
}
int Q7_LoadTableInfo() {
  return plainCall("Q7_LoadTableInfo");
}
int Q7_SavePolicyInfo() {
  return plainCall("Q7_SavePolicyInfo");
}
int Q7_SaveColumnInfo() {
  return plainCall("Q7_SaveColumnInfo");
}
int Q7_SaveAccessPrivInfo() {
  return plainCall("Q7_SaveAccessPrivInfo");
}
int Q7_SaveEncPrivInfo() {
  return plainCall("Q7_SaveEncPrivInfo");
}
int Q7_SaveQueryPrivInfo() {
  return plainCall("Q7_SaveQueryPrivInfo");
}
int Q7_SaveTableInfo() {
  return plainCall("Q7_SaveTableInfo");
}
int Q7_SaveUserInfo() {
  return plainCall("Q7_SaveUserInfo");
}
int Q7_GetPolicyInfoFromKMS() {
  return plainCall("Q7_GetPolicyInfoFromKMS");
}
int compareLocalAndKMSPolicy() {
  return plainCall("compareLocalAndKMSPolicy");
}

// Returns true unless told otherwise. A scripted result of 2 is success without a key handle.
int Q7_AddPolicyInfo(Q7EncPolicyInfo& policy, _BCipherKey** key, const char* name, int algorithm, int ivMode,
                     unsigned char* keyBytes, unsigned int keyLength, int encPos, int encLen, int blockMode,
                     int strMode, const char* encFlag) {
  const auto number = [](auto value) { return ", " + std::to_string(value); };
  engine().enter("Q7_AddPolicyInfo", engine().keyName(*key) + ", " + textOf(name) + number(algorithm) + number(ivMode) +
                                         (keyBytes == nullptr ? ", null" : ", bytes") + number(keyLength) +
                                         number(encPos) + number(encLen) + number(blockMode) + number(strMode) + ", " +
                                         textOf(encFlag));
  const int result = engine().resultOf("Q7_AddPolicyInfo", 1);
  if (result == 0) {
    return 0;
  }
  policy = {};
  copyText(policy.policyID, sizeof policy.policyID, name);
  policy.algID = algorithm;
  policy.ivMode = ivMode;
  policy.columnKey[0] = 'K';
  policy.keyLength = 32;
  policy.encPos = encPos;
  policy.encLen = encLen;
  policy.blockMode = blockMode;
  policy.strMode = strMode;
  policy.encFlagLen = static_cast<int>(std::min(std::strlen(encFlag), sizeof policy.encFlag));
  std::memcpy(policy.encFlag, encFlag, static_cast<std::size_t>(policy.encFlagLen));
  engine().fillPolicy(policy);
  *key = result == 2 ? nullptr : engine().makeKey(std::string("new key of ") + name);
  return 1;
}

int kezuGetEncPolicyId(char* owner, char* table, char* column, char* policy, char* error) {
  engine().enter("kezuGetEncPolicyId", textOf(owner) + ", " + textOf(table) + ", " + textOf(column));
  const int result = engine().resultOf("kezuGetEncPolicyId");
  if (result == 0) {
    copyText(policy, 65, engine().textOf("kezuGetEncPolicyId", "policy"));
    copyText(error, 256, "no reason, for it did not fail");
  } else {
    giveText(error, 256, "kezuGetEncPolicyId");
  }
  return result;
}

// The size is what the operation "kezuGetCipherSize.size" is scripted with, else 16 bytes more than the clear size.
int kezuGetCipherSize(int size, char* policy, int* out, char* error) {
  engine().enter("kezuGetCipherSize", std::to_string(size) + ", " + textOf(policy));
  const int result = engine().resultOf("kezuGetCipherSize");
  if (result == 0) {
    *out = engine().resultOf("kezuGetCipherSize.size", static_cast<int>(static_cast<unsigned int>(size) + 16U));
  } else {
    giveText(error, 256, "kezuGetCipherSize");
  }
  return result;
}

int checkNumericEnc(char* policy) {
  engine().enter("checkNumericEnc", textOf(policy));
  return engine().resultOf("checkNumericEnc", 1);
}
int checkBlobEnc(char* policy) {
  engine().enter("checkBlobEnc", textOf(policy));
  return engine().resultOf("checkBlobEnc", 1);
}

int Q7_EncryptBinaryExt(unsigned char* out, unsigned int* outLen, const unsigned char* in, unsigned int inLen,
                        Q7EncPolicyInfo* policy, _BCipherKey* key) {
  return cipher("Q7_EncryptBinaryExt", false, out, outLen, in, inLen, policy, key);
}
int Q7_DecryptBinaryExt(unsigned char* out, unsigned int* outLen, const unsigned char* in, unsigned int inLen,
                        Q7EncPolicyInfo* policy, _BCipherKey* key) {
  return cipher("Q7_DecryptBinaryExt", true, out, outLen, in, inLen, policy, key);
}

int Q7_HashBinary(unsigned char* out, unsigned int* outLen, const unsigned char* in, unsigned int inLen,
                  int algorithm) {
  return hash("Q7_HashBinary", out, outLen, in, inLen, algorithm);
}
int kezuHashBinary(unsigned char* out, unsigned int* outLen, const unsigned char* in, unsigned int inLen,
                   int algorithm) {
  return hash("kezuHashBinary", out, outLen, in, inLen, algorithm);
}

// Keyed with the policy's column key as it stands.
int kezuHmacBinary(unsigned char* out, unsigned int* outLen, const unsigned char* in, unsigned int inLen, int algorithm,
                   Q7EncPolicyInfo* policy) {
  engine().enter("kezuHmacBinary",
                 bytesOf(in, inLen) + ", " + std::to_string(algorithm) + ", " + textOf(policy->policyID));
  const int result = engine().resultOf("kezuHmacBinary");
  const EVP_MD* digest = digestOf(algorithm);
  if (result != 0 || digest == nullptr) {
    return failAfterWriting(out, outLen, result);
  }
  return HMAC(digest, policy->columnKey, policy->keyLength, in, inLen, out, outLen) != nullptr ? 0 : 1;
}

int Q7_GetEncode64(char* out, unsigned int capacity, unsigned int* outLen, unsigned char* in, int inLen) {
  engine().enter("Q7_GetEncode64",
                 std::to_string(capacity) + ", " + bytesOf(in, static_cast<std::size_t>(std::max(inLen, 0))));
  const int result = engine().resultOf("Q7_GetEncode64");
  const auto needed = static_cast<unsigned int>((std::max(inLen, 0) + 2) / 3 * 4);
  if (result != 0 || inLen < 0 || needed > capacity) {
    return failAfterWriting(reinterpret_cast<unsigned char*>(out), outLen, result);
  }
  std::string text(needed + 1, '\0');
  EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), in, inLen);
  std::memcpy(out, text.data(), std::min(needed + 1, capacity));
  *outLen = needed;
  return 0;
}

int bin2hex(char* in, char* out, int length, int flag) {
  engine().enter("bin2hex", std::to_string(length) + ", " + std::to_string(flag));
  const char* digits = flag == 0 ? "0123456789abcdef" : "0123456789ABCDEF";
  for (int i = 0; i < length; ++i) {
    const auto byte = static_cast<unsigned char>(in[i]);
    out[2 * i] = digits[byte >> 4U];
    out[2 * i + 1] = digits[byte & 0xFU];
  }
  out[2 * std::max(length, 0)] = '\0';
  return 2 * std::max(length, 0);
}
