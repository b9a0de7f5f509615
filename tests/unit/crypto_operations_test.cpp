// SPDX-License-Identifier: Apache-2.0
//
// Sizes, digests and texts: the engine's smaller operations on values.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>

#include "engine/crypto/text_encoding.h"
#include "engine/policy/policy_key.h"
#include "kezu/engine.h"
#include "tests/unit/crypto_fixture.h"

namespace {

using test::bytesOf;
using test::Data;
using test::Policy;
using test::toHex;

// The policy table, filled for one test.
class Table : public testing::Test {
 protected:
  ~Table() override {
    for (int i = 0; i < 4; ++i) {
      BCIPHER_DelKey(g_makeKeyArray[3][i]);
      g_makeKeyArray[3][i] = nullptr;
      std::memset(&g_encPolicyArray[3][i], 0, sizeof g_encPolicyArray[3][i]);
    }
    g_numberOfEncPolicy[3] = 0;
    g_encPolicyArray_flag = 0;
  }

  static Q7EncPolicyInfo& add(test::PolicyParameters parameters) {
    g_encPolicyArray_flag = 3;
    const int at = g_numberOfEncPolicy[3]++;
    const Policy policy(parameters);
    EXPECT_TRUE(policy);
    g_encPolicyArray[3][at] = policy.record;
    g_makeKeyArray[3][at] = BCIPHER_DupKey(policy.handle);
    return g_encPolicyArray[3][at];
  }
};

using CipherSize = Table;

int sizeOf(const char* name, int size, std::string* reason = nullptr) {
  char policy[65];
  std::strcpy(policy, name);
  char error[256] = "untouched";
  int out = -7;
  const int code = kezuGetCipherSize(size, policy, &out, error);
  EXPECT_EQ(out == -7, code != 0);
  if (reason != nullptr) *reason = error;
  return code == 0 ? out : -1;
}

TEST_F(CipherSize, IsComputedByHand) {
  add({test::AES256, test::CBC, test::RANDOM, test::RAW, 0, 0, "", {}, "cbc"});
  add({test::AES256, test::GCM, test::RANDOM, test::HEX, 0, 0, "{enc}", {}, "gcm"});
  add({test::TDES168, test::ECB, test::DETERMINISTIC, test::BASE64, 0, 0, "#", {}, "ecb"});
  add({test::AES128, test::CTR, test::DETERMINISTIC, test::BASE64, 6, 4, "", {}, "part"});
  for (const int size : {0, 1, 15}) EXPECT_EQ(sizeOf("cbc", size), 1 + 16 + 16);
  for (const int size : {16, 31}) EXPECT_EQ(sizeOf("cbc", size), 1 + 16 + 32);
  EXPECT_EQ(sizeOf("gcm", 0), 5 + 2 * (1 + 12 + 16));
  EXPECT_EQ(sizeOf("gcm", 10), 5 + 2 * (1 + 12 + 10 + 16));
  EXPECT_EQ(sizeOf("ecb", 7), 1 + 12);  // 9 bytes
  EXPECT_EQ(sizeOf("ecb", 8), 1 + 24);  // 17 bytes
  EXPECT_EQ(sizeOf("part", 6), 6);
  EXPECT_EQ(sizeOf("part", 7), 6 + 24);   // 18 bytes
  EXPECT_EQ(sizeOf("part", 10), 6 + 28);  // 21 bytes
  EXPECT_EQ(sizeOf("part", 20), 6 + 28 + 10);
}

TEST_F(CipherSize, RangesMayReachPastAnyValue) {
  add({test::AES256, test::GCM, test::RANDOM, test::HEX, INT_MAX, INT_MAX, "#", {}, "far"});
  add({test::AES256, test::GCM, test::RANDOM, test::HEX, 2, INT_MAX, "#", {}, "wide"});
  for (const int size : {0, 1, 4000, INT_MAX}) EXPECT_EQ(sizeOf("far", size), size);
  EXPECT_EQ(sizeOf("wide", 2), 2);
  EXPECT_EQ(sizeOf("wide", 10), 2 + 1 + 2 * (1 + 12 + 8 + 16));
  EXPECT_EQ(sizeOf("wide", INT_MAX), -1);
}

TEST_F(CipherSize, ReasonsAreGiven) {
  add({test::AES256, test::CTR, test::RANDOM, test::RAW, 0, 0, "", {}, "ctr"});
  std::string reason;
  EXPECT_EQ(sizeOf("ctr", 1, &reason), 18);
  EXPECT_EQ(reason, "untouched");
  EXPECT_EQ(sizeOf("CTR", 1, &reason), -1);
  EXPECT_EQ(reason, "there is no policy of that name");
  EXPECT_EQ(sizeOf("ctr", -1, &reason), -1);
  EXPECT_EQ(reason, "the size is negative");
  EXPECT_EQ(sizeOf("ctr", INT_MAX - 17), INT_MAX);
  EXPECT_EQ(sizeOf("ctr", INT_MAX - 16, &reason), -1);
  EXPECT_EQ(reason, "an encrypted value of that size is longer than 2147483647 bytes");
  EXPECT_EQ(sizeOf("ctr", INT_MAX), -1);
  char name[] = "ctr";
  int out = 0;
  EXPECT_EQ(kezuGetCipherSize(1, name, &out, nullptr), 0);
  EXPECT_NE(kezuGetCipherSize(-1, name, &out, nullptr), 0);
  EXPECT_NE(kezuGetCipherSize(1, nullptr, &out, nullptr), 0);
  EXPECT_NE(kezuGetCipherSize(1, name, nullptr, nullptr), 0);
}

TEST_F(CipherSize, OfADamagedTableIsRefused) {
  Q7EncPolicyInfo& policy = add({.name = "p"});
  policy.algID = 99;
  std::string reason;
  EXPECT_EQ(sizeOf("p", 1, &reason), -1);
  EXPECT_EQ(reason, "the algorithm is not known");
  g_numberOfEncPolicy[3] = 3000;  // the table ends at 2000
  EXPECT_EQ(sizeOf("none", 1), -1);
  g_encPolicyArray_flag = 9;
  EXPECT_EQ(sizeOf("none", 1), -1);
}

TEST_F(CipherSize, FitForNumbersAndLargeObjects) {
  add({.strMode = test::RAW, .name = "whole"});
  add({.strMode = test::HEX, .name = "text"});
  add({.strMode = test::RAW, .encPos = 1, .name = "from1"});
  add({.strMode = test::RAW, .encLen = 1, .name = "first"});
  const auto ask = [](int (*operation)(char*), const char* name) {
    char policy[65];
    std::strcpy(policy, name);
    return operation(policy);
  };
  EXPECT_EQ(ask(checkNumericEnc, "whole"), 1);
  EXPECT_EQ(ask(checkNumericEnc, "text"), 1);
  EXPECT_EQ(ask(checkNumericEnc, "from1"), 0);
  EXPECT_EQ(ask(checkNumericEnc, "first"), 0);
  EXPECT_EQ(ask(checkNumericEnc, "none"), 0);
  EXPECT_EQ(checkNumericEnc(nullptr), 0);
  EXPECT_EQ(ask(checkBlobEnc, "whole"), 1);
  EXPECT_EQ(ask(checkBlobEnc, "text"), 0);
  EXPECT_EQ(ask(checkBlobEnc, "from1"), 0);
  EXPECT_EQ(ask(checkBlobEnc, "first"), 0);
  EXPECT_EQ(ask(checkBlobEnc, "none"), 0);
  EXPECT_EQ(checkBlobEnc(nullptr), 0);
}

using HmacOperation = Table;

std::string hmacHex(Q7EncPolicyInfo* policy, const std::string& data, int algorithm) {
  unsigned char out[64];
  unsigned int size = 77;
  const int code = kezuHmacBinary(out, &size, reinterpret_cast<const unsigned char*>(data.data()),
                                  static_cast<unsigned int>(data.size()), algorithm, policy);
  EXPECT_EQ(size == 0, code != 0);
  return toHex(Data(out, out + size));
}

TEST_F(HmacOperation, IsTheSameWithAndWithoutTheHandle) {
  Q7EncPolicyInfo& inTable = add({.name = "p"});
  Q7EncPolicyInfo copy = inTable;
  for (const int algorithm : {kHashSha1, kHashSha256, kHashSha512, kHashHas160}) {
    for (const char* data : {"", "x", "some text"}) {
      const std::string code = hmacHex(&inTable, data, algorithm);
      EXPECT_EQ(code, hmacHex(&copy, data, algorithm));
      EXPECT_EQ(code.size(), algorithm == kHashSha256 ? 64U : algorithm == kHashSha512 ? 128U : 40U);
    }
  }
}

TEST_F(HmacOperation, NeedsAKeyAndAnAlgorithm) {
  Q7EncPolicyInfo& inTable = add({.name = "p"});
  for (const int algorithm : {0, 5, -1, INT_MAX}) EXPECT_EQ(hmacHex(&inTable, "x", algorithm), "");
  EXPECT_EQ(hmacHex(nullptr, "x", kHashSha256), "");
  Q7EncPolicyInfo none{};
  EXPECT_EQ(hmacHex(&none, "x", kHashSha256), "");
  none.keyLength = 65;
  EXPECT_EQ(hmacHex(&none, "x", kHashSha256), "");
  BCIPHER_WipeKey(g_makeKeyArray[3][0]);
  EXPECT_EQ(hmacHex(&inTable, "x", kHashSha256), "");
  BCIPHER_DelKey(g_makeKeyArray[3][0]);
  g_makeKeyArray[3][0] = nullptr;
  EXPECT_EQ(hmacHex(&inTable, "x", kHashSha256), "");
  unsigned char out[64];
  unsigned int size = 0;
  Q7EncPolicyInfo copy = inTable;
  EXPECT_NE(kezuHmacBinary(out, &size, nullptr, 1, kHashSha256, &copy), 0);
  EXPECT_NE(kezuHmacBinary(nullptr, &size, out, 1, kHashSha256, &copy), 0);
  EXPECT_NE(kezuHmacBinary(out, nullptr, out, 1, kHashSha256, &copy), 0);
  EXPECT_EQ(kezuHmacBinary(out, &size, nullptr, 0, kHashSha256, &copy), 0);
}

TEST(HashOperation, GivesThePublishedDigests) {
  for (const auto operation : {Q7_HashBinary, kezuHashBinary}) {
    const auto hashHex = [operation](int algorithm) {
      unsigned char out[64];
      unsigned int size = 77;
      const int code = operation(out, &size, reinterpret_cast<const unsigned char*>("abc"), 3, algorithm);
      EXPECT_EQ(size == 0, code != 0);
      return toHex(Data(out, out + size));
    };
    EXPECT_EQ(hashHex(kHashSha1), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(hashHex(kHashSha256), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(hashHex(kHashSha512).substr(0, 32), "ddaf35a193617abacc417349ae204131");
    EXPECT_EQ(hashHex(kHashHas160), "975e810488cf2a3d49838478124afce4b1c78804");
    for (const int algorithm : {0, 5, -1, INT_MIN}) EXPECT_EQ(hashHex(algorithm), "");
    unsigned char out[64];
    unsigned int size = 0;
    EXPECT_EQ(operation(out, &size, nullptr, 0, kHashSha256), 0);
    EXPECT_NE(operation(out, &size, nullptr, 1, kHashSha256), 0);
    EXPECT_NE(operation(nullptr, &size, out, 1, kHashSha256), 0);
    EXPECT_NE(operation(out, nullptr, out, 1, kHashSha256), 0);
  }
}

// RFC 4648, section 10.
constexpr std::pair<const char*, const char*> kBase64[] = {{"", ""},
                                                           {"f", "Zg=="},
                                                           {"fo", "Zm8="},
                                                           {"foo", "Zm9v"},
                                                           {"foob", "Zm9vYg=="},
                                                           {"fooba", "Zm9vYmE="},
                                                           {"foobar", "Zm9vYmFy"}};

TEST(Base64Operation, GivesThePublishedTexts) {
  for (const auto& [clear, text] : kBase64) {
    Data in = bytesOf(clear);
    const auto size = static_cast<unsigned int>(std::strlen(text));
    char out[16];
    for (const unsigned int capacity : {size, size + 1, 16U}) {
      std::memset(out, '?', sizeof out);
      unsigned int length = 99;
      EXPECT_EQ(Q7_GetEncode64(out, capacity, &length, in.data(), static_cast<int>(in.size())), 0);
      EXPECT_EQ(std::string(out, length), text);
      EXPECT_TRUE(capacity == sizeof out || out[capacity] == '?');
      EXPECT_TRUE(capacity == size || out[size] == '\0');
    }
    if (size == 0) continue;
    unsigned int length = 99;
    EXPECT_NE(Q7_GetEncode64(out, size - 1, &length, in.data(), static_cast<int>(in.size())), 0);
    EXPECT_EQ(length, 0U);
  }
}

TEST(Base64Operation, ChecksItsArguments) {
  char out[16];
  unsigned char in[3] = {};
  unsigned int length = 9;
  EXPECT_NE(Q7_GetEncode64(out, 16, &length, in, -1), 0);
  EXPECT_EQ(length, 0U);
  EXPECT_NE(Q7_GetEncode64(out, 16, nullptr, in, 3), 0);
  EXPECT_NE(Q7_GetEncode64(nullptr, 16, &length, in, 3), 0);
  EXPECT_NE(Q7_GetEncode64(out, 16, &length, nullptr, 3), 0);
  EXPECT_EQ(Q7_GetEncode64(out, 16, &length, nullptr, 0), 0);
  EXPECT_EQ(Q7_GetEncode64(nullptr, 0, &length, nullptr, 0), 0);
}

TEST(HexOperation, WritesBothCases) {
  char in[] = {0x00, 0x1f, static_cast<char>(0xab), static_cast<char>(0xff)};
  char out[10];
  EXPECT_EQ(bin2hex(in, out, 4, 0), 8);
  EXPECT_STREQ(out, "001fabff");
  for (const int flag : {1, 2, -1}) {
    EXPECT_EQ(bin2hex(in, out, 4, flag), 8);
    EXPECT_STREQ(out, "001FABFF");
  }
  EXPECT_EQ(bin2hex(in, out, 0, 0), 0);
  EXPECT_STREQ(out, "");
  EXPECT_EQ(bin2hex(in, out, -1, 0), 0);
  EXPECT_EQ(bin2hex(nullptr, out, 1, 0), 0);
  EXPECT_EQ(bin2hex(in, nullptr, 1, 0), 0);
}

TEST(TextEncoding, Base64IsDecodedStrictly) {
  for (const auto& [clear, text] : kBase64) {
    const Data digits = bytesOf(text);
    Data out(engine::base64DecodedSize(digits));
    EXPECT_TRUE(engine::decodeBase64(out.data(), digits));
    EXPECT_EQ(out, bytesOf(clear));
  }
  for (const char* text : {"Z", "Zg", "Zg=", "Zg==\n", "Zh==", "Zm9=", "Zm8", "====", "Zg==Zg==", "Z===", "Zm 8",
                           "Zm-_", "Zg=A", "=Zg="}) {
    Data out(16);
    EXPECT_FALSE(engine::decodeBase64(out.data(), bytesOf(text))) << text;
  }
}

TEST(TextEncoding, HexIsDecodedStrictly) {
  Data out(2);
  EXPECT_TRUE(engine::decodeHex(out.data(), bytesOf("09af")));
  EXPECT_EQ(out, (Data{0x09, 0xaf}));
  for (const char* text : {"0", "0g", "AF", "aF", " 0", "0x", "\xff\xff"}) {
    EXPECT_FALSE(engine::decodeHex(out.data(), bytesOf(text))) << text;
  }
}

TEST(TextEncoding, TextIsMadeInPlace) {
  for (std::size_t size = 0; size < 70; ++size) {
    const Data bytes = test::patternOf(size);
    for (const bool hex : {false, true}) {
      Data expected(hex ? engine::hexSize(size) : engine::base64Size(size));
      Data room(expected.size());
      std::copy(bytes.begin(), bytes.end(), room.end() - static_cast<std::ptrdiff_t>(size));
      const engine::Bytes tail = engine::Bytes(room).last(size);
      if (hex) {
        engine::encodeHex(expected.data(), bytes);
        engine::encodeHex(room.data(), tail);
      } else {
        engine::encodeBase64(expected.data(), bytes);
        engine::encodeBase64(room.data(), tail);
      }
      EXPECT_EQ(room, expected);
    }
  }
}

}  // namespace
