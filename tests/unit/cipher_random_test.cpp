// SPDX-License-Identifier: Apache-2.0
//
// Random numbers.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <iterator>
#include <set>
#include <thread>

#include "bcipher/bcipher.h"
#include "bcipher/randhash.h"
#include "cipher/iv_source.h"
#include "tests/unit/crypto_fixture.h"

namespace {

using test::Data;

TEST(RandHash, FillsTheBuffer) {
  RANDHASH_CTX ctx;
  ASSERT_EQ(RANDHASH_Initialize(&ctx), 0);
  std::set<Data> drawn;
  for (int i = 0; i < 100; ++i) {
    Data bytes(34, 0xee);
    ASSERT_EQ(RANDHASH_GetRandomNum(bytes.data() + 1, 32, &ctx), 0);
    EXPECT_EQ(bytes.front(), 0xee);
    EXPECT_EQ(bytes.back(), 0xee);
    drawn.insert(bytes);
  }
  EXPECT_EQ(drawn.size(), 100U);
}

TEST(RandHash, ChecksItsArguments) {
  EXPECT_NE(RANDHASH_Initialize(nullptr), 0);
  RANDHASH_CTX ctx;
  ASSERT_EQ(RANDHASH_Initialize(&ctx), 0);
  unsigned char byte = 0xee;
  EXPECT_EQ(RANDHASH_GetRandomNum(&byte, 0, &ctx), 0);
  EXPECT_EQ(byte, 0xee);
  EXPECT_EQ(RANDHASH_GetRandomNum(nullptr, 0, &ctx), 0);
  EXPECT_NE(RANDHASH_GetRandomNum(nullptr, 1, &ctx), 0);
  EXPECT_NE(RANDHASH_GetRandomNum(&byte, 1, nullptr), 0);
  EXPECT_EQ(byte, 0);
  RANDHASH_CTX notPrepared{};
  Data bytes(8, 0xee);
  EXPECT_NE(RANDHASH_GetRandomNum(bytes.data(), 8, &notPrepared), 0);
  EXPECT_EQ(bytes, Data(8));
}

TEST(IvSource, NeverGivesTheSameTwice) {
  std::set<Data> drawn;
  for (int i = 0; i < 20000; ++i) {
    Data iv(static_cast<std::size_t>(12 + i % 5));
    ASSERT_TRUE(cipher::randomIv(iv));
    iv.resize(12);
    drawn.insert(iv);
  }
  EXPECT_EQ(drawn.size(), 20000U);
}

TEST(IvSource, HasALongestVector) {
  Data iv(4096);
  EXPECT_TRUE(cipher::randomIv(iv));
  EXPECT_NE(iv, Data(4096));
  Data tooLong(4097, 0xee);
  EXPECT_FALSE(cipher::randomIv(tooLong));
  EXPECT_EQ(tooLong, Data(4097, 0xee));
  EXPECT_TRUE(cipher::randomIv({}));
}

TEST(IvSource, ThreadsDoNotShareABlock) {
  std::array<Data, 2> drawn = {Data(4096), Data(4096)};
  std::thread other([&drawn] { ASSERT_TRUE(cipher::randomIv(drawn[0])); });
  ASSERT_TRUE(cipher::randomIv(drawn[1]));
  other.join();
  EXPECT_NE(drawn[0], drawn[1]);
}

TEST(IvSource, AForkedProcessDrawsItsOwn) {
  Data first(16);
  ASSERT_TRUE(cipher::randomIv(first));  // the rest of the block is what the child inherits
  int channel[2];
  ASSERT_EQ(pipe(channel), 0);
  const pid_t child = fork();
  ASSERT_NE(child, -1);
  if (child == 0) {
    Data iv(16);
    const bool sent = cipher::randomIv(iv) && write(channel[1], iv.data(), iv.size()) == 16;
    _exit(sent ? 0 : 1);
  }
  Data childs(16);
  EXPECT_EQ(read(channel[0], childs.data(), childs.size()), 16);
  int status = 1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  Data own(16);
  ASSERT_TRUE(cipher::randomIv(own));
  EXPECT_NE(own, childs);
  close(channel[0]);
  close(channel[1]);
}

TEST(Processor, AesInstructionsAsTheSystemSaysSo) {
  const std::string info = [] {
    std::ifstream file("/proc/cpuinfo");
    return std::string(std::istreambuf_iterator<char>(file), {});
  }();
  EXPECT_EQ(Check_CPU_support_AES(), info.find(" aes ") == std::string::npos ? 0 : 1);
}

}  // namespace
