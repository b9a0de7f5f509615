// SPDX-License-Identifier: Apache-2.0
//
// Threads that encrypt while another wipes, deletes and makes the keys that they use. Run under the address and thread
// sanitizers as well.
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "cipher/key_slot.h"
#include "engine/policy/policy_key.h"
#include "kezu/engine.h"
#include "kezu/shared.h"
#include "tests/unit/crypto_fixture.h"

namespace {

using test::Data;
using test::Policy;

constexpr int kThreads = 8;
constexpr int kChanges = 1500;
constexpr std::size_t kPlaces = 4;

// Authenticated, so that a value under a mixed or wiped key is not taken for a good one.
test::PolicyParameters parametersOf(int which) {
  test::PolicyParameters parameters{test::AES256, which == 0 ? +test::GCM : +test::CBC_HMAC, test::RANDOM,
                                    test::BASE64};
  parameters.columnKey = Data(32, static_cast<unsigned char>('A' + which));
  parameters.name = "p" + std::to_string(which);
  return parameters;
}

class Threads : public testing::Test {
 protected:
  ~Threads() override {
    for (std::size_t place = 0; place < kPlaces; ++place) {
      BCIPHER_DelKey(g_makeKeyArray[1][place]);
      g_makeKeyArray[1][place] = nullptr;
      std::memset(&g_encPolicyArray[1][place], 0, sizeof g_encPolicyArray[1][place]);
    }
  }

  // What an administrator's changes do to a place of the table, in their order.
  void change(std::size_t place, int which) {
    BCipherKey old = g_makeKeyArray[1][place];
    BCIPHER_WipeKey(old);
    BCIPHER_DelKey(old);
    kezu::publish(g_makeKeyArray[1][place], BCipherKey{nullptr});
    kezu::clearRecord(g_encPolicyArray[1][place]);
    BCipherKey made = BCIPHER_DupKey(policies_[static_cast<std::size_t>(which)].handle);
    kezu::storeRecord(g_encPolicyArray[1][place], policies_[static_cast<std::size_t>(which)].record);
    kezu::publish(g_makeKeyArray[1][place], made);
  }

  void administrate() {
    for (int i = 0; i < kChanges; ++i) {
      change(static_cast<std::size_t>(i) % kPlaces, (i / 3) % 2);
      if (i % 50 == 0) std::this_thread::yield();
    }
    done_ = true;
  }

  // Whether one of the two policies says that `encrypted` is `value`.
  bool isValue(const Data& encrypted, const Data& value) {
    return decrypt(policies_[0], encrypted) == value || decrypt(policies_[1], encrypted) == value;
  }

  void encryptUntilDone(int thread) {
    unsigned char out[200];
    for (unsigned int i = 0; !done_ || i < 100; ++i) {
      const Data value = test::bytesOf("value " + std::to_string(thread) + "-" + std::to_string(i));
      Q7EncPolicyInfo& policy = g_encPolicyArray[1][i % kPlaces];
      unsigned int size = sizeof out;
      const int code = Q7_EncryptBinaryExt(out, &size, value.data(), static_cast<unsigned int>(value.size()), &policy,
                                           kezu::observe(g_makeKeyArray[1][i % kPlaces]));
      if (code != 0) {
        wrong_ += size == 0 ? 0 : 1;
        ++empty_;
        continue;
      }
      const Data encrypted(out, out + size);
      wrong_ += isValue(encrypted, value) ? 0 : 1;
      ++encrypted_;
      size = sizeof out;
      if (Q7_DecryptBinaryExt(out, &size, encrypted.data(), static_cast<unsigned int>(encrypted.size()), &policy,
                              kezu::observe(g_makeKeyArray[1][i % kPlaces])) == 0) {
        wrong_ += Data(out, out + size) == value ? 0 : 1;
      }
    }
  }

  void digestUntilDone() {
    const auto* text = reinterpret_cast<const unsigned char*>("text");
    std::array<Data, 2> expected = {Data(32), Data(32)};
    for (std::size_t i = 0; i < 2; ++i) {
      Q7EncPolicyInfo copy = policies_[i].record;
      unsigned int size = 0;
      wrong_ += kezuHmacBinary(expected[i].data(), &size, text, 4, kHashSha256, &copy) == 0 ? 0 : 1;
    }
    for (unsigned int i = 0; !done_ || i < 100; ++i) {
      Data code(64);
      unsigned int size = 0;
      if (kezuHmacBinary(code.data(), &size, text, 4, kHashSha256, &g_encPolicyArray[1][0]) != 0) continue;
      code.resize(size);
      wrong_ += code == expected[0] || code == expected[1] ? 0 : 1;
      ++encrypted_;
    }
  }

