// SPDX-License-Identifier: Apache-2.0
//
// Short values in GCM mode take a path of their own: what comes out has to be the same as what OpenSSL's ciphers make,
// up to the limit of that path and past it.
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cipher/prepared_key.h"
#include "cipher/short_gcm.h"
#include "tests/unit/crypto_fixture.h"
#include "tests/unit/independent_cipher.h"

namespace {

using cipher::PreparedKey;
using cipher::ShortGcm;
using test::Data;
using test::patternOf;
using test::operator+;

struct Algorithm {
  const char* name;
  int code;
};
void PrintTo(const Algorithm& algorithm, std::ostream* out) {
  *out << algorithm.name;
}

cipher::KeyMaterial material() {
  cipher::KeyMaterial made{};
  const Data key = patternOf(cipher::kMaxKeySize);
  std::copy(key.begin(), key.end(), made.cipherKey);
  return made;
}

class ShortGcmTest : public testing::TestWithParam<Algorithm> {
 protected:
  // Encrypts and decrypts values of these sizes, and compares with OpenSSL.
  void compare(std::size_t textSize, std::size_t associatedSize) {
    SCOPED_TRACE(std::to_string(textSize) + " and " + std::to_string(associatedSize) + " bytes");
    const Data text = patternOf(textSize);
    const Data associated = patternOf(associatedSize);
    const Data iv = nextVector();
    const auto expected = test::independent::evpSeal(
        std::string(GetParam().name) + "-GCM", Data(rawKey_.begin(), rawKey_.begin() + suite_.keySize), iv,
        associated.empty() ? std::vector<Data>{} : std::vector<Data>{associated}, text, true);
    Data out(textSize);
    Data tag(16);
    ASSERT_TRUE(key_.encrypt(out.data(), tag.data(), iv, associated, text));
    ASSERT_EQ(test::toHex(out), test::toHex(expected.cipherText));
    ASSERT_EQ(test::toHex(tag), test::toHex(expected.tag));
    Data back(textSize);
    const cipher::Opened opened = key_.decrypt(back, iv, associated, out, tag);
    ASSERT_TRUE(opened.valid);
    ASSERT_EQ(opened.size, textSize);
    ASSERT_EQ(test::toHex(back), test::toHex(text));
  }

  Data nextVector() {
    ++vector_[11];
    return vector_;
  }

