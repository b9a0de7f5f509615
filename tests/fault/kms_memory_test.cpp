// SPDX-License-Identifier: Apache-2.0
//
// A fetch leaves no key behind: neither in memory that it gives back nor on the stack. Watched at free() itself, so
// that OpenSSL's buffers are too; the sanitizers have an allocator of their own, which can't be watched.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

#include <malloc.h>
#include <pthread.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>

#include "fault/kms_fixture.h"

extern "C" {
void* __libc_calloc(std::size_t count, std::size_t size);  // NOLINT(bugprone-reserved-identifier): glibc's name
void __libc_free(void* memory);                            // NOLINT(bugprone-reserved-identifier): glibc's name
}

namespace {

constexpr std::string_view kMarker = "SecretMaterial";

thread_local bool watching = false;
thread_local int left = 0;  // blocks that were given back with a key in them

bool holdsKey(std::string_view memory) {
  return memory.find(kMarker) != std::string_view::npos;
}

void look(const void* memory) {
  if (watching && memory != nullptr) {
    left += holdsKey({static_cast<const char*>(memory), malloc_usable_size(const_cast<void*>(memory))});
  }
}

}  // namespace

extern "C" {

// Memory is given out empty, so that what is found in it later was put there by its user.
void* malloc(std::size_t size) noexcept {
  return __libc_calloc(1, size);
}
void* calloc(std::size_t count, std::size_t size) noexcept {
  return __libc_calloc(count, size);
}
void free(void* memory) noexcept {
  look(memory);
  __libc_free(memory);
}
void* realloc(void* memory, std::size_t size) noexcept {
  void* other = __libc_calloc(1, size);
  if (other != nullptr && memory != nullptr) {
    std::memcpy(other, memory, std::min(size, malloc_usable_size(memory)));
    free(memory);
  }
  return other;
}

}  // extern "C"

namespace kms_test {
namespace {

// Runs a function on a stack of its own. Whether it left a key on the stack or in memory that it gave back.
struct Remains {
  int blocks = 0;
  bool onStack = false;
};

template <typename Function>
Remains remainsOf(Function function) {
  struct Run {
    Function* function;
    int blocks;
  } run{&function, 0};
  std::vector<char> stack(std::size_t{1} << 20);
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  EXPECT_EQ(0, pthread_attr_setstack(&attributes, stack.data(), stack.size()));
  pthread_t thread;
  const auto body = [](void* argument) -> void* {
    auto& mine = *static_cast<Run*>(argument);
    watching = true;
    (*mine.function)();
    watching = false;
    mine.blocks = left;
    return nullptr;
  };
  EXPECT_EQ(0, pthread_create(&thread, &attributes, body, &run));
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
  return {run.blocks, holdsKey({stack.data(), stack.size()})};
}

class KmsMemoryTest : public KmsTest {};

TEST_F(KmsMemoryTest, WhatIsLeftBehindIsFound) {
  const Remains remains = remainsOf([] {
    auto* block = static_cast<char*>(std::malloc(100));
    std::memcpy(block, kMarker.data(), kMarker.size());
    std::free(block);
    volatile char onStack[100];
    std::copy(kMarker.begin(), kMarker.end(), onStack);
  });
  EXPECT_EQ(1, remains.blocks);
  EXPECT_TRUE(remains.onStack);
}

TEST_F(KmsMemoryTest, AFetchLeavesNoKey) {
  play(somePolicies(300));
  int result = -1;
  const Remains remains = remainsOf([&] { result = Q7_GetPolicyInfoFromKMS(); });
  ASSERT_EQ(0, result) << log();
  EXPECT_EQ(0, remains.blocks);
  EXPECT_FALSE(remains.onStack);
}

TEST_F(KmsMemoryTest, AFetchThatFailsLeavesNoKey) {
  Keys keys = somePolicies(300);
  for (const char* name : {"p7", "a b"}) {
    keys.keys[298].name = name;
    play(keys);
    const Remains remains = remainsOf([] { EXPECT_EQ(-1, Q7_GetPolicyInfoFromKMS()); });
    EXPECT_EQ(0, remains.blocks) << name;
    EXPECT_FALSE(remains.onStack) << name;
  }
}

TEST_F(KmsMemoryTest, AComparisonLeavesNoKey) {
  g_kmsMode = Q7_CACHED_KMS_MODE;
  play(somePolicies(300));
  ASSERT_EQ(0, Q7_GetPolicyInfoFromKMS()) << log();
  ASSERT_EQ(0, Q7_SavePolicyInfo());
  int result = -1;
  const Remains remains = remainsOf([&] { result = compareLocalAndKMSPolicy(); });
  EXPECT_EQ(0, result);
  EXPECT_EQ(0, remains.blocks);
  EXPECT_FALSE(remains.onStack);
}

}  // namespace
}  // namespace kms_test

#endif