  std::array<Policy, 2> policies_{Policy(parametersOf(0)), Policy(parametersOf(1))};
  std::atomic<bool> done_{false};
  std::atomic<int> wrong_{0};
  std::atomic<int> encrypted_{0};
  std::atomic<int> empty_{0};
};

TEST_F(Threads, ValuesAreRightOrEmpty) {
  for (std::size_t place = 0; place < kPlaces; ++place) change(place, 0);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) threads.emplace_back([this, i] { encryptUntilDone(i); });
  administrate();
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong_, 0);
  EXPECT_GT(encrypted_, 0);
}

TEST_F(Threads, KeyedDigestsAreRightOrNone) {
  for (std::size_t place = 0; place < kPlaces; ++place) change(place, 0);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) threads.emplace_back([this] { digestUntilDone(); });
  administrate();
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong_, 0);
  EXPECT_GT(encrypted_, 0);
}

// The processor time that a thread has used, in nanoseconds.
long long timeOf(clockid_t thread) {
  timespec time{};
  EXPECT_EQ(clock_gettime(thread, &time), 0);
  return time.tv_sec * 1'000'000'000LL + time.tv_nsec;
}

// Runs an operation that takes long, and has another thread wipe its key when it is under way. Whether it came to no
// result in one of some tries: in those in which the wiping was done before the operation.
template <typename Operation>
bool isWithdrawn(const Policy& policy, Operation operation) {
  constexpr long long kUnderWay = 3'000'000;  // of some ten milliseconds
  clockid_t mine{};
  EXPECT_EQ(pthread_getcpuclockid(pthread_self(), &mine), 0);
  bool withdrawn = false;
  for (int tries = 0; tries < 30 && !withdrawn; ++tries) {
    BCipherKey key = BCIPHER_DupKey(policy.handle);
    std::atomic<bool> ready{false};
    std::atomic<long long> begun{LLONG_MAX};
    std::thread wiper([&] {
      ready = true;
      while (begun == LLONG_MAX || timeOf(mine) < begun + kUnderWay) {
      }
      BCIPHER_WipeKey(key);
    });
    while (!ready) {
    }
    begun = timeOf(mine);
    withdrawn = !operation(key);
    begun = 0;
    wiper.join();
    BCIPHER_DelKey(key);
  }
  return withdrawn;
}

// The same for an operation on a long value. Without a result it has no length, and leaves nothing in the output.
bool isWithdrawn(test::Operation operation, const Policy& policy, const Data& value) {
  Q7EncPolicyInfo record = policy.record;
  Data out(value.size() + 100);
  return isWithdrawn(policy, [&](BCipherKey key) {
    auto size = static_cast<unsigned int>(out.size());
    if (operation(out.data(), &size, value.data(), static_cast<unsigned int>(value.size()), &record, key) == 0) {
      std::fill(out.begin(), out.end(), static_cast<unsigned char>(0));
      return true;
    }
    EXPECT_EQ(size, 0U);
    EXPECT_EQ(out, Data(out.size()));
    return false;
  });
}

TEST(ThreadsAndOneValue, IsWithdrawnWhenTheKeyGoesMeanwhile) {
  const Policy policy({.algorithm = test::TDES168});  // the slowest
  const Data value(std::size_t{1} << 20, 'x');
  const test::Result encrypted = test::run(Q7_EncryptBinaryExt, value, policy.record, policy.handle, 2U << 20);
  ASSERT_EQ(encrypted.code, 0);
  EXPECT_TRUE(isWithdrawn(Q7_EncryptBinaryExt, policy, value));
  EXPECT_TRUE(isWithdrawn(Q7_DecryptBinaryExt, policy, encrypted.bytes));
}

TEST_F(Threads, KeyedDigestIsWithdrawnWhenTheKeyGoesMeanwhile) {
  const Data value(std::size_t{16} << 20, 'x');
  kezu::storeRecord(g_encPolicyArray[1][0], policies_[0].record);
  EXPECT_TRUE(isWithdrawn(policies_[0], [&value](BCipherKey key) {
    kezu::publish(g_makeKeyArray[1][0], key);
    unsigned char code[64];
    unsigned int size = 1;
    const int result = kezuHmacBinary(code, &size, value.data(), static_cast<unsigned int>(value.size()), kHashSha512,
                                      &g_encPolicyArray[1][0]);
    EXPECT_EQ(size, result == 0 ? 64U : 0U);
    return result == 0;
  }));
  kezu::publish(g_makeKeyArray[1][0], BCipherKey{nullptr});
}

