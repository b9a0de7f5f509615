// SPDX-License-Identifier: Apache-2.0
//
// Tables that several connections list while others add, change and delete: no result leaves its field. Which record a
// listing shows meanwhile is open, and so is which of two changes comes first.
#include <atomic>
#include <functional>
#include <thread>

#include "listing_checks.h"

namespace conformance {
namespace {

constexpr int kRounds = 200;

class TableThreads : public LoggedIn {
 protected:
  // Runs the bodies again and again, each on a thread of its own.
  static void atOnce(const std::vector<std::function<void(int)>>& bodies) {
    std::vector<std::thread> threads;
    for (const auto& body : bodies) {
      threads.emplace_back([&body] {
        for (int i = 0; i < kRounds; ++i) {
          body(i);
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  }

  // Calls the setter with a key of texts that are `length` bytes long each, with its flags or to delete.
  static void set(IntegerFunction setter, int texts, std::size_t length, std::initializer_list<long long> flags) {
    Arguments made{kSession};
    for (int i = 0; i < texts; ++i) {
      made.text(std::string(length, 'k'));
    }
    for (const long long flag : flags) {
      made.number(flag);
    }
    call(setter, made);
  }

  // Lists the first row. What is shown is not read: it stands in the table, which the server reads without a lock.
  void list(StringFunction getter, int fields) {
    for (int field = 0; field < fields; ++field) {
      const StringResult result = call(getter, arguments({kSession}, {0, field}));
      outside += result.length > 64 ? 1 : 0;
    }
  }

  std::atomic<int> outside = 0;
};

TEST_F(TableThreads, AccessPrivilegesAreListedWhileTheyChange) {
  atOnce({[](int i) { set(kezu_conf_set_accepriv, 5, 40, {i}); }, [](int) { set(kezu_conf_set_accepriv, 5, 40, {}); },
          [](int i) { set(kezu_conf_set_accepriv, 5, 1, {i}); }, [](int) { set(kezu_conf_set_accepriv, 5, 1, {}); },
          [this](int) { list(kezu_conf_get_accepriv, 6); }});
  EXPECT_EQ(outside, 0);
  EXPECT_GE(g_numberOfAccessPriv, 0);
}

TEST_F(TableThreads, EncryptionPrivilegesAreListedWhileTheyChange) {
  atOnce({[](int i) {
            set(kezu_conf_set_encpriv, 4, 64, {i, 1});
          },
          [](int) { set(kezu_conf_set_encpriv, 4, 64, {}); },
          [](int i) {
            set(kezu_conf_set_encpriv, 4, 1, {i, 1});
          },
          [](int) { set(kezu_conf_set_encpriv, 4, 1, {}); }, [this](int) { list(kezu_conf_get_encpriv, 6); }});
  EXPECT_EQ(outside, 0);
  EXPECT_GE(g_numberOfEncPriv, 0);
}

TEST_F(TableThreads, CommandsAreReadWhileTheyChange) {
  const std::string longest(3071, 'c');
  atOnce({[&](int) {
            call(kezu_conf_set_tableinfo, {"db", "one", longest});
          },
          [&](int) {
            call(kezu_conf_set_tableinfo, {"db", "two", "short"});
          },
          [&](int) {
            call(kezu_conf_set_tableinfo, {"db", "one"});
          },
          [&](int) {
            call(kezu_conf_set_tableinfo, {"db", "two"});
          },
          [&](int) {
            const StringResult result = call(kezu_conf_get_tableinfo, {"db", "two"});
            outside += result.length > longest.size() ? 1 : 0;
          }});
  EXPECT_EQ(outside, 0);
  EXPECT_GE(g_numberOftableInfo, 0);
}

}  // namespace
}  // namespace conformance
