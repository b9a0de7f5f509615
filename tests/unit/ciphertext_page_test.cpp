// SPDX-License-Identifier: Apache-2.0
//
// docs/ciphertext.md says what the engine does: every example on the page is run.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/unit/crypto_fixture.h"
#include "tests/unit/independent_cipher.h"
#include "tests/unit/source_folder.h"

namespace {

using test::Data;
using test::fromHex;
using test::Policy;

using Block = std::map<std::string, std::string>;

std::string trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(' ');
  return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

// The blocks of "field = value" lines, in the page's order.
std::vector<Block> readBlocks() {
  std::istringstream lines(test::readSource("../docs/ciphertext.md"));
  std::vector<Block> blocks;
  bool inside = false;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("```")) {
      inside = line == "```text";
      if (inside) blocks.emplace_back();
      continue;
    }
    const std::size_t equals = line.find('=');
    if (inside && equals != std::string::npos) {
      blocks.back()[trimmed(line.substr(0, equals))] = trimmed(line.substr(equals + 1));
    }
  }
  return blocks;
}

template <std::size_t Count>
int codeOf(const char* const (&names)[Count], const std::string& name) {
  for (std::size_t code = 0; code < Count; ++code) {
    if (names[code] == name) return static_cast<int>(code);
  }
  throw std::runtime_error("no such name: " + name);
}

void check(const Block& example) {
  const Policy policy({codeOf(Q7EncryptionAlgorithmStr, example.at("algorithm")),
                       codeOf(Q7EncryptionBlockModeTypeStr, example.at("block mode")),
                       codeOf(Q7EncryptionIVTypeStr, example.at("IV type")),
                       codeOf(Q7EncryptionStrModeStr, example.at("encoding")), std::stoi(example.at("position")),
                       std::stoi(example.at("length")), example.at("flag"), fromHex(example.at("column key"))});
  ASSERT_TRUE(policy);
  const Data clear = fromHex(example.at("clear"));
  const Data encrypted = fromHex(example.at("encrypted"));
  EXPECT_TRUE(!example.contains("clear text") || test::bytesOf(example.at("clear text")) == clear);
  EXPECT_TRUE(!example.contains("as text") || test::bytesOf(example.at("as text")) == encrypted);
  const auto made = test::encrypt(policy, clear);
  ASSERT_TRUE(made);
  if (example.at("IV type") == "RANDOM") {
    EXPECT_EQ(made->size(), encrypted.size());
  } else {
    EXPECT_EQ(test::toHex(*made), test::toHex(encrypted));
  }
  const bool oneWay = example.at("algorithm").starts_with("HMAC");
  EXPECT_EQ(test::decrypt(policy, encrypted), oneWay ? std::nullopt : std::optional(clear));
}

TEST(CiphertextPage, EveryExampleHolds) {
  int examples = 0;
  for (const Block& block : readBlocks()) {
    if (!block.contains("algorithm")) continue;
    SCOPED_TRACE(block.at("algorithm") + " " + block.at("block mode") + " of " + block.at("clear"));
    check(block);
    ++examples;
  }
  EXPECT_EQ(examples, 11);
}

TEST(CiphertextPage, DerivedKeysHold) {
  const Block keys = readBlocks().at(0);
  const Data columnKey = fromHex(readBlocks().at(1).at("column key"));
  EXPECT_EQ(keys.at("cipher key"), test::toHex(test::independent::hkdf(columnKey, "orvanta cipher key", 32)));
  EXPECT_EQ(keys.at("IV key"), test::toHex(test::independent::hkdf(columnKey, "orvanta iv key", 32)));
  EXPECT_EQ(keys.at("HMAC key"), test::toHex(test::independent::hkdf(columnKey, "orvanta hmac key", 32)));
  EXPECT_EQ(keys.at("tag key"), test::toHex(test::independent::hkdf(columnKey, "orvanta tag key", 32)));
}

}  // namespace
