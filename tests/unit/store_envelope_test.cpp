// SPDX-License-Identifier: Apache-2.0
//
// The sealed form of a file, against values that a program in another language (Python's cryptography package)
// computed.
#include "engine/store/envelope.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "engine/store/codec.h"
#include "engine/store/memory.h"

namespace {

using namespace engine::store;

using Bytes = std::vector<unsigned char>;

Bytes fromHex(const std::string& text) {
  Bytes bytes;
  for (std::size_t i = 0; i < text.size(); i += 2) {
    bytes.push_back(static_cast<unsigned char>(std::stoi(text.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

Bytes masterKey() {
  Bytes key;
  for (unsigned char i = 0; i < 32; ++i) {
    key.push_back(i);
  }
  return key;
}

// One column: owner "db", table "t", column "c" 0xff "1", policy "p1".
constexpr const char* kPayload =
    "a2677265636f72647381a466636f6c756d6e4363ff31656f776e657242646266706f6c696379427031657461626c6541746873657474696e67"
    "73a0";
constexpr const char* kFile =
    "4b455a555345414c0001c782d8207448a1f706636f6c756d6e6465666768696a6b6c6d6e6f908b669376b37d372fe6b1305413b5b49491fcd4"
    "dc"
    "f9fcf4a680362af9f5652c0effc62aefda78848857f66ffe3c5c06a4e038c535b1699692edaf7fa69104951e82e7361d1900ff4f031e";
constexpr const char* kCheckString = "031650e70456c7b1003cd3accca3e6";

class EnvelopeTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(deriveTableKeys(keys_, masterKey(), "column")); }

  TableKeys keys_;
};

TEST_F(EnvelopeTest, OpensWhatAnotherProgramSealed) {
  const auto payload = openPayload(fromHex(kFile), "column", keys_);
  ASSERT_TRUE(payload.ok()) << payload.error().text;
  EXPECT_EQ(Bytes(payload.value().begin(), payload.value().end()), fromHex(kPayload));

  const auto data = decode<ColumnData>(payload.value());
  ASSERT_TRUE(data.ok()) << data.error().text;
  ASSERT_EQ(data.value().records.size(), 1u);
  EXPECT_STREQ(data.value().records[0].owner, "db");
  EXPECT_STREQ(data.value().records[0].table, "t");
  EXPECT_STREQ(data.value().records[0].column,
               "c\xff"
               "1");
  EXPECT_STREQ(data.value().records[0].policyID, "p1");
}

TEST_F(EnvelopeTest, EncodesAsTheStandardSays) {
  ColumnData data;
  data.records.resize(1);
  std::strcpy(data.records[0].owner, "db");
  std::strcpy(data.records[0].table, "t");
  std::strcpy(data.records[0].column,
              "c\xff"
              "1");
  std::strcpy(data.records[0].policyID, "p1");
  const auto payload = encode(data);
  EXPECT_EQ(Bytes(payload.begin(), payload.end()), fromHex(kPayload));
}

TEST_F(EnvelopeTest, FileCheckStringIsTheMacOfThePayload) {
  EXPECT_EQ(fileCheckString(fromHex(kPayload), keys_), kCheckString);
}

TEST_F(EnvelopeTest, SealsUnderANonceOfItsOwn) {
  const Bytes payload = fromHex(kPayload);
  const auto first = sealPayload(payload, "column", keys_);
  const auto second = sealPayload(payload, "column", keys_);
  ASSERT_TRUE(first.ok());
  ASSERT_TRUE(second.ok());
  EXPECT_EQ(first.value().size(), fromHex(kFile).size());
  EXPECT_NE(first.value(), second.value());
  EXPECT_TRUE(openPayload(first.value(), "column", keys_).ok());
}

TEST_F(EnvelopeTest, AnEmptyPayloadIsSealedToo) {
  const auto sealed = sealPayload({}, "column", keys_);
  ASSERT_TRUE(sealed.ok());
  const auto opened = openPayload(sealed.value(), "column", keys_);
  ASSERT_TRUE(opened.ok());
  EXPECT_TRUE(opened.value().empty());
}

TEST_F(EnvelopeTest, EveryFlippedByteIsNoticed) {
  const Bytes good = fromHex(kFile);
  for (std::size_t i = 0; i < good.size(); ++i) {
    for (const unsigned char change : Bytes{0x01, 0x80, 0xff}) {
      Bytes bad = good;
      bad[i] ^= change;
      EXPECT_FALSE(openPayload(bad, "column", keys_).ok()) << "byte " << i;
    }
  }
}

TEST_F(EnvelopeTest, EveryTruncationAndExtensionIsNoticed) {
  const Bytes good = fromHex(kFile);
  for (std::size_t size = 0; size < good.size(); ++size) {
    EXPECT_FALSE(openPayload(std::span(good).first(size), "column", keys_).ok()) << size << " bytes";
  }
  Bytes longer = good;
  longer.push_back(0);
  EXPECT_FALSE(openPayload(longer, "column", keys_).ok());
}

TEST_F(EnvelopeTest, SaysWhatIsWrong) {
  const Bytes good = fromHex(kFile);
  Bytes later = good;
  later[9] = 2;
  EXPECT_NE(openPayload(later, "column", keys_).error().text.find("format version 2"), std::string::npos);

  TableKeys access;
  ASSERT_TRUE(deriveTableKeys(access, masterKey(), "access"));
  EXPECT_NE(openPayload(good, "access", access).error().text.find("another table"), std::string::npos);

  Bytes foreign = masterKey();
  foreign[31] ^= 1;
  TableKeys other;
  ASSERT_TRUE(deriveTableKeys(other, foreign, "column"));
  EXPECT_NE(openPayload(good, "column", other).error().text.find("another master key"), std::string::npos);

  EXPECT_NE(openPayload(fromHex("00"), "column", keys_).error().text.find("no configuration table"), std::string::npos);
  Bytes flipped = good;
  flipped.back() ^= 1;
  EXPECT_NE(openPayload(flipped, "column", keys_).error().text.find("fails authentication"), std::string::npos);
}

TEST_F(EnvelopeTest, APayloadPastTheLimitIsNotSealed) {
  const std::size_t overhead = fromHex(kFile).size() - fromHex(kPayload).size();
  Bytes payload(kMaxFileSize - overhead);
  const auto largest = sealPayload(payload, "column", keys_);
  ASSERT_TRUE(largest.ok());
  EXPECT_EQ(largest.value().size(), kMaxFileSize);
  payload.push_back(0);
  EXPECT_FALSE(sealPayload(payload, "column", keys_).ok());
}

}  // namespace
