// SPDX-License-Identifier: Apache-2.0
//
// The encoding of messages, against the examples of OASIS KMIP 1.2, section 9.1.2, and answers of a real server.
#include "engine/kms/ttlv.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "engine/kms/messages.h"
#include "unit/source_folder.h"

namespace {

using namespace engine::kms;
using cipher::SecretBytes;

SecretBytes fromHex(std::string text) {
  std::erase_if(text, [](char c) { return c == ' ' || c == '|'; });
  SecretBytes bytes;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
    bytes.push_back(static_cast<unsigned char>(std::stoi(text.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

constexpr Tag kExample = static_cast<Tag>(0x420020);

// An answer around items.
SecretBytes message(const SecretBytes& items) {
  SecretBytes all = fromHex("42007b 01");
  for (int shift = 24; shift >= 0; shift -= 8) {
    all.push_back(static_cast<unsigned char>(items.size() >> shift));
  }
  all.insert(all.end(), items.begin(), items.end());
  return all;
}

std::string faultOf(const SecretBytes& items) {
  const auto item = decodeMessage(message(items));
  return item.ok() ? "" : item.error().text;
}

TEST(KmsTtlv, WritesThePublishedExamples) {
  const auto written = [](const auto& write) {
    Writer out;
    write(out);
    return out.take();
  };
  EXPECT_EQ(fromHex("42 00 20 | 02 | 00 00 00 04 | 00 00 00 08 00 00 00 00"),
            written([](Writer& out) { out.integer(kExample, 8); }));
  EXPECT_EQ(fromHex("42 00 20 | 05 | 00 00 00 04 | 00 00 00 FF 00 00 00 00"),
            written([](Writer& out) { out.enumeration(kExample, 255); }));
  EXPECT_EQ(fromHex("42 00 20 | 07 | 00 00 00 0B | 48 65 6C 6C 6F 20 57 6F 72 6C 64 00 00 00 00 00"),
            written([](Writer& out) { out.text(kExample, "Hello World"); }));
  EXPECT_EQ(fromHex("42 00 20 | 08 | 00 00 00 03 | 01 02 03 00 00 00 00 00"),
            written([](Writer& out) { out.bytes(kExample, fromHex("01 02 03")); }));
  EXPECT_EQ(fromHex("42 00 20 | 01 | 00 00 00 20 | 42 00 04 | 05 | 00 00 00 04 | 00 00 00 FE 00 00 00 00 | "
                    "42 00 05 | 02 | 00 00 00 04 | 00 00 00 FF 00 00 00 00"),
            written([](Writer& out) {
              out.begin(kExample);
              out.enumeration(static_cast<Tag>(0x420004), 254);
              out.integer(static_cast<Tag>(0x420005), 255);
              out.end();
            }));
}

TEST(KmsTtlv, ReadsThePublishedExamples) {
  const SecretBytes bytes =
      message(fromHex("42 00 20 | 02 | 00 00 00 04 | 00 00 00 08 00 00 00 00"
                      "42 00 20 | 03 | 00 00 00 08 | 01 B6 9B 4B A5 74 92 00"
                      "42 00 20 | 04 | 00 00 00 10 | 00 00 00 00 03 FD 35 EB 6B C2 DF 46 18 08 00 00"
                      "42 00 20 | 05 | 00 00 00 04 | 00 00 00 FF 00 00 00 00"
                      "42 00 20 | 06 | 00 00 00 08 | 00 00 00 00 00 00 00 01"
                      "42 00 20 | 07 | 00 00 00 0B | 48 65 6C 6C 6F 20 57 6F 72 6C 64 00 00 00 00 00"
                      "42 00 20 | 08 | 00 00 00 03 | 01 02 03 00 00 00 00 00"
                      "42 00 20 | 09 | 00 00 00 08 | 00 00 00 00 47 DA 67 F8"
                      "42 00 20 | 0A | 00 00 00 04 | 00 0D 2F 00 00 00 00 00"
                      "42 00 20 | 01 | 00 00 00 20 | 42 00 04 | 05 | 00 00 00 04 | 00 00 00 FE 00 00 00 00 | "
                      "42 00 05 | 02 | 00 00 00 04 | 00 00 00 FF 00 00 00 00"));
  const auto decoded = decodeMessage(bytes);
  ASSERT_TRUE(decoded.ok()) << decoded.error().text;
  const auto& items = decoded.value().content;
  ASSERT_EQ(10u, items.size());
  EXPECT_EQ(8, integerOf(items[0]));
  EXPECT_EQ(8u, items[1].value.size());
  EXPECT_EQ(16u, items[2].value.size());
  EXPECT_EQ(255u, enumerationOf(items[3]));
  EXPECT_EQ("Hello World", textOf(items[5]));
  EXPECT_TRUE(std::ranges::equal(items[6].value, fromHex("010203")));
  ASSERT_EQ(2u, items[9].content.size());
  EXPECT_EQ(254u, enumerationOf(items[9].content[0]));
  EXPECT_EQ(255, integerOf(items[9].content[1]));
  const SecretBytes negative = fromHex("fffffffe");
  EXPECT_EQ(-2, integerOf(Item{.tag = kExample, .type = Type::integer, .value = negative, .content = {}}));
}

TEST(KmsTtlv, LengthsThatTypesCannotHave) {
  for (const char* item :
       {"42000d 02 00000008 0000000000000000", "42000d 02 00000000", "42000d 03 00000004 0000000000000000",
        "42000d 04 00000001 0000000000000000", "42000d 05 00000003 0000000000000000",
        "42000d 06 00000001 0000000000000000", "42000d 09 00000004 0000000000000000",
        "42000d 0a 00000008 0000000000000000", "42000d 01 00000004 0000000000000000"}) {
    EXPECT_NE(std::string::npos, faultOf(fromHex(item)).find("length that its type can't have")) << item;
  }
}

TEST(KmsTtlv, CutAndOverlongItems) {
  const SecretBytes whole = fromHex("42000d 08 00000009 000102030405060708 00000000000000");
  EXPECT_EQ("", faultOf(whole));
  for (std::size_t size = 1; size < whole.size(); ++size) {
    const std::string fault = faultOf(SecretBytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
    EXPECT_NE("", fault) << size;
    if (size % 8 == 0) {  // the structure's own length is possible then
      EXPECT_EQ("tag 42000d is longer than what it is in", fault) << size;
    }
  }
  EXPECT_NE("", faultOf(fromHex("42000d 08 fffffff9 0000000000000000")));
  EXPECT_NE("", faultOf(fromHex("42000d 08 ffffffff 0000000000000000")));
  SecretBytes followed = message(whole);
  followed.insert(followed.end(), whole.begin(), whole.end());
  EXPECT_EQ("goes on behind its end", decodeMessage(followed).error().text);
  EXPECT_FALSE(decodeMessage({}).ok());
  EXPECT_EQ("", faultOf({})) << "an empty structure is one";
}

TEST(KmsTtlv, DepthAtItsLimitAndPastIt) {
  const auto nested = [](int depth) {
    SecretBytes inner;
    for (int i = 1; i < depth; ++i) {
      inner = message(inner);
    }
    return inner;
  };
  EXPECT_EQ("", faultOf(nested(16)));
  EXPECT_EQ("is nested more than 16 deep", faultOf(nested(17)));
  EXPECT_EQ("is nested more than 16 deep", faultOf(nested(1000)));
}

TEST(KmsTtlv, ItemsAtTheirLimitAndPastIt) {
  const SecretBytes one = fromHex("420094 07 00000000");
  SecretBytes items;
  for (std::size_t i = 1; i < kMaxItems; ++i) {
    items.insert(items.end(), one.begin(), one.end());
  }
  EXPECT_EQ("", faultOf(items));
  items.insert(items.end(), one.begin(), one.end());
  EXPECT_EQ("holds more than 32768 items", faultOf(items));
}

TEST(KmsTtlv, SizeAtItsLimitAndPastIt) {
  const auto header = [](std::size_t length) {
    return messageLength(fromHex(length > 0xfffff ? "42007b 01 00100000" : "42007b 01 000ffff8"));
  };
  ASSERT_TRUE(header(kMaxMessage - 8).ok());
  EXPECT_EQ(kMaxMessage, header(kMaxMessage - 8).value());
  EXPECT_EQ("is longer than 1048576 bytes", header(kMaxMessage).error().text);
  EXPECT_FALSE(messageLength(fromHex("42007b 01 ffffffff")).ok());
  EXPECT_FALSE(messageLength(fromHex("420078 01 00000008")).ok());
  EXPECT_FALSE(messageLength(fromHex("42007b 02 00000008")).ok());
  EXPECT_FALSE(messageLength(fromHex("42007b 01 000000")).ok());
}

TEST(KmsTtlv, FieldsRememberTheFirstFault) {
  const SecretBytes bytes =
      message(fromHex("42000d 02 00000004 0000000100000000 | 42005c 05 00000004 0000000200000000 | "
                      "42005c 05 00000004 0000000300000000 | 540001 07 00000000"));
  const auto decoded = decodeMessage(bytes);
  ASSERT_TRUE(decoded.ok());
  std::string fault;
  const Fields fields(decoded.value(), fault);
  EXPECT_EQ(1, fields.integer(Tag::batchCount));
  EXPECT_TRUE(fields.has(static_cast<Tag>(0x540001)));
  EXPECT_EQ("", fault);
  EXPECT_EQ(2u, fields.all(Tag::operation, Type::enumeration).size());
  EXPECT_EQ(0u, fields.enumeration(Tag::operation));
  EXPECT_EQ("Operation is there twice", fault);
  EXPECT_EQ("", fields.text(Tag::resultMessage));
  EXPECT_EQ(0, fields.integer(Tag::batchCount)) << "nothing is read after a fault";
  EXPECT_EQ("Operation is there twice", fault);
}

// Answers that PyKMIP 0.10 gave.

SecretBytes captured(const std::string& name) {
  const std::string text = test::readSource("fuzz/corpus/kms_ttlv/" + name);
  return SecretBytes(text.begin(), text.end());
}

// The payloads of a captured answer, with all that they view.
struct Captured {
  SecretBytes bytes;
  Item message;
  Answer answer;

  Captured(const std::string& name, const std::vector<Call>& calls) : bytes(captured(name)) {
    auto decoded = decodeMessage(bytes);
    EXPECT_TRUE(decoded.ok()) << decoded.error().text;
    message = std::move(decoded.value());
    auto read = readAnswer(message, calls);
    EXPECT_TRUE(read.ok()) << read.error().text;
    answer = std::move(read.value());
  }
};

TEST(KmsMessages, VersionsOfARealServer) {
  const Captured versions("discover_versions", {discoverVersions()});
  const auto read = readVersions(*versions.answer.payloads.at(0));
  ASSERT_TRUE(read.ok());
  EXPECT_EQ((std::vector<Version>{{2, 0}, {1, 4}, {1, 3}, {1, 2}, {1, 1}, {1, 0}}), read.value());
}

TEST(KmsMessages, ListsOfARealServer) {
  const Captured two("locate", {locate("", 2)});
  auto identifiers = readIdentifiers(*two.answer.payloads.at(0), 2);
  ASSERT_TRUE(identifiers.ok());
  std::sort(identifiers.value().begin(), identifiers.value().end());
  EXPECT_EQ((std::vector<std::string>{"1", "2"}), identifiers.value());
  EXPECT_FALSE(readIdentifiers(*two.answer.payloads.at(0), 1).ok());
  const Captured none("locate_none", {locate("", 2)});
  EXPECT_TRUE(readIdentifiers(*none.answer.payloads.at(0), 0).value().empty());
}

TEST(KmsMessages, PoliciesOfARealServer) {
  const Captured both("read_both", {getAttributes("1"), getKey("1"), getAttributes("2"), getKey("2")});
  Q7EncPolicyInfo first{};
  ASSERT_TRUE(readAttributes(*both.answer.payloads.at(0), "1", first).ok());
  ASSERT_TRUE(readKey(*both.answer.payloads.at(1), "1", first).ok());
  EXPECT_STREQ("orders", first.policyID);
  EXPECT_EQ(2, first.algID);
  EXPECT_EQ(5, first.blockMode);
  ASSERT_EQ(32, first.keyLength);
  for (int i = 0; i < 32; ++i) {
    EXPECT_EQ(i, first.columnKey[i]);
  }
  Q7EncPolicyInfo second{};
  ASSERT_TRUE(readAttributes(*both.answer.payloads.at(2), "2", second).ok());
  EXPECT_STREQ("persons", second.policyID);
  EXPECT_EQ(3, second.encPos);
  EXPECT_EQ(4, second.encLen);
  EXPECT_FALSE(readAttributes(*both.answer.payloads.at(2), "1", second).ok()) << "it is about another key";
}

TEST(KmsMessages, RefusalsOfARealServer) {
  const Captured missing("read_missing", {getAttributes("1"), getKey("1"), getAttributes("77"), getKey("77")});
  EXPECT_EQ("Get Attributes was refused: Item Not Found: Could not locate object: 77", missing.answer.refusal);
  EXPECT_TRUE(missing.answer.payloads.empty());
  EXPECT_FALSE(missing.answer.tooLarge);
  const Captured again("activate_again", {activateKey("1")});
  EXPECT_EQ("Activate was refused: Permission Denied: The object state is not pre-active and cannot be activated.",
            again.answer.refusal);
}

TEST(KmsMessages, TextsOfAServerAreShownSafely) {
  EXPECT_EQ("a?b?c", shownText("a\nb\x80"
                               "c"));
  EXPECT_EQ(std::string(100, 'x'), shownText(std::string(100, 'x')));
  EXPECT_EQ(std::string(100, 'x') + "...", shownText(std::string(101, 'x')));
}

}  // namespace
