// SPDX-License-Identifier: Apache-2.0
//
// The guard of changes: one thread at a time, and no reload in the middle of a change.
#include <atomic>
#include <thread>
#include <vector>

#include "kezu/change.h"
#include "kezu/shared.h"
#include "unit/store_fixture.h"

namespace {

using namespace store_test;

class ChangeGuardTest : public StoreTest {};

TEST_F(ChangeGuardTest, ThreadMayBeginAgainAndGivesAllOfItBack) {
  {
    const kezu::ConfigurationChange change;
    { const kezu::ConfigurationChange again; }
    { const kezu::ConfigurationChange again; }
  }
  std::thread([] { const kezu::ConfigurationChange other; }).join();
}

TEST_F(ChangeGuardTest, EndTooManyDoesNothing) {
  Q7_EndChange();
  Q7_BeginChange();
  Q7_EndChange();
  Q7_EndChange();
  std::thread([] { const kezu::ConfigurationChange other; }).join();
}

TEST_F(ChangeGuardTest, OneThreadAtATime) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 2000;
  int plain = 0;  // what no atomic operation protects
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&plain] {
      for (int round = 0; round < kRounds; ++round) {
        const kezu::ConfigurationChange outer;
        const kezu::ConfigurationChange inner;
        ++plain;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(kThreads * kRounds, plain);
}

// The home as another process left it, with one column more, in the file's place.
void replaceColumnFile(const fs::path& home) {
  EXPECT_EQ(0, inChild([&home] {
              auto store = loadStore(home);
              addColumn("of_another");
              return store->save(TableId::column).ok() ? 0 : 1;
            }));
}

// Begins `operation` on another thread in the middle of a change, gives it time to go wrong while `look` looks, and
// ends the change with `end`.
template <typename Operation, typename Look, typename End>
void beginInAChange(const Operation& operation, int looks, const Look& look, const End& end) {
  std::atomic<bool> begun = false;
  std::thread other;
  {
    const kezu::ConfigurationChange change;
    other = std::thread([&] {
      begun = true;
      operation();
    });
    while (!begun) {
      std::this_thread::yield();
    }
    for (int i = 0; i < looks; ++i) {
      look();
      std::this_thread::yield();
    }
    end();
  }
  other.join();
}

TEST_F(ChangeGuardTest, ReloadWaitsForTheEndOfTheChange) {
  EXPECT_EQ(0, inChild([&] {
              setenv("KEZU_HOME", home().c_str(), 1);
              EXPECT_EQ(0, kezuInitialize(1, nullptr, nullptr));
              replaceColumnFile(home());
              beginInAChange([] { EXPECT_EQ(0, Q7_ReloadAllInfoIfChanged()); }, 20000,
                             [] { EXPECT_EQ(0, kezu::observe(g_numberOfEncColumn)); },
                             [] { EXPECT_EQ(1, Q7_SaveColumnInfo()) << "another process changed the file"; });
              EXPECT_EQ(1, g_numberOfEncColumn);
              return 0;
            }));
}

TEST_F(ChangeGuardTest, SaveWaitsForTheEndOfTheChange) {
  EXPECT_EQ(0, inChild([&] {
              setenv("KEZU_HOME", home().c_str(), 1);
              EXPECT_EQ(0, kezuInitialize(1, nullptr, nullptr));
              const std::string before = readText(file("column"));
              beginInAChange([] { EXPECT_EQ(0, Q7_SaveColumnInfo()); }, 2000,
                             [&] { EXPECT_EQ(before, readText(file("column"))); }, [] {});
              EXPECT_NE(before, readText(file("column")));
              return 0;
            }));
}

}  // namespace
