// SPDX-License-Identifier: Apache-2.0
//
// Values that this policy did not make, or that somebody changed since.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <climits>

#include "cipher/kdf.h"
#include "tests/unit/crypto_fixture.h"

namespace {

using test::Data;
using test::decrypt;
using test::encrypt;
using test::Policy;
using test::PolicyParameters;

// Block modes with every kind of authentication: by IV, by tag, by both.
const PolicyParameters kAuthenticated[] = {
    {test::AES256, test::CBC, test::DETERMINISTIC},
    {test::AES128, test::CFB, test::DETERMINISTIC},
    {test::AES128, test::CFB8, test::DETERMINISTIC},
    {test::SM4, test::OFB, test::DETERMINISTIC},
    {test::ARIA192, test::CTR, test::DETERMINISTIC},
    {test::TDES168, test::CBC, test::DETERMINISTIC},
    {test::CHACHA20, test::ECB, test::DETERMINISTIC},
    {test::AES256, test::GCM, test::DETERMINISTIC},
    {test::AES256, test::GCM, test::RANDOM},
    {test::ARIA256, test::GCM, test::RANDOM},
    {test::AES192, test::CCM, test::DETERMINISTIC},
    {test::AES192, test::CCM, test::RANDOM},
    {test::AES256, test::SIV, test::DETERMINISTIC},
    {test::AES256, test::SIV, test::RANDOM},
    {test::AES128, test::OCB, test::DETERMINISTIC},
    {test::AES128, test::OCB, test::RANDOM},
    {test::CAMELLIA256, test::CBC_HMAC, test::RANDOM},
    {test::TDES168, test::CBC_HMAC, test::RANDOM},
    {test::AES256, test::CTR_HMAC, test::RANDOM},
    {test::AES256, test::CTR_HMAC, test::DETERMINISTIC},
    {test::SEED128, test::CBC_HMAC, test::DETERMINISTIC},
};

template <typename Check>
void forEveryAuthenticated(int position, int length, const char* flag, Check check) {
  for (PolicyParameters parameters : kAuthenticated) {
    parameters.encPos = position;
    parameters.encLen = length;
    parameters.flag = flag;
    for (parameters.strMode = 0; parameters.strMode < kStrModeCount; ++parameters.strMode) {
      SCOPED_TRACE(testing::Message() << "algorithm " << parameters.algorithm << ", mode " << parameters.blockMode
                                      << ", IV " << parameters.ivMode << ", encoding " << parameters.strMode);
      const Policy policy(parameters);
      ASSERT_TRUE(policy);
      check(policy);
    }
  }
}

void checkEveryBit(const Policy& policy, const Data& value) {
  const Data encrypted = *encrypt(policy, value);
  for (std::size_t bit = 0; bit < 8 * encrypted.size(); ++bit) {
    Data changed = encrypted;
    changed[bit / 8] ^= static_cast<unsigned char>(1U << (bit % 8));
    EXPECT_FALSE(decrypt(policy, changed)) << "bit " << bit << " of " << test::toHex(encrypted);
  }
  EXPECT_EQ(decrypt(policy, encrypted), value);
}

TEST(CryptoTamper, NoBitOfAWholeValueCanChange) {
  forEveryAuthenticated(0, 0, "{e}", [](const Policy& policy) {
    for (const std::size_t size : {0U, 1U, 20U}) checkEveryBit(policy, test::patternOf(size));
  });
}

TEST(CryptoTamper, NoBitOfAPartialValueCanChange) {
  forEveryAuthenticated(2, 3, "#", [](const Policy& policy) {
    for (const std::size_t size : {3U, 5U, 9U}) checkEveryBit(policy, test::patternOf(size));
  });
  forEveryAuthenticated(4, 0, "", [](const Policy& policy) { checkEveryBit(policy, test::patternOf(9)); });
}

TEST(CryptoTamper, NothingCanBeCutOffOrAdded) {
  for (const auto& [position, length] : {std::pair{0, 0}, std::pair{2, 3}, std::pair{2, 0}}) {
    forEveryAuthenticated(position, length, "#", [position = position](const Policy& policy) {
      const Data encrypted = *encrypt(policy, test::patternOf(12));
      // What ends before the encrypted part begins is a value that is stored as it is.
      for (std::size_t size = static_cast<std::size_t>(position) + (position == 0 ? 0 : 1); size < encrypted.size();
           ++size) {
        EXPECT_FALSE(decrypt(policy, Data(encrypted.begin(), encrypted.begin() + static_cast<std::ptrdiff_t>(size))))
            << size;
      }
      for (const unsigned char added : test::fromHex("000110413d81")) {
        EXPECT_FALSE(decrypt(policy, test::operator+(encrypted, Data{added})));
        EXPECT_FALSE(decrypt(policy, test::operator+(Data{added}, encrypted)));
        EXPECT_FALSE(decrypt(policy, test::operator+(encrypted, Data(16, added))));
      }
    });
  }
}

TEST(CryptoTamper, ClearPartsCannotBeExchanged) {
  forEveryAuthenticated(2, 3, "", [](const Policy& policy) {
    Data one = *encrypt(policy, test::bytesOf("AAxyzBB"));
    const Data other = *encrypt(policy, test::bytesOf("CCxyzDD"));
    std::copy_n(other.begin(), 2, one.begin());
    EXPECT_FALSE(decrypt(policy, one));
  });
}

// Bytes that move from the clear part before to the one after leave their concatenation as it was.
TEST(CryptoTamper, ClearPartsAreAuthenticatedEachWithItsLength) {
  forEveryAuthenticated(0, 3, "", [](const Policy& policy) {
    const Data value = *encrypt(policy, test::bytesOf("xyzAB"));
    PolicyParameters moved{
        policy.record.algID, policy.record.blockMode, policy.record.ivMode, policy.record.strMode, 1, 3};
    moved.columnKey = Data(policy.record.columnKey, policy.record.columnKey + policy.record.keyLength);
    const Policy other(moved);
    ASSERT_TRUE(other);
    Data shifted(value.end() - 2, value.end() - 1);
    shifted.insert(shifted.end(), value.begin(), value.end() - 2);
    shifted.push_back(value.back());
    EXPECT_FALSE(decrypt(other, shifted));
  });
}

TEST(CryptoTamper, ValuesOfAnotherPolicyAreNone) {
  forEveryAuthenticated(0, 0, "#", [](const Policy& policy) {
    const Policy other(
        {policy.record.algID, policy.record.blockMode, policy.record.ivMode, policy.record.strMode, 0, 0, "#"});
    for (const std::size_t size : {0U, 1U, 16U, 40U}) {
      EXPECT_FALSE(decrypt(other, *encrypt(policy, test::patternOf(size))));
    }
  });
}

// Without authentication a wrong value can only be told by its form; whatever comes, the server lives.
TEST(CryptoTamper, GarbageAndClearTextAreNone) {
  for (int algorithm = 0; algorithm < kAlgorithmCount; ++algorithm) {
    for (int mode = 0; mode < kBlockModeCount; ++mode) {
      for (int encoding = 0; encoding < kStrModeCount; ++encoding) {
        const Policy policy({algorithm, mode, test::DETERMINISTIC, encoding});
        if (!policy) continue;
        for (const char* text :
             {"", "a", "plain text", "0123456789abcdef0123456789abcdef0123456789abcdef", "=====", "gQ=="}) {
          EXPECT_FALSE(decrypt(policy, test::bytesOf(text))) << text;
        }
        for (std::size_t size = 1; size < 100; ++size) {
          Data garbage(size);
          ASSERT_TRUE(cipher::randomBytes(garbage));
          garbage[0] &= 0x7f;
          EXPECT_FALSE(decrypt(policy, garbage));
          garbage[0] = 0x81;
          const auto result = decrypt(policy, garbage);
          EXPECT_TRUE(!result || (mode == test::ECB && algorithm != test::CHACHA20));
        }
      }
    }
  }
}

// Every policy that can be made, RAW and without a flag.
template <typename Check>
void forEveryCipher(PolicyParameters parameters, Check check) {
  for (parameters.algorithm = 0; parameters.algorithm < kAlgorithmCount; ++parameters.algorithm) {
    for (parameters.blockMode = 0; parameters.blockMode < kBlockModeCount; ++parameters.blockMode) {
      for (parameters.ivMode = 0; parameters.ivMode < kIvTypeCount; ++parameters.ivMode) {
        const Policy policy(parameters);
        if (!policy) continue;
        SCOPED_TRACE(testing::Message() << "algorithm " << parameters.algorithm << ", mode " << parameters.blockMode
                                        << ", IV " << parameters.ivMode);
        check(policy);
      }
    }
  }
}

bool isOneWay(const Policy& policy) {
  return policy.record.algID >= test::HMAC_SHA256 && policy.record.algID <= test::HMAC_HAS160;
}

// Every policy that can be made, with each text encoding, over the whole value and over a part.
template <typename Check>
void forEveryKind(Check check) {
  for (const auto& [position, length] : {std::pair{0, 0}, std::pair{2, 3}, std::pair{2, 0}}) {
    for (int encoding = 0; encoding < kStrModeCount; ++encoding) {
      SCOPED_TRACE(testing::Message() << "position " << position << ", length " << length << ", encoding " << encoding);
      forEveryCipher({.strMode = encoding, .encPos = position, .encLen = length, .flag = "#"}, check);
    }
  }
}

// The shortest value that is not stored as it is.
std::size_t shortestEncrypted(const Policy& policy) {
  return policy.record.encPos == 0 ? 0 : static_cast<std::size_t>(policy.record.encPos) + 1;
}

TEST(CryptoTamper, NoKindWithAuthenticationTakesAChangedBit) {
  forEveryKind([](const Policy& policy) {
    if (test::isAuthenticated(policy.record) && !isOneWay(policy)) checkEveryBit(policy, test::patternOf(9));
  });
}

TEST(CryptoTamper, NoKindWithAuthenticationTakesAnotherLength) {
  forEveryKind([](const Policy& policy) {
    if (!test::isAuthenticated(policy.record)) return;
    const Data encrypted = *encrypt(policy, test::patternOf(9));
    for (std::size_t size = shortestEncrypted(policy); size < encrypted.size(); ++size) {
      EXPECT_FALSE(decrypt(policy, Data(encrypted.begin(), encrypted.begin() + static_cast<std::ptrdiff_t>(size))));
      EXPECT_FALSE(decrypt(policy, Data(encrypted.end() - static_cast<std::ptrdiff_t>(size), encrypted.end())));
    }
    for (std::size_t more = 1; more <= 64; ++more) {
      EXPECT_FALSE(decrypt(policy, test::operator+(encrypted, Data(more, encrypted.back())))) << more;
    }
    EXPECT_FALSE(decrypt(policy, test::operator+(encrypted, encrypted)));
  });
}

// The beginning of one value with the end of another, cut at every place, and any one stretch out of the other.
TEST(CryptoTamper, NoKindWithAuthenticationTakesPartsOfTwoValues) {
  forEveryKind([](const Policy& policy) {
    if (!test::isAuthenticated(policy.record)) return;
    const Data one = *encrypt(policy, test::bytesOf("one value of 20 byte"));
    const Data other = *encrypt(policy, test::bytesOf("and this is another!"));
    ASSERT_EQ(one.size(), other.size());
    for (std::size_t from = 0; from < one.size(); ++from) {
      for (const std::size_t size : {std::size_t{1}, std::size_t{16}, one.size()}) {
        Data mixed = one;
        const std::size_t end = std::min(from + size, one.size());
        std::copy(other.begin() + static_cast<std::ptrdiff_t>(from), other.begin() + static_cast<std::ptrdiff_t>(end),
                  mixed.begin() + static_cast<std::ptrdiff_t>(from));
        if (mixed == one || mixed == other) continue;
        EXPECT_FALSE(decrypt(policy, mixed)) << from << " to " << end;
      }
    }
  });
}

// Nothing tells a changed value there; but none gives more than it has bytes, and none is read past its end.
TEST(CryptoTamper, KindsWithoutAuthenticationLiveWithAnything) {
  forEveryKind([](const Policy& policy) {
    if (test::isAuthenticated(policy.record)) return;
    const Data encrypted = *encrypt(policy, test::patternOf(9));
    for (std::size_t bit = 0; bit < 8 * encrypted.size(); ++bit) {
      Data changed = encrypted;
      changed[bit / 8] ^= static_cast<unsigned char>(1U << (bit % 8));
      EXPECT_LE(decrypt(policy, changed).value_or(Data()).size(), changed.size()) << bit;
    }
    for (std::size_t size = 0; size < encrypted.size(); ++size) {
      const Data cut(encrypted.begin(), encrypted.begin() + static_cast<std::ptrdiff_t>(size));
      const auto result = decrypt(policy, cut);
      EXPECT_LE(result.value_or(Data()).size(), size);
      const Data longer = test::operator+(encrypted, cut);
      EXPECT_LE(decrypt(policy, longer).value_or(Data()).size(), longer.size());
    }
  });
}

// A value that ends within its flag or its first digits is none, and nothing behind it is read to find that out:
// neither to decrypt it, nor to tell whether it is encrypted already.
TEST(CryptoTamper, BeginningsOfAValueAreClearTexts) {
  const std::string flag = "{flag}";
  forEveryAuthenticated(0, 0, flag.c_str(), [&flag](const Policy& policy) {
    const Data encrypted = *encrypt(policy, test::patternOf(9));
    const std::size_t firstByte = policy.record.strMode == test::RAW ? 1 : policy.record.strMode == test::HEX ? 2 : 4;
    for (std::size_t size = 0; size < flag.size() + firstByte; ++size) {
      const Data beginning(encrypted.begin(), encrypted.begin() + static_cast<std::ptrdiff_t>(size));
      EXPECT_FALSE(decrypt(policy, beginning)) << size;
      const auto again = encrypt(policy, beginning);
      ASSERT_TRUE(again) << size;
      EXPECT_EQ(decrypt(policy, *again), beginning);
    }
  });
}

TEST(CryptoTamper, WhatIsTooShortForAValueIsNone) {
  forEveryCipher({}, [](const Policy& policy) {
    const std::size_t shortest = encrypt(policy, {})->size();
    for (std::size_t size = 0; size < shortest; ++size) {
      Data garbage(size);
      ASSERT_TRUE(cipher::randomBytes(garbage));
      if (size != 0) garbage[0] = 0x81;
      EXPECT_FALSE(decrypt(policy, garbage)) << size;
    }
  });
}

TEST(CryptoTamper, ClearTextBehindTheClearPartIsNone) {
  for (const int length : {0, 3, INT_MAX}) {
    forEveryCipher({.encPos = 2, .encLen = length}, [](const Policy& policy) {
      for (const char* text : {"abc", "abcdef", "ab0123456789abcdef0123456789abcdef0123456789abcdef"}) {
        EXPECT_FALSE(decrypt(policy, test::bytesOf(text))) << text;
      }
      for (std::size_t size = 3; size < 100; ++size) {
        Data garbage(size);
        ASSERT_TRUE(cipher::randomBytes(garbage));
        garbage[2] &= 0x7f;
        EXPECT_FALSE(decrypt(policy, garbage)) << size;
        garbage[2] = 0x81;
        decrypt(policy, garbage);  // whatever it gives where nothing is authenticated, it comes back
      }
    });
  }
}

// Whether eight bytes on end of `value` stand anywhere in `out`.
bool showsPartOf(const Data& out, const Data& value) {
  for (auto at = value.begin(); value.end() - at >= 8; ++at) {
    if (std::search(out.begin(), out.end(), at, at + 8) != out.end()) return true;
  }
  return false;
}

// Most modes give the text out before they know whether it is genuine.
TEST(CryptoTamper, NothingOfARefusedValueStaysInTheOutput) {
  for (const int position : {0, 2}) {
    forEveryAuthenticated(position, 0, "", [position](const Policy& policy) {
      if (policy.record.strMode != test::RAW) return;
      const Data value = test::patternOf(64);
      const Data encrypted = *encrypt(policy, value);
      for (const std::size_t at : {static_cast<std::size_t>(position) + 1, encrypted.size() - 1}) {
        Data changed = encrypted;
        changed[at] ^= 1;
        Data out(200, 0x5a);
        auto size = static_cast<unsigned int>(out.size());
        Q7EncPolicyInfo record = policy.record;
        EXPECT_NE(Q7_DecryptBinaryExt(out.data(), &size, changed.data(), static_cast<unsigned int>(changed.size()),
                                      &record, policy.handle),
                  0);
        EXPECT_EQ(size, 0U);
        EXPECT_FALSE(showsPartOf(out, value)) << "byte " << at << " changed";
      }
    });
  }
}

TEST(CryptoTamper, PaddingIsChecked) {
  for (const int algorithm : {test::AES256, test::SEED128, test::TDES168}) {
    const Policy policy({algorithm, test::CBC, test::RANDOM});
    ASSERT_TRUE(policy);
    const Data encrypted = *encrypt(policy, test::patternOf(100));
    int refused = 0;
    for (int change = 1; change < 256; ++change) {
      Data changed = encrypted;
      changed.back() ^= static_cast<unsigned char>(change);
      refused += decrypt(policy, changed) ? 0 : 1;
    }
    // A changed last block decrypts to something random, whose padding is right about once in 256.
    EXPECT_GT(refused, 240);
  }
}

TEST(CryptoTamper, VersionIsChecked) {
  const Policy policy({.blockMode = test::CTR});
  Data encrypted = *encrypt(policy, test::bytesOf("value"));
  for (int version = 0; version < 256; ++version) {
    encrypted[0] = static_cast<unsigned char>(version);
    EXPECT_EQ(static_cast<bool>(decrypt(policy, encrypted)), version == 0x81);
  }
}

TEST(CryptoTamper, FlagIsChecked) {
  const Policy policy({.blockMode = test::CTR, .flag = "flag"});
  const Data encrypted = *encrypt(policy, test::bytesOf("value"));
  EXPECT_EQ(Data(encrypted.begin(), encrypted.begin() + 4), test::bytesOf("flag"));
  EXPECT_FALSE(decrypt(policy, Data(encrypted.begin() + 4, encrypted.end())));
  Data other = encrypted;
  other[3] = 'G';
  EXPECT_FALSE(decrypt(policy, other));
  EXPECT_FALSE(decrypt(policy, test::bytesOf("flag")));
}

// A text that another writer might take for the same value.
TEST(CryptoTamper, OnlyTheCanonicalTextIsAccepted) {
  const Policy hex({.blockMode = test::CTR, .strMode = test::HEX});
  const Data digits = *encrypt(hex, test::bytesOf("value"));
  Data upper = digits;
  for (unsigned char& digit : upper) digit = static_cast<unsigned char>(std::toupper(digit));
  EXPECT_NE(upper, digits);
  EXPECT_FALSE(decrypt(hex, upper));
  EXPECT_FALSE(decrypt(hex, test::operator+(digits, test::bytesOf(" "))));
  EXPECT_FALSE(decrypt(hex, test::operator+(digits, test::bytesOf("\n"))));

  const Policy base64({.blockMode = test::CTR, .strMode = test::BASE64});
  const Data text = *encrypt(base64, test::bytesOf("value"));  // 22 bytes: two padding digits, four unused bits
  ASSERT_EQ(text.size(), 32U);
  ASSERT_EQ(text[30], '=');
  EXPECT_FALSE(decrypt(base64, Data(text.begin(), text.end() - 2)));
  EXPECT_FALSE(decrypt(base64, test::operator+(text, test::bytesOf("\n"))));
  Data strayBits = text;
  strayBits[29] = strayBits[29] == '/' ? '+' : static_cast<unsigned char>(strayBits[29] + 1);
  EXPECT_FALSE(decrypt(base64, strayBits));
  Data inside = text;
  inside[27] = '=';
  EXPECT_FALSE(decrypt(base64, inside));
}

class DoubleEncryption : public testing::Test {
 protected:
  ~DoubleEncryption() override { g_doubleEncryptMode = 0; }
};

TEST_F(DoubleEncryption, FollowsTheMode) {
  for (const int encoding : {test::RAW, test::BASE64, test::HEX}) {
    for (const auto& [position, length] : {std::pair{0, 0}, std::pair{3, 4}, std::pair{3, 0}}) {
      const Policy policy({test::AES256, test::GCM, test::RANDOM, encoding, position, length, "#"});
      const Data once = *encrypt(policy, test::bytesOf("some value"));
      g_doubleEncryptMode = kDoubleEncryptError;
      EXPECT_FALSE(encrypt(policy, once));
      for (const int pass : {kDoubleEncryptPass, 2, -1}) {
        g_doubleEncryptMode = pass;
        EXPECT_EQ(encrypt(policy, once), once);
        const test::Result small = test::run(Q7_EncryptBinaryExt, once, policy.record, policy.handle,
                                             static_cast<unsigned int>(once.size() - 1));
        EXPECT_NE(small.code, 0);
        EXPECT_EQ(small.length, once.size());
      }
      const test::Result refused = [&] {
        g_doubleEncryptMode = kDoubleEncryptError;
        return test::run(Q7_EncryptBinaryExt, once, policy.record, policy.handle, 1000);
      }();
      EXPECT_NE(refused.code, 0);
      EXPECT_EQ(refused.length, 0U);
    }
  }
}

TEST_F(DoubleEncryption, LooksAtFlagAndVersionOnly) {
  const Policy policy({.blockMode = test::GCM, .flag = "#"});
  for (const char* clear : {"", "#", "#x", "##", "x#"}) EXPECT_TRUE(encrypt(policy, test::bytesOf(clear))) << clear;
  EXPECT_FALSE(encrypt(policy, Data{'#', 0x81}));
  EXPECT_TRUE(encrypt(policy, Data{'#', 0x80}));
  EXPECT_TRUE(encrypt(policy, Data{0x81}));
  const Policy hex({.blockMode = test::GCM, .strMode = test::HEX, .flag = "#"});
  EXPECT_FALSE(encrypt(hex, test::bytesOf("#81")));
  EXPECT_TRUE(encrypt(hex, test::bytesOf("#8")));
  EXPECT_TRUE(encrypt(hex, test::bytesOf("#82")));
  const Policy base64({.blockMode = test::GCM, .strMode = test::BASE64, .flag = "#"});
  EXPECT_FALSE(encrypt(base64, test::bytesOf("#gQAA")));
  EXPECT_FALSE(encrypt(base64, test::bytesOf("#gf//")));
  EXPECT_TRUE(encrypt(base64, test::bytesOf("#gg//")));
  EXPECT_TRUE(encrypt(base64, test::bytesOf("#gQA")));
}

TEST_F(DoubleEncryption, WithoutAFlagEncryptsAgain) {
  for (const int mode : {kDoubleEncryptError, kDoubleEncryptPass}) {
    g_doubleEncryptMode = mode;
    const Policy policy({.blockMode = test::GCM});
    const Data once = *encrypt(policy, test::bytesOf("value"));
    const auto twice = encrypt(policy, once);
    ASSERT_TRUE(twice);
    EXPECT_EQ(decrypt(policy, *twice), once);
  }
}

TEST(CryptoPartial, PartsStayWhereTheyAre) {
  const Policy policy({test::AES256, test::CTR, test::RANDOM, test::HEX, 4, 6, "#"});
  const Data encrypted = *encrypt(policy, test::bytesOf("1234567890123456"));
  EXPECT_EQ(encrypted.size(), 4U + 1 + 2 * (1 + 16 + 6) + 6);
  EXPECT_EQ(Data(encrypted.begin(), encrypted.begin() + 5), test::bytesOf("1234#"));
  EXPECT_EQ(Data(encrypted.end() - 6, encrypted.end()), test::bytesOf("123456"));
}

TEST(CryptoPartial, ValuesThatEndBeforeTheRangeAreStoredAsTheyAre) {
  for (const int length : {0, 3}) {
    const Policy policy({test::AES256, test::GCM, test::RANDOM, test::RAW, 5, length, "#"});
    for (const char* text : {"", "1", "12345"}) {
      EXPECT_EQ(encrypt(policy, test::bytesOf(text)), test::bytesOf(text));
      EXPECT_EQ(decrypt(policy, test::bytesOf(text)), test::bytesOf(text));
    }
    EXPECT_NE(encrypt(policy, test::bytesOf("123456")), test::bytesOf("123456"));
    EXPECT_FALSE(decrypt(policy, test::bytesOf("123456")));
  }
  const Policy fromStart({test::AES256, test::GCM, test::RANDOM, test::RAW, 0, 3});
  EXPECT_EQ(encrypt(fromStart, {}), Data{});
  EXPECT_EQ(decrypt(fromStart, {}), Data{});
}

TEST(CryptoPartial, RangesMayReachPastAnyValue) {
  for (const int encoding : {test::RAW, test::BASE64, test::HEX}) {
    const Policy wide({test::AES256, test::GCM, test::RANDOM, encoding, 2, INT_MAX, "#"});
    for (const std::size_t size : {3U, 16U, 4000U}) {
      const Data value = test::patternOf(size);
      const Data encrypted = *encrypt(wide, value);
      EXPECT_EQ(Data(encrypted.begin(), encrypted.begin() + 2), test::patternOf(2));
      EXPECT_GT(encrypted.size(), size + 1 + 12 + 16);
      EXPECT_EQ(decrypt(wide, encrypted), value);
      EXPECT_FALSE(decrypt(wide, test::operator+(encrypted, Data{0})));
    }
    for (const int length : {0, 1, INT_MAX}) {
      const Policy far({test::AES256, test::GCM, test::RANDOM, encoding, INT_MAX, length, "#"});
      for (const std::size_t size : {0U, 1U, 4000U}) {
        EXPECT_EQ(encrypt(far, test::patternOf(size)), test::patternOf(size));
        EXPECT_EQ(decrypt(far, test::patternOf(size)), test::patternOf(size));
      }
    }
  }
}

// A padded middle part can decrypt to fewer or more bytes than the range has. Without authentication nothing else tells
// that the value is none of this policy.
TEST(CryptoPartial, MiddlePartHasTheSizeOfTheRange) {
  const Data key = test::patternOf(32);
  const Policy policy({test::AES256, test::CBC, test::RANDOM, test::RAW, 2, 3, "", key});
  const Data before = test::bytesOf("ab");
  const Data shorter = *encrypt(policy, test::bytesOf("abc"));
  EXPECT_EQ(decrypt(policy, shorter), test::bytesOf("abc"));
  EXPECT_FALSE(decrypt(policy, test::operator+(shorter, Data{'d'}))) << "one byte, and something after it";
  const Policy longer({test::AES256, test::CBC, test::RANDOM, test::RAW, 2, 9, "", key});
  EXPECT_FALSE(decrypt(policy, *encrypt(longer, test::bytesOf("abcdef")))) << "four bytes";
  EXPECT_TRUE(decrypt(policy, *encrypt(longer, test::bytesOf("abcde")))) << "three bytes";
  const Policy whole({test::AES256, test::CBC, test::RANDOM, test::RAW, 0, 0, "", key});
  EXPECT_FALSE(decrypt(policy, test::operator+(before, *encrypt(whole, {})))) << "no bytes";
  EXPECT_TRUE(decrypt(policy, test::operator+(before, *encrypt(whole, {'c'})))) << "one byte";
}

TEST(CryptoWhole, EmptyValueIsEncryptedLikeAnyOther) {
  const Policy policy({.blockMode = test::GCM});
  const auto encrypted = encrypt(policy, {});
  ASSERT_TRUE(encrypted);
  EXPECT_EQ(encrypted->size(), 1U + 12 + 16);
  EXPECT_EQ(decrypt(policy, *encrypted), Data{});
}

TEST(CryptoArguments, AreCheckedAtTheBorder) {
  Policy policy({.blockMode = test::GCM});
  unsigned char out[100];
  unsigned int length = sizeof out;
  const unsigned char in[] = {1};
  for (const test::Operation operation : {Q7_EncryptBinaryExt, Q7_DecryptBinaryExt}) {
    EXPECT_NE(operation(out, nullptr, in, 1, &policy.record, policy.handle), 0);
    length = sizeof out;
    EXPECT_NE(operation(nullptr, &length, in, 1, &policy.record, policy.handle), 0);
    EXPECT_EQ(length, 0U);
    length = sizeof out;
    EXPECT_NE(operation(out, &length, nullptr, 1, &policy.record, policy.handle), 0);
    EXPECT_EQ(length, 0U);
    length = sizeof out;
    EXPECT_NE(operation(out, &length, in, 1, nullptr, policy.handle), 0);
    EXPECT_EQ(length, 0U);
    length = sizeof out;
    EXPECT_NE(operation(out, &length, in, 1, &policy.record, nullptr), 0);
    EXPECT_EQ(length, 0U);
    length = sizeof out;
    EXPECT_NE(operation(out, &length, in, 0x80000000U, &policy.record, policy.handle), 0);
    EXPECT_EQ(length, 0U);
  }
  length = sizeof out;
  EXPECT_EQ(Q7_EncryptBinaryExt(out, &length, nullptr, 0, &policy.record, policy.handle), 0);
}

TEST(CryptoArguments, HandleIsThePolicysOwnAndLive) {
  const Policy policy({.blockMode = test::GCM, .columnKey = test::patternOf(32)});
  const Policy other({.blockMode = test::GCM, .encLen = 1, .columnKey = test::patternOf(32)});
  const Data value = test::bytesOf("value");
  const Data encrypted = *encrypt(policy, value);
  const auto expectNone = [&](BCipherKey handle) {
    for (const test::Result& result : {test::run(Q7_EncryptBinaryExt, value, policy.record, handle, 100),
                                       test::run(Q7_DecryptBinaryExt, encrypted, policy.record, handle, 100)}) {
      EXPECT_NE(result.code, 0);
      EXPECT_EQ(result.length, 0U);
    }
  };
  expectNone(other.handle);
  BCIPHER_WipeKey(policy.handle);
  expectNone(policy.handle);
  BCIPHER_DelKey(policy.handle);
  expectNone(policy.handle);
}

}  // namespace
