// SPDX-License-Identifier: Apache-2.0
//
// The guard of the rule table, and what it is for: rules that are used, changed, saved and reloaded at once.
#include <atomic>
#include <barrier>
#include <thread>
#include <utility>

#include "unit/store_fixture.h"

namespace {

using namespace store_test;

constexpr char kLetters[] = {'a', 'b', 'c'};
constexpr int kRounds = 40;

// A rule of one letter, its patterns longer than what a string keeps in place.
Q7QueryPriv ruleOf(char letter) {
  Q7QueryPriv rule;
  rule.queryPattern = std::string(40, letter);
  rule.p_queryPattern = std::string(300, letter);
  rule.decAction = letter;
  return rule;
}

bool isWhole(const Q7QueryPriv& rule) {
  const std::string statement(40, static_cast<char>(rule.decAction));
  const std::string parent(300, static_cast<char>(rule.decAction));
  return rule.queryPattern == statement && rule.p_queryPattern == parent && rule.checkPattern(statement, parent);
}

void change(char letter) {
  const Q7QueryPrivWriter writer;
  for (int i = 0; i < g_numberOfQueryPriv; ++i) {
    Q7QueryPriv rule = ruleOf(letter);
    rule.compileRegex();
    g_queryPriv[i].queryPriv = std::move(rule);
  }
}

void removeFirst() {
  const Q7QueryPrivWriter writer;
  if (g_numberOfQueryPriv > 0) {
    Q7QueryPrivData& last = g_queryPriv[g_numberOfQueryPriv - 1];
    g_queryPriv[0].queryPriv = std::exchange(last.queryPriv, Q7QueryPriv());
    --g_numberOfQueryPriv;
  }
}

int tornRules() {
  const Q7QueryPrivReader reader;
  int torn = 0;
  for (int i = 0; i < g_numberOfQueryPriv; ++i) {
    torn += isWhole(g_queryPriv[i].queryPriv) ? 0 : 1;
  }
  return torn;
}

class QueryPrivGuardTest : public StoreTest {};

TEST_F(QueryPrivGuardTest, WriterMayInsertReadAndWriteAgain) {
  Q7QueryPriv rule = ruleOf('a');
  {
    const Q7QueryPrivWriter writer;
    EXPECT_EQ(0, Q7QueryPriv::insert(rule));
    { const Q7QueryPrivReader again; }
    { const Q7QueryPrivWriter again; }
    EXPECT_EQ(0, Q7QueryPriv::insert(rule));
  }
  std::thread([] { const Q7QueryPrivWriter other; }).join();  // all of it was given back
  EXPECT_EQ(2, g_numberOfQueryPriv);
}

TEST_F(QueryPrivGuardTest, ReadersHoldTheTableAtOnce) {
  std::barrier all_hold_it(3);
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&all_hold_it] {
      const Q7QueryPrivReader reader;
      all_hold_it.arrive_and_wait();
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

TEST_F(QueryPrivGuardTest, RulesStayWholeWhileTheyAreChangedSavedAndReloaded) {
  const auto store = loadStore(home());
  std::atomic<int> torn = 0;
  std::atomic<bool> done = false;
  std::vector<std::thread> threads;
  for (const char letter : kLetters) {
    threads.emplace_back([letter, &torn, &done] {
      while (!done) {
        Q7QueryPriv rule = ruleOf(letter);
        EXPECT_EQ(0, Q7QueryPriv::insert(rule));
        torn += tornRules();
        change(letter);
        removeFirst();
      }
    });
  }
  for (int i = 0; i < kRounds; ++i) {
    const auto saved = store->save(TableId::queryPriv);
    EXPECT_TRUE(saved.ok()) << saved.error().text;
    const auto loaded = store->load(TableId::queryPriv, "");
    EXPECT_TRUE(loaded.ok()) << loaded.error().text;
  }
  done = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(0, torn);
  EXPECT_EQ(0, tornRules());
}

}  // namespace