// A policy that encrypts a part of a value is never taken for one that encrypts all of it, also not while another
// thread puts the one in the other's place.
TEST_F(Threads, SizesAreThoseOfOnePolicy) {
  test::PolicyParameters parameters = parametersOf(1);
  parameters.encPos = 3;
  const Policy partial(parameters);
  char name[] = "p1";
  const auto show = [](const Policy& policy) {
    BCIPHER_WipeKey(g_makeKeyArray[1][0]);
    BCIPHER_DelKey(g_makeKeyArray[1][0]);
    kezu::publish(g_makeKeyArray[1][0], BCipherKey{nullptr});
    kezu::clearRecord(g_encPolicyArray[1][0]);
    kezu::storeRecord(g_encPolicyArray[1][0], policy.record);
    kezu::publish(g_makeKeyArray[1][0], BCIPHER_DupKey(policy.handle));
  };
  show(partial);
  kezu::publish(g_numberOfEncPolicy[1], 1);
  kezu::publish(g_encPolicyArray_flag, 1);
  int expected = 0;
  ASSERT_EQ(kezuGetCipherSize(100, name, &expected, nullptr), 0);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      while (!done_) {
        int size = expected;
        wrong_ += checkNumericEnc(name) + checkBlobEnc(name);
        wrong_ += kezuGetCipherSize(100, name, &size, nullptr) == 0 && size != expected ? 1 : 0;
        ++encrypted_;
      }
    });
  }
  for (int i = 0; i < 20 * kChanges; ++i) show(i % 2 == 0 ? policies_[0] : partial);
  done_ = true;
  for (std::thread& thread : threads) thread.join();
  kezu::publish(g_encPolicyArray_flag, 0);
  kezu::publish(g_numberOfEncPolicy[1], 0);
  EXPECT_EQ(wrong_, 0);
  EXPECT_GT(encrypted_, 0);
}

// Handles that several threads make, duplicate, use and give back at once are never two threads' at a time.
TEST_F(Threads, HandlesBelongToWhoMadeThem) {
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([this, i] {
      const Policy& policy = policies_[static_cast<std::size_t>(i) % 2];
      for (int round = 0; round < 200; ++round) {
        BCipherKey own = BCIPHER_DupKey(policy.handle);
        const Data value = test::bytesOf("value");
        const test::Result result = test::run(Q7_EncryptBinaryExt, value, policy.record, own, 200);
        wrong_ += result.code == 0 && decrypt(policy, result.bytes) == value ? 0 : 1;
        BCIPHER_DelKey(own);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong_, 0);
}

// Two keys that take turns in one slot's memory: no other slot is free, so a deleted handle is the next one made.
class OneSlot : public testing::Test {
 protected:
  OneSlot() {
    BCipherKey first = make(0);
    BCIPHER_DelKey(first);
    while ((handle_ = make(0)) != first) others_.push_back(handle_);
  }
  ~OneSlot() override {
    others_.push_back(handle_);
    for (BCipherKey key : others_) BCIPHER_DelKey(key);
  }

  static BCipherKey make(std::uint64_t which) {
    cipher::KeyMaterial material;
    std::memset(&material, 'A' + static_cast<int>(which), sizeof material);
    const cipher::Suite* suite =
        which == 0 ? cipher::findSuite(test::AES256, test::GCM) : cipher::findSuite(test::SM4, test::CBC);
    return cipher::makeKey(test::AES256, suite, material, {reinterpret_cast<const unsigned char*>(&which), 8});
  }

  // What a session computes that presents a key's binding; empty for none.
  Data computed(std::uint64_t which) {
    const auto matches = [which](const cipher::Binding& binding) {
      return binding.size() == 8 && binding.word(0) == which;
    };
    cipher::Session session(handle_, matches);
    if (!session) return {};
    Data mac(cipher::kSha256Size);
    const cipher::Bytes text(mac.data(), mac.size());
    session.key().ivMac(mac.data(), {&text, 1});
    return session.finish() ? mac : Data();
  }

  BCipherKey handle_ = nullptr;
  std::vector<BCipherKey> others_;
};

// A thread comes too late at every point of a session: between looking at the handle and taking its key, and between
// that and the end.
TEST_F(OneSlot, SessionsGiveTheirOwnKeysResultsOrNone) {
  const std::array<Data, 2> expected = [&] {
    const Data one = computed(0);
    BCIPHER_DelKey(handle_);
    EXPECT_EQ(make(1), handle_);
    return std::array{one, computed(1)};
  }();
  ASSERT_NE(expected[0], expected[1]);
  std::atomic<bool> done{false};
  std::atomic<int> wrong{0};
  std::atomic<int> right{0};
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < 3; ++i) {
    threads.emplace_back([&, i] {
      for (std::size_t round = i; !done; ++round) {
        const Data result = computed(round % 2);
        if (!result.empty()) ++(result == expected[round % 2] ? right : wrong);
      }
    });
  }
  for (int i = 0; i < 20 * kChanges || right == 0; ++i) {
    BCIPHER_WipeKey(handle_);
    BCIPHER_DelKey(handle_);
    EXPECT_EQ(make(static_cast<std::uint64_t>(i) % 2), handle_);
    for (int pause = i % 8 * 200; pause > 0 && wrong == 0; --pause) {
    }
  }
  done = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