  const cipher::Suite& suite_ = *cipher::findSuite(GetParam().code, test::GCM);
  const Data rawKey_ = patternOf(cipher::kMaxKeySize);
  PreparedKey key_{suite_, material()};
  Data vector_ = patternOf(12);
};

TEST_P(ShortGcmTest, TextsOfEverySizeAreAsOpenSslMakesThem) {
  for (std::size_t size = 0; size <= ShortGcm::kMaxBytes + 33; ++size) ASSERT_NO_FATAL_FAILURE(compare(size, 0));
}

TEST_P(ShortGcmTest, SoAreTextsWithAssociatedData) {
  for (const std::size_t associated : {std::size_t{1}, std::size_t{15}, std::size_t{16}, std::size_t{17},
                                       ShortGcm::kMaxBytes - 1, ShortGcm::kMaxBytes, ShortGcm::kMaxBytes + 1}) {
    for (const std::size_t text : {std::size_t{0}, std::size_t{1}, std::size_t{16}, std::size_t{33}}) {
      ASSERT_NO_FATAL_FAILURE(compare(text, associated));
    }
  }
  for (std::size_t text = 0; text <= ShortGcm::kMaxBytes; ++text) {
    ASSERT_NO_FATAL_FAILURE(compare(text, ShortGcm::kMaxBytes - text));
  }
}

// Of every size that one of the two paths takes: no bit of the vector, the associated data, the cipher text and the
// tag.
TEST_P(ShortGcmTest, NothingButTheValueItselfIsTaken) {
  for (const std::size_t size : {std::size_t{0}, std::size_t{20}, ShortGcm::kMaxBytes}) {
    SCOPED_TRACE(size);
    const Data associated = patternOf(5);
    const Data iv = nextVector();
    Data sealed(size);
    Data tag(16);
    ASSERT_TRUE(key_.encrypt(sealed.data(), tag.data(), iv, associated, patternOf(size)));
    const Data whole = iv + associated + sealed + tag;
    for (std::size_t bit = 0; bit < 8 * whole.size(); ++bit) {
      Data changed = whole;
      changed[bit / 8] ^= static_cast<unsigned char>(1U << bit % 8);
      const cipher::Bytes all(changed);
      Data back(size, 1);
      ASSERT_FALSE(key_.decrypt(back, all.first(12), all.subspan(12, 5), all.subspan(17, size), all.last(16)).valid)
          << bit;
      ASSERT_EQ(back, Data(size)) << bit;
    }
    Data back(size);
    EXPECT_TRUE(key_.decrypt(back, iv, associated, sealed, tag).valid);
  }
}

// OpenSSL would take the first bytes of a tag for it, and none at all.
TEST_P(ShortGcmTest, TagsHaveTheirWholeLength) {
  for (const std::size_t size : {std::size_t{20}, ShortGcm::kMaxBytes + 1}) {
    const Data iv = nextVector();
    Data sealed(size);
    Data tag(17);
    ASSERT_TRUE(key_.encrypt(sealed.data(), tag.data(), iv, {}, patternOf(size)));
    Data back(size);
    for (std::size_t length = 0; length <= tag.size(); ++length) {
      EXPECT_EQ(key_.decrypt(back, iv, {}, sealed, cipher::Bytes(tag).first(length)).valid, length == 16) << length;
    }
  }
}

// Where the cipher cannot be had block by block, values are the same, and OpenSSL's errors do not stay behind: the
// server would take them for those of its own connections.
TEST_P(ShortGcmTest, GoesTheOtherWayWhereItCannotBeMade) {
  const Data iv = nextVector();
  Data expected(20);
  Data expectedTag(16);
  ASSERT_TRUE(key_.encrypt(expected.data(), expectedTag.data(), iv, {}, patternOf(20)));
  cipher::Suite suite = suite_;
  suite.blockCipher = EVP_aes_256_ccm();  // encrypts nothing without a vector
  PreparedKey key(suite, material());
  Data out(20);
  Data tag(16);
  ASSERT_TRUE(key.encrypt(out.data(), tag.data(), iv, {}, patternOf(20)));
  EXPECT_EQ(out, expected);
  EXPECT_EQ(tag, expectedTag);
  EXPECT_EQ(ERR_peek_error(), 0UL);
}

INSTANTIATE_TEST_SUITE_P(Algorithms, ShortGcmTest,
                         testing::Values(Algorithm{"AES-128", test::AES128}, Algorithm{"AES-192", test::AES192},
                                         Algorithm{"AES-256", test::AES256}, Algorithm{"ARIA-128", test::ARIA128},
                                         Algorithm{"ARIA-192", test::ARIA192}, Algorithm{"ARIA-256", test::ARIA256}),
                         [](const auto& info) {
                           std::string name = info.param.name;
                           name.erase(name.find('-'), 1);
                           return name;
                         });

// What decides between the two paths.
TEST(ShortGcm, TakesValuesUpToItsLimit) {
  const Data iv(12);
  const auto takes = [&iv](std::size_t associated, std::size_t text) {
    return ShortGcm::takes(iv, Data(associated), Data(text));
  };
  EXPECT_TRUE(takes(0, 0));
  EXPECT_TRUE(takes(0, ShortGcm::kMaxBytes));
  EXPECT_TRUE(takes(ShortGcm::kMaxBytes, 0));
  EXPECT_TRUE(takes(1, ShortGcm::kMaxBytes - 1));
  EXPECT_FALSE(takes(0, ShortGcm::kMaxBytes + 1));
  EXPECT_FALSE(takes(1, ShortGcm::kMaxBytes));
  EXPECT_FALSE(takes(ShortGcm::kMaxBytes + 1, 0));
  EXPECT_FALSE(ShortGcm::takes(Data(11), {}, {}));
  EXPECT_FALSE(ShortGcm::takes(Data(13), {}, {}));
}

// One that a test can look into: what it holds of values that are done, and its context.
class OneShortGcm : public testing::Test {
 protected:
  OneShortGcm() {
    EXPECT_EQ(EVP_EncryptInit_ex(context_, EVP_aes_256_ecb(), nullptr, rawKey_.data(), nullptr), 1);
    gcm_.emplace(cipher::Context(context_));
  }

