// SPDX-License-Identifier: Apache-2.0
//
// What one row costs in the UDF library and the engine below it: the entry points that the server calls, called with a
// value of 20 bytes as the server does.
#include <benchmark/benchmark.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "frame/mysql_headers.h"
#include "kezu/engine.h"

extern "C" {
char* data_process_po_ed(UDF_INIT*, UDF_ARGS*, char*, unsigned long*, char*, char*);
char* data_process_ed_check_str(UDF_INIT*, UDF_ARGS*, char*, unsigned long*, char*, char*);
char* hash_raw_data(UDF_INIT*, UDF_ARGS*, char*, unsigned long*, char*, char*);
char* hash_b64_data(UDF_INIT*, UDF_ARGS*, char*, unsigned long*, char*, char*);
char* hmac_b64_data(UDF_INIT*, UDF_ARGS*, char*, unsigned long*, char*, char*);
}

namespace {

using StringFunction = char* (*)(UDF_INIT*, UDF_ARGS*, char*, unsigned long*, char*, char*);

constexpr int kAes256 = 2;
constexpr int kCbc = 1;
constexpr int kGcm = 5;
constexpr int kDeterministic = 0;
constexpr int kRandom = 1;

// A policy table of a number of policies, the last of which is the one to use.
class PolicyTable {
 public:
  PolicyTable(int count, int blockMode, int ivMode) {
    for (count_ = 0; count_ < count; ++count_) {
      const bool last = count_ == count - 1;
      const std::string name = "policy" + std::to_string(1000 + count_);
      if (Q7_AddPolicyInfo(g_encPolicyArray[0][count_], &g_makeKeyArray[0][count_], name.c_str(), kAes256,
                           last ? ivMode : kRandom, nullptr, 0xFFFFFFFF, 0, 0, last ? blockMode : kGcm, 0, "") == 0) {
        std::abort();
      }
      name_ = name;
    }
    g_numberOfEncPolicy[0] = count;
  }
  PolicyTable(const PolicyTable&) = delete;
  PolicyTable& operator=(const PolicyTable&) = delete;
  ~PolicyTable() {
    g_numberOfEncPolicy[0] = 0;
    for (int i = 0; i < count_; ++i) {
      BCIPHER_DelKey(g_makeKeyArray[0][i]);
      g_makeKeyArray[0][i] = nullptr;
    }
  }

  // The name of the last policy.
  [[nodiscard]] const std::string& name() const { return name_; }

 private:
  int count_ = 0;
  std::string name_;
};

// The arguments of a call, and what the server holds ready for its result.
class Call {
 public:
  void add(const std::string& text) { add(text.data(), text.size(), STRING_RESULT); }
  void add(const long long& number) { add(reinterpret_cast<const char*>(&number), sizeof number, INT_RESULT); }

  std::string run(StringFunction function) {
    unsigned long length = sizeof result_;
    char isNull = 0;
    char error = 0;
    const char* text = function(&init_, &args_, result_.data(), &length, &isNull, &error);
    if (text == nullptr || length == 0) std::abort();
    return {text, length};
  }

  void runOnly(StringFunction function) {
    unsigned long length = sizeof result_;
    char isNull = 0;
    char error = 0;
    benchmark::DoNotOptimize(function(&init_, &args_, result_.data(), &length, &isNull, &error));
    if (length == 0) std::abort();
  }

 private:
  void add(const char* value, std::size_t length, Item_result type) {
    values_[args_.arg_count] = const_cast<char*>(value);
    lengths_[args_.arg_count] = length;
    types_[args_.arg_count] = type;
    ++args_.arg_count;
    args_.args = values_.data();
    args_.lengths = lengths_.data();
    args_.arg_type = types_.data();
  }

  std::array<char*, 3> values_{};
  std::array<unsigned long, 3> lengths_{};
  std::array<Item_result, 3> types_{};
  UDF_ARGS args_{};
  UDF_INIT init_{};
  std::array<char, 766> result_{};
};

const std::string kValue = "value of twenty byte";
const long long kEncrypt = 0;
const long long kDecrypt = 1;

Call processing(const PolicyTable& policies, const long long& mode, const std::string& value) {
  Call call;
  call.add(policies.name());
  call.add(mode);
  call.add(value);
  return call;
}

void encryptRow(benchmark::State& state) {
  const PolicyTable policies(static_cast<int>(state.range(2)), static_cast<int>(state.range(0)),
                             static_cast<int>(state.range(1)));
  Call call = processing(policies, kEncrypt, kValue);
  for ([[maybe_unused]] const auto _ : state) call.runOnly(data_process_po_ed);
}

void decryptRow(benchmark::State& state) {
  const PolicyTable policies(static_cast<int>(state.range(2)), static_cast<int>(state.range(0)),
                             static_cast<int>(state.range(1)));
  const std::string encrypted = processing(policies, kEncrypt, kValue).run(data_process_po_ed);
  Call call = processing(policies, kDecrypt, encrypted);
  for ([[maybe_unused]] const auto _ : state) call.runOnly(data_process_po_ed);
}

void hmacRow(benchmark::State& state) {
  const PolicyTable policies(static_cast<int>(state.range(0)), kCbc, kRandom);
  Call call;
  call.add(kValue);
  call.add(policies.name());
  for ([[maybe_unused]] const auto _ : state) call.runOnly(hmac_b64_data);
}

void hashRow(benchmark::State& state, StringFunction function) {
  Call call;
  call.add(kValue);
  for ([[maybe_unused]] const auto _ : state) call.runOnly(function);
}

void combinations(benchmark::internal::Benchmark* bench) {
  bench->ArgNames({"mode", "iv", "policies"});
  for (const int policies : {1, 2000}) {
    bench->Args({kCbc, kRandom, policies});
    bench->Args({kCbc, kDeterministic, policies});
    bench->Args({kGcm, kRandom, policies});
  }
}
BENCHMARK(encryptRow)->Apply(combinations);
BENCHMARK(decryptRow)->Apply(combinations);
BENCHMARK(hmacRow)->ArgName("policies")->Arg(1)->Arg(2000);
BENCHMARK_CAPTURE(hashRow, raw, hash_raw_data);
BENCHMARK_CAPTURE(hashRow, base64, hash_b64_data);

}  // namespace

BENCHMARK_MAIN();
