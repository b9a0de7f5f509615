// SPDX-License-Identifier: Apache-2.0
//
// What one value of 20 bytes costs, beside the bare cipher: a loop over a context that is keyed already.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <array>
#include <cstdlib>
#include <cstring>

#include "cipher/suite.h"
#include "kezu/engine.h"

namespace {

constexpr unsigned int kValueSize = 20;
constexpr unsigned char kValue[kValueSize + 1] = "value of twenty byte";
constexpr unsigned int kRoom = 256;

struct Policy {
  Q7EncPolicyInfo record{};
  BCipherKey key = nullptr;

  explicit Policy(const benchmark::State& state) {
    if (Q7_AddPolicyInfo(record, &key, "bench", static_cast<int>(state.range(0)), static_cast<int>(state.range(2)),
                         nullptr, 0xFFFFFFFF, 0, 0, static_cast<int>(state.range(1)), static_cast<int>(state.range(3)),
                         "") == 0) {
      std::abort();
    }
  }
  Policy(const Policy&) = delete;
  Policy& operator=(const Policy&) = delete;
  ~Policy() { BCIPHER_DelKey(key); }
};

void encryptValue(benchmark::State& state) {
  Policy policy(state);
  unsigned char out[kRoom];
  for ([[maybe_unused]] const auto _ : state) {
    unsigned int size = kRoom;
    if (Q7_EncryptBinaryExt(out, &size, kValue, kValueSize, &policy.record, policy.key) != 0) std::abort();
    benchmark::DoNotOptimize(out);
  }
}

void decryptValue(benchmark::State& state) {
  Policy policy(state);
  unsigned char encrypted[kRoom];
  unsigned char out[kRoom];
  unsigned int encryptedSize = kRoom;
  Q7_EncryptBinaryExt(encrypted, &encryptedSize, kValue, kValueSize, &policy.record, policy.key);
  for ([[maybe_unused]] const auto _ : state) {
    unsigned int size = kRoom;
    if (Q7_DecryptBinaryExt(out, &size, encrypted, encryptedSize, &policy.record, policy.key) != 0) std::abort();
    benchmark::DoNotOptimize(out);
  }
}

// Algorithm, block mode, IV type, text encoding.
void combinations(benchmark::internal::Benchmark* bench) {
  constexpr int kAes256 = static_cast<int>(cipher::Algorithm::kAes256);
  for (const auto mode : {cipher::BlockMode::kCbc, cipher::BlockMode::kGcm, cipher::BlockMode::kCtr,
                          cipher::BlockMode::kCbcHmac, cipher::BlockMode::kSiv}) {
    for (const int ivType : {0, 1}) bench->Args({kAes256, static_cast<int>(mode), ivType, 0});
  }
  bench->Args({kAes256, static_cast<int>(cipher::BlockMode::kCbc), 1, 1});
  bench->ArgNames({"alg", "mode", "iv", "text"});
}
BENCHMARK(encryptValue)->Apply(combinations);
BENCHMARK(decryptValue)->Apply(combinations);
BENCHMARK(encryptValue)->Args({2, 1, 1, 0})->Threads(2);

void bareCipher(benchmark::State& state, const EVP_CIPHER* cipher, bool encrypting) {
  std::array<unsigned char, 32> key{1};
  std::array<unsigned char, 16> iv{2};
  unsigned char in[kRoom];
  unsigned char out[kRoom];
  std::memcpy(in, kValue, kValueSize);
  int size = kValueSize;
  EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
  int written = 0;
  int last = 0;
  if (!encrypting) {
    EVP_EncryptInit_ex2(context, cipher, key.data(), iv.data(), nullptr);
    EVP_EncryptUpdate(context, in, &written, kValue, kValueSize);
    EVP_EncryptFinal_ex(context, in + written, &last);
    size = written + last;
  }
  EVP_CipherInit_ex2(context, cipher, key.data(), iv.data(), encrypting ? 1 : 0, nullptr);
  for ([[maybe_unused]] const auto _ : state) {
    EVP_CipherInit_ex2(context, nullptr, nullptr, iv.data(), encrypting ? 1 : 0, nullptr);
    EVP_CipherUpdate(context, out, &written, in, size);
    if (EVP_CipherFinal_ex(context, out + written, &last) != 1) std::abort();
    benchmark::DoNotOptimize(out);
  }
  EVP_CIPHER_CTX_free(context);
}
BENCHMARK_CAPTURE(bareCipher, encryptAes256Cbc, EVP_aes_256_cbc(), true);
BENCHMARK_CAPTURE(bareCipher, decryptAes256Cbc, EVP_aes_256_cbc(), false);

void hmacValue(benchmark::State& state) {
  Policy policy(state);
  g_encPolicyArray[0][0] = policy.record;
  g_makeKeyArray[0][0] = policy.key;
  unsigned char out[64];
  for ([[maybe_unused]] const auto _ : state) {
    unsigned int size = 0;
    kezuHmacBinary(out, &size, kValue, kValueSize, static_cast<int>(state.range(4)), &g_encPolicyArray[0][0]);
    benchmark::DoNotOptimize(out);
  }
  g_makeKeyArray[0][0] = nullptr;
}
BENCHMARK(hmacValue)->Args({2, 1, 1, 0, kHashSha256})->Args({2, 1, 1, 0, kHashSha512})->Args({2, 1, 1, 0, kHashHas160});

void hashValue(benchmark::State& state) {
  unsigned char out[64];
  for ([[maybe_unused]] const auto _ : state) {
    unsigned int size = 0;
    kezuHashBinary(out, &size, kValue, kValueSize, static_cast<int>(state.range(0)));
    benchmark::DoNotOptimize(out);
  }
}
BENCHMARK(hashValue)->DenseRange(kHashSha1, kHashHas160);

}  // namespace

BENCHMARK_MAIN();