  // A block as the cipher alone encrypts it.
  Data encrypted(const Data& block) const {
    const cipher::Context own(EVP_CIPHER_CTX_new());
    Data out(32);
    int written = 0;
    EXPECT_EQ(EVP_EncryptInit_ex(own.get(), EVP_aes_256_ecb(), nullptr, rawKey_.data(), nullptr), 1);
    EXPECT_EQ(EVP_EncryptUpdate(own.get(), out.data(), &written, block.data(), 16), 1);
    out.resize(16);
    return out;
  }

  // What is combined with the tag (1) and with the blocks of the text (from 2 on).
  Data keyStream(unsigned char number) const { return encrypted(iv_ + Data{0, 0, 0, number}); }

  // Whether a block stands in the object.
  bool holds(const Data& block) const {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&*gcm_);
    return std::search(bytes, bytes + sizeof *gcm_, block.begin(), block.end()) != bytes + sizeof *gcm_;
  }

  void expectNothingHeld() const {
    for (unsigned char number = 1; number <= 5; ++number) EXPECT_FALSE(holds(keyStream(number))) << +number;
    EXPECT_FALSE(holds(encrypted(Data(16))));  // the key of the hash
  }

  const Data rawKey_ = patternOf(32);
  const Data iv_ = patternOf(12);
  const Data text_ = patternOf(50);                       // four blocks
  EVP_CIPHER_CTX* const context_ = EVP_CIPHER_CTX_new();  // gcm_ owns it
  std::optional<ShortGcm> gcm_;
  Data out_ = Data(50);
  Data tag_ = Data(16);
};

// Past the limit nothing is done, not even when it is asked for.
TEST_F(OneShortGcm, RefusesWhatItDoesNotTake) {
  ASSERT_TRUE(static_cast<bool>(*gcm_));
  const Data text(ShortGcm::kMaxBytes + 1);
  Data out(text.size());
  EXPECT_FALSE(gcm_->encrypt(out.data(), tag_, iv_, {}, text));
  EXPECT_FALSE(gcm_->encrypt(out.data(), tag_, Data(13), {}, Data(1)));
  EXPECT_FALSE(gcm_->decrypt(out.data(), iv_, {}, text, tag_));
  EXPECT_EQ(out, Data(text.size()));
  EXPECT_TRUE(gcm_->encrypt(out.data(), tag_, iv_, {}, Data(1)));
  EXPECT_TRUE(gcm_->decrypt(out.data(), iv_, {}, Data{out[0]}, tag_));
}

// It and the cipher text, which anybody may have, give the text.
TEST_F(OneShortGcm, KeepsNoKeyStream) {
  expectNothingHeld();
  ASSERT_TRUE(gcm_->encrypt(out_.data(), tag_, iv_, {}, text_));
  EXPECT_EQ(out_[16] ^ text_[16], keyStream(3)[0]);  // that is what is looked for
  expectNothingHeld();
  Data back(50);
  ASSERT_TRUE(gcm_->decrypt(back.data(), iv_, {}, out_, tag_));
  expectNothingHeld();
  tag_[0] ^= 1;
  ASSERT_FALSE(gcm_->decrypt(back.data(), iv_, {}, out_, tag_));
  expectNothingHeld();
}

TEST_F(OneShortGcm, IsDoneWithOnceOpenSslFailed) {
  ASSERT_TRUE(gcm_->encrypt(out_.data(), tag_, iv_, {}, text_));
  ASSERT_EQ(EVP_CIPHER_CTX_reset(context_), 1);
  const Data tag = tag_;
  Data back(50);
  EXPECT_FALSE(gcm_->decrypt(back.data(), iv_, {}, out_, tag));
  EXPECT_FALSE(static_cast<bool>(*gcm_));
  EXPECT_EQ(back, Data(50));
  expectNothingHeld();
}

TEST_F(OneShortGcm, EncryptsNothingOnceOpenSslFailed) {
  ASSERT_EQ(EVP_CIPHER_CTX_reset(context_), 1);
  EXPECT_FALSE(gcm_->encrypt(out_.data(), tag_, iv_, {}, text_));
  EXPECT_FALSE(static_cast<bool>(*gcm_));
  EXPECT_EQ(out_, Data(50));
  EXPECT_EQ(tag_, Data(16));
  ERR_clear_error();
}

TEST(ShortGcm, IsNotThereWithoutACipher) {
  EXPECT_FALSE(static_cast<bool>(ShortGcm{cipher::Context()}));
  EXPECT_FALSE(static_cast<bool>(ShortGcm{cipher::Context(EVP_CIPHER_CTX_new())}));
  ERR_clear_error();
}

}  // namespace
