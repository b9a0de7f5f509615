// SPDX-License-Identifier: Apache-2.0
//
// Published test vectors, put through the same prepared keys that values go through.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <map>
#include <sstream>

#include "cipher/prepared_key.h"
#include "cipher/suite.h"
#include "tests/unit/crypto_fixture.h"
#include "tests/unit/source_folder.h"

namespace {

using cipher::PreparedKey;
using cipher::Suite;
using test::Data;
using test::fromHex;
using test::toHex;

struct Vector {
  std::string cipher, source;
  Data key, iv, associated, text, cipherText, tag;
};

std::vector<Vector> readVectors() {
  std::vector<Vector> vectors;
  std::istringstream lines(test::readSource("unit/vectors/ciphers.txt"));
  for (std::string line; std::getline(lines, line);) {
    const std::size_t equals = line.find(" = ");
    if (line.starts_with('#') || equals == std::string::npos) continue;
    const std::string field = line.substr(0, equals);
    const std::string value = line.substr(equals + 3);
    if (field == "cipher") vectors.emplace_back().cipher = value;
    Vector& vector = vectors.back();
    if (field == "source") vector.source = value;
    if (field == "key") vector.key = fromHex(value);
    if (field == "iv") vector.iv = fromHex(value);
    if (field == "associated") vector.associated = fromHex(value);
    if (field == "text") vector.text = fromHex(value);
    if (field == "cipherText") vector.cipherText = fromHex(value);
    if (field == "tag") vector.tag = fromHex(value);
  }
  return vectors;
}

const Suite* suiteNamed(const std::string& name) {
  static const std::map<std::string, int> kAlgorithms = {{"aes-128", test::AES128},
                                                         {"aes-192", test::AES192},
                                                         {"aes-256", test::AES256},
                                                         {"aria-128", test::ARIA128},
                                                         {"aria-192", test::ARIA192},
                                                         {"aria-256", test::ARIA256},
                                                         {"seed", test::SEED128},
                                                         {"camellia-128", test::CAMELLIA128},
                                                         {"camellia-192", test::CAMELLIA192},
                                                         {"camellia-256", test::CAMELLIA256},
                                                         {"sm4", test::SM4},
                                                         {"des-ede3", test::TDES168}};
  static const std::map<std::string, int> kModes = {
      {"ecb", test::ECB}, {"cbc", test::CBC}, {"cfb", test::CFB}, {"cfb8", test::CFB8}, {"ofb", test::OFB},
      {"ctr", test::CTR}, {"gcm", test::GCM}, {"ccm", test::CCM}, {"siv", test::SIV},   {"ocb", test::OCB}};
  if (name == "chacha20") return cipher::findSuite(test::CHACHA20, test::ECB);
  const std::size_t dash = name.rfind('-');
  return cipher::findSuite(kAlgorithms.at(name.substr(0, dash)), kModes.at(name.substr(dash + 1)));
}

cipher::KeyMaterial materialOf(const Data& key) {
  cipher::KeyMaterial material{};
  std::copy(key.begin(), key.end(), material.cipherKey);
  return material;
}

Data part(const Data& bytes, std::size_t from, std::size_t size) {
  return {bytes.begin() + static_cast<std::ptrdiff_t>(from), bytes.begin() + static_cast<std::ptrdiff_t>(from + size)};
}

// A vector for ChaCha20 says at which block of the key stream it starts: as many blocks of zeros go in front of its
// text. Returns their size.
std::size_t moveToCounter(Vector& vector) {
  EXPECT_EQ(part(vector.iv, 1, 3), Data(3));
  const std::size_t skipped = 64 * std::size_t{vector.iv[0]};
  vector.iv = part(vector.iv, 4, 12);
  vector.text.insert(vector.text.begin(), skipped, 0);
  return skipped;
}

// Runs a vector both ways, twice, the second time with contexts that were used before. The suite takes the vector's
// nonce and tag sizes.
void check(Vector vector) {
  SCOPED_TRACE(vector.cipher + ", " + vector.source + ", text " + toHex(vector.text));
  const Suite* offered = suiteNamed(vector.cipher);
  ASSERT_NE(offered, nullptr);
  Suite suite = *offered;
  ASSERT_EQ(vector.key.size(), suite.keySize);
  ASSERT_EQ(vector.tag.empty(), suite.tagSize == 0);
  const std::size_t skipped = suite.form == cipher::Form::kStream ? moveToCounter(vector) : 0;
  if (suite.form != cipher::Form::kSiv) suite.ivSize = static_cast<unsigned char>(vector.iv.size());
  suite.tagSize = static_cast<unsigned char>(vector.tag.size());
  PreparedKey key(suite, materialOf(vector.key));
  for (int round = 0; round < 2; ++round) {
    Data out(suite.cipherSize(vector.text.size()));
    Data tag(suite.tagSize);
    ASSERT_TRUE(key.encrypt(out.data(), tag.data(), vector.iv, vector.associated, vector.text));
    EXPECT_EQ(toHex(part(out, skipped, vector.cipherText.size())), toHex(vector.cipherText));
    EXPECT_EQ(toHex(tag), toHex(vector.tag));
    Data back(vector.text.size());
    const cipher::Opened opened = key.decrypt(back, vector.iv, vector.associated, out, tag);
    EXPECT_TRUE(opened.valid);
    EXPECT_EQ(opened.size, vector.text.size());
    EXPECT_EQ(toHex(back), toHex(vector.text));
  }
}

TEST(CipherVectors, EveryPublishedVector) {
  const std::vector<Vector> vectors = readVectors();
  EXPECT_EQ(vectors.size(), 242U);
  for (const Vector& vector : vectors) check(vector);
}

TEST(CipherVectors, EveryCombinationHasOne) {
  std::map<const Suite*, int> seen;
  for (const Vector& vector : readVectors()) ++seen[suiteNamed(vector.cipher)];
  const int authenticatedWithHmac[] = {test::CBC_HMAC, test::CTR_HMAC};  // composed of CBC, CTR and HMAC
  for (int algorithm = 0; algorithm <= test::TDES168; ++algorithm) {
    for (int mode = 0; mode < 12; ++mode) {
      const Suite* suite = cipher::findSuite(algorithm, mode);
      const bool composed = std::count(std::begin(authenticatedWithHmac), std::end(authenticatedWithHmac), mode) != 0;
      // No vectors were published for these; the next tests and the whole-chain tests check them.
      const bool unpublished =
          (mode == test::CFB8 && algorithm >= test::CAMELLIA128 && algorithm <= test::CAMELLIA256) ||
          (mode == test::OCB && algorithm != test::AES128) ||
          (algorithm == test::ARIA192 && (mode == test::GCM || mode == test::CCM));
      if (suite == nullptr || composed || unpublished) continue;
      EXPECT_GT(seen[suite], 0) << "algorithm " << algorithm << ", mode " << mode;
    }
  }
}

// RFC 7253, appendix A: a cipher text of many lengths, boiled down to one tag per key size.
struct OcbTag {
  const char* cipher;
  int algorithm;
  const char* tag;
};
void PrintTo(const OcbTag& expected, std::ostream* out) {
  *out << expected.cipher;
}

class OcbIteration : public testing::TestWithParam<OcbTag> {};

Data ocb(PreparedKey& key, unsigned int number, const Data& associated, const Data& text) {
  Data nonce(12);
  for (std::size_t i = 0; i < 4; ++i) nonce[11 - i] = static_cast<unsigned char>(number >> (8 * i));
  Data out(text.size());
  Data tag(16);
  EXPECT_TRUE(key.encrypt(out.data(), tag.data(), nonce, associated, text));
  return test::operator+(out, tag);
}

TEST_P(OcbIteration, ReachesThePublishedTag) {
  const Suite* suite = cipher::findSuite(GetParam().algorithm, test::OCB);
  ASSERT_NE(suite, nullptr);
  Data raw(suite->keySize);
  raw.back() = 128;
  PreparedKey key(*suite, materialOf(raw));
  Data all;
  for (unsigned int i = 0; i < 128; ++i) {
    const Data zeros(i);
    for (const Data& piece :
         {ocb(key, 3 * i + 1, zeros, zeros), ocb(key, 3 * i + 2, {}, zeros), ocb(key, 3 * i + 3, zeros, {})}) {
      all.insert(all.end(), piece.begin(), piece.end());
    }
  }
  EXPECT_EQ(toHex(ocb(key, 385, all, {})), GetParam().tag);
}

INSTANTIATE_TEST_SUITE_P(KeySizes, OcbIteration,
                         testing::Values(OcbTag{"AES128", test::AES128, "67e944d23256c5e0b6c61fa22fdf1ea2"},
                                         OcbTag{"AES192", test::AES192, "f673f2c3e7174aae7bae986ca9f29e17"},
                                         OcbTag{"AES256", test::AES256, "d90eb8e9c977c88b79dd793d7ffa161c"}),
                         [](const auto& info) { return std::string(info.param.cipher); });

// CFB with 8-bit segments (NIST SP 800-38A, section 6.3), from the block cipher whose vectors are above.
TEST(CipherVectors, CamelliaCfb8IsCfb8OfCamellia) {
  const Data iv = fromHex("000102030405060708090a0b0c0d0e0f");
  const Data text = test::patternOf(40);
  for (const int algorithm : {test::CAMELLIA128, test::CAMELLIA192, test::CAMELLIA256}) {
    PreparedKey block(*cipher::findSuite(algorithm, test::ECB), materialOf(test::patternOf(32)));
    Data shift = iv;
    Data expected;
    for (const unsigned char byte : text) {
      Data out(32);
      ASSERT_TRUE(block.encrypt(out.data(), nullptr, {}, {}, shift));
      expected.push_back(byte ^ out[0]);
      shift.erase(shift.begin());
      shift.push_back(expected.back());
    }
    PreparedKey key(*cipher::findSuite(algorithm, test::CFB8), materialOf(test::patternOf(32)));
    Data out(text.size());
    ASSERT_TRUE(key.encrypt(out.data(), nullptr, iv, {}, text));
    EXPECT_EQ(toHex(out), toHex(expected));
  }
}

// RFC 5297, appendix A.1: one component besides the text, given as the nonce.
TEST(CipherVectors, SivNonceIsTheLastComponent) {
  PreparedKey key(*cipher::findSuite(test::AES128, test::SIV),
                  materialOf(fromHex("fffefdfcfbfaf9f8f7f6f5f4f3f2f1f0f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff")));
  const Data component = fromHex("101112131415161718191a1b1c1d1e1f2021222324252627");
  const Data text = fromHex("112233445566778899aabbccddee");
  Data out(text.size());
  Data tag(16);
  ASSERT_TRUE(key.encrypt(out.data(), tag.data(), component, {}, text));
  EXPECT_EQ(toHex(tag), "85632d07c6e8f37f950acd320a2ecc93");
  EXPECT_EQ(toHex(out), "40c02b9690c4dc04daef7f6afe5c");
}

}  // namespace
