// SPDX-License-Identifier: Apache-2.0
//
// Digests and keyed digests against published vectors.
#include <gtest/gtest.h>

#include "cipher/digest.h"
#include "cipher/kdf.h"
#include "tests/unit/crypto_fixture.h"

namespace {

using cipher::Digest;
using test::bytesOf;
using test::Data;
using test::fromHex;
using test::toHex;

std::string digestOf(Digest algorithm, const Data& data) {
  Data out(cipher::digestSize(algorithm));
  EXPECT_TRUE(cipher::digest(algorithm, out.data(), data));
  return toHex(out);
}

std::string hmacOf(Digest algorithm, const Data& key, const Data& data) {
  Data out(cipher::digestSize(algorithm));
  const cipher::Hmac hmac(algorithm, key);
  const cipher::Bytes whole[] = {data};
  EXPECT_TRUE(hmac.compute(out.data(), whole));
  // The same in two pieces, from the same prepared state.
  Data again(out.size());
  const cipher::Bytes pieces[] = {cipher::Bytes(data).first(data.size() / 2),
                                  cipher::Bytes(data).subspan(data.size() / 2)};
  EXPECT_TRUE(hmac.compute(again.data(), pieces));
  EXPECT_EQ(toHex(out), toHex(again));
  return toHex(out);
}

// FIPS 180-4's examples (NIST, "Examples with Intermediate Values").
TEST(CipherDigest, ShaExamples) {
  const Data abc = bytesOf("abc");
  EXPECT_EQ(digestOf(Digest::kSha1, abc), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(digestOf(Digest::kSha256, abc), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(digestOf(Digest::kSha512, abc),
            "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
            "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f");
  const Data twoBlocks = bytesOf("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq");
  EXPECT_EQ(digestOf(Digest::kSha1, twoBlocks), "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
  EXPECT_EQ(digestOf(Digest::kSha256, twoBlocks), "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
  EXPECT_EQ(digestOf(Digest::kSha256, {}), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

// TTAS.KO-12.0011/R2, with the texts that the MD4 family is tested with.
TEST(CipherDigest, Has160Examples) {
  EXPECT_EQ(digestOf(Digest::kHas160, {}), "307964ef34151d37c8047adec7ab50f4ff89762d");
  EXPECT_EQ(digestOf(Digest::kHas160, bytesOf("a")), "4872bcbc4cd0f0a9dc7c2f7045e5b43b6c830db8");
  EXPECT_EQ(digestOf(Digest::kHas160, bytesOf("abc")), "975e810488cf2a3d49838478124afce4b1c78804");
  EXPECT_EQ(digestOf(Digest::kHas160, bytesOf("message digest")), "2338dbc8638d31225f73086246ba529f96710bc6");
  EXPECT_EQ(digestOf(Digest::kHas160, bytesOf("abcdefghijklmnopqrstuvwxyz")),
            "596185c9ab6703d0d0dbb98702bc0f5729cd1d3c");
  EXPECT_EQ(digestOf(Digest::kHas160, bytesOf("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789")),
            "cb5d7efbca2f02e0fb7167cabb123af5795764e5");
}

struct HmacCase {
  Data key, data;
  const char* sha256;
  const char* sha512;
};

// RFC 4231, test cases 1 to 4, 6 and 7: keys up to and past a block.
TEST(CipherDigest, HmacSha2Examples) {
  const HmacCase cases[] = {
      {Data(20, 0x0b), bytesOf("Hi There"), "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7",
       "87aa7cdea5ef619d4ff0b4241a1d6cb02379f4e2ce4ec2787ad0b30545e17cdedaa833b7d6b8a702038b274eaea3f4e4be9d914eeb61f17"
       "02e69"
       "6c203a126854"},
      {bytesOf("Jefe"), bytesOf("what do ya want for nothing?"),
       "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843",
       "164b7a7bfcf819e2e395fbe73b56e0a387bd64222e831fd610270cd7ea2505549758bf75c05a994a6d034f65f8f0e6fdcaeab1a34d4a6b4"
       "b636e"
       "070a38bce737"},
      {Data(20, 0xaa), Data(50, 0xdd), "773ea91e36800e46854db8ebd09181a72959098b3ef8c122d9635514ced565fe",
       "fa73b0089d56a284efb0f0756c890be9b1b5dbdd8ee81a3655f83e33b2279d39bf3e848279a722c806b485a47e67c807b946a337bee8942"
       "674278"
       "859e13292fb"},
      {fromHex("0102030405060708090a0b0c0d0e0f10111213141516171819"), Data(50, 0xcd),
       "82558a389a443c0ea4cc819899f2083a85f0faa3e578f8077a2e3ff46729665b",
       "b0ba465637458c6990e5a8c5f61d4af7e576d97ff94b872de76f8050361ee3dba91ca5c11aa25eb4d679275cc5788063a5f19741120c4f2"
       "de2adeb"
       "eb10a298dd"},
      {Data(131, 0xaa), bytesOf("Test Using Larger Than Block-Size Key - Hash Key First"),
       "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54",
       "80b24263c7c1a3ebb71493c1dd7be8b49b46d1f41b4aeec1121b013783f8f3526b56d037e05f2598bd0fd2215d6a1e5295e64f73f63f0ae"
       "c8b915a"
       "985d786598"},
      {Data(131, 0xaa),
       bytesOf(
           "This is a test using a larger than block-size key and a larger than block-size data. The key needs to be "
           "hashed before being used by the HMAC algorithm."),
       "9b09ffa71b942fcb27635fbcd5b0e944bfdc63644f0713938a7f51535c3a35e2",
       "e37b6a775dc87dbaa4dfa9f96e5e3ffddebd71f8867289865df5a32d20cdc944b6022cac3c4982b10d5eeb55c3e4de15134676fb6de0446"
       "065c974"
       "40fa8c6a58"},
  };
  for (const HmacCase& example : cases) {
    EXPECT_EQ(hmacOf(Digest::kSha256, example.key, example.data), example.sha256);
    EXPECT_EQ(hmacOf(Digest::kSha512, example.key, example.data), example.sha512);
  }
}

// RFC 4231, test case 5: the first 16 bytes are published.
TEST(CipherDigest, HmacSha2TruncatedExample) {
  const Data key(20, 0x0c);
  const Data data = bytesOf("Test With Truncation");
  EXPECT_EQ(hmacOf(Digest::kSha256, key, data).substr(0, 32), "a3b6167473100ee06e0c796c2955552b");
  EXPECT_EQ(hmacOf(Digest::kSha512, key, data).substr(0, 32), "415fad6271580a531d4179bc891d87a6");
}

// RFC 2202, section 3, all seven.
TEST(CipherDigest, HmacSha1Examples) {
  EXPECT_EQ(hmacOf(Digest::kSha1, Data(20, 0x0b), bytesOf("Hi There")), "b617318655057264e28bc0b6fb378c8ef146be00");
  EXPECT_EQ(hmacOf(Digest::kSha1, bytesOf("Jefe"), bytesOf("what do ya want for nothing?")),
            "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79");
  EXPECT_EQ(hmacOf(Digest::kSha1, Data(20, 0xaa), Data(50, 0xdd)), "125d7342b9ac11cd91a39af48aa17b4f63f175d3");
  EXPECT_EQ(hmacOf(Digest::kSha1, fromHex("0102030405060708090a0b0c0d0e0f10111213141516171819"), Data(50, 0xcd)),
            "4c9007f4026250c6bc8414f9bf50c86c2d7235da");
  EXPECT_EQ(hmacOf(Digest::kSha1, Data(20, 0x0c), bytesOf("Test With Truncation")),
            "4c1a03424b55e07fe7f27be1d58bb9324a9a5a04");
  EXPECT_EQ(hmacOf(Digest::kSha1, Data(80, 0xaa), bytesOf("Test Using Larger Than Block-Size Key - Hash Key First")),
            "aa4ae5e15272d00e95705637ce8a3b55ed402112");
  EXPECT_EQ(hmacOf(Digest::kSha1, Data(80, 0xaa),
                   bytesOf("Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data")),
            "e8e99d0f45237d786d6bbaa7965c7808bbff1a91");
}

// RFC 2104's construction, from the plain digests: H((K ^ opad) | H((K ^ ipad) | text)).
std::string has160Construction(Data key, const Data& data) {
  if (key.size() > 64) key = fromHex(digestOf(Digest::kHas160, key));
  key.resize(64);
  Data inner = key;
  Data outer = key;
  for (unsigned char& byte : inner) byte ^= 0x36;
  for (unsigned char& byte : outer) byte ^= 0x5c;
  return digestOf(Digest::kHas160,
                  test::operator+(outer, fromHex(digestOf(Digest::kHas160, test::operator+(inner, data)))));
}

TEST(CipherDigest, HmacHas160IsTheConstruction) {
  for (const std::size_t keySize : {1U, 20U, 32U, 63U, 64U, 65U, 131U}) {
    for (const std::size_t size : {0U, 1U, 55U, 56U, 63U, 64U, 65U, 1000U}) {
      const Data key = test::patternOf(keySize);
      const Data data = test::patternOf(size);
      EXPECT_EQ(hmacOf(Digest::kHas160, key, data), has160Construction(key, data)) << keySize << ", " << size;
    }
  }
}

// RFC 5869, test case 3: no salt, no info.
TEST(CipherKdf, HkdfExample) {
  Data out(42);
  ASSERT_TRUE(cipher::hkdfSha256(out, Data(22, 0x0b), ""));
  EXPECT_EQ(toHex(out), "8da4e775a563c18f715f802a063c5a31b8a11f5c5ee1879ec3454e5f3c738d2d9d201395faa4b61a96c8");
}

TEST(CipherKdf, HkdfRefusesMoreThanItCanGive) {
  Data out(255 * 32);
  EXPECT_TRUE(cipher::hkdfSha256(out, Data(32, 1), "label"));
  out.resize(255 * 32 + 1, 0xee);
  EXPECT_FALSE(cipher::hkdfSha256(out, Data(32, 1), "label"));
  EXPECT_EQ(out, Data(out.size()));
}

}  // namespace
