// SPDX-License-Identifier: Apache-2.0
//
// Several administrators at work at once, through the C entry points with the engine behind them: what was reported as
// done is there afterwards, in memory and in a home that is opened anew, and nothing else is. Run under the address and
// thread sanitizers as well.
#include <algorithm>
#include <atomic>
#include <map>
#include <set>
#include <thread>
#include <vector>

#include "fault/engine_fixture.h"
#include "fault/machine.h"
#include "kezu/change.h"

namespace fault {
namespace {

namespace fs = std::filesystem;
using store_test::inChild;

constexpr int kThreads = 4;
constexpr int kRounds = 60;
constexpr std::string_view kValue = "4111-1111-1111-1111";
constexpr int kCreated = 1;
constexpr int kChanged = 2;
constexpr int kDeleted = 3;

// One value under a policy that nobody deletes meanwhile. Empty results are tried again: a change may wipe a slot that
// a slow row is still in.
std::string processed(std::string_view policy, int mode, std::string_view value) {
  std::string result;
  for (int tries = 0; result.empty() && tries < 1000; ++tries) {
    result = row(data_process_po_ed, SqlArguments().text(policy).number(mode).text(value)).value_or("");
  }
  return result;
}

// The functions of one name in each table. Each returns what the function returned, 0 for SQL NULL.
int policy(std::string_view name, bool create) {
  const auto result = create ? row(kezu_conf_set_policy, createPolicy(name, 2, 0, 1))
                             : row(kezu_conf_set_policy, inSession().text(name));
  return static_cast<int>(result.value_or(0));
}
int column(std::string_view name, bool add) {
  SqlArguments arguments = inSession().text("shop").text("customer").text(name);
  return static_cast<int>(row(kezu_conf_set_column, add ? arguments.text(name) : arguments).value_or(0));
}
SqlArguments& flagged(SqlArguments& arguments, std::initializer_list<int> flags) {
  for (const int flag : flags) {
    arguments.number(flag);
  }
  return arguments;
}
int accessPrivilege(std::string_view name, std::initializer_list<int> flag) {
  SqlArguments arguments = inSession().text("10.0.0.1").text(name).text("shop").text("customer").text("card");
  return static_cast<int>(row(kezu_conf_set_accepriv, flagged(arguments, flag)).value_or(0));
}
int encPrivilege(std::string_view name, std::initializer_list<int> flags) {
  SqlArguments arguments = inSession().text(name).text("shop").text("customer").text("card");
  return static_cast<int>(row(kezu_conf_set_encpriv, flagged(arguments, flags)).value_or(0));
}
int rule(std::string_view name, std::initializer_list<int> action) {
  SqlArguments arguments = inSession().text("SELECT").text(name).text("NULL").text("NULL");
  return static_cast<int>(row(kezu_conf_set_querypriv, flagged(arguments, action)).value_or(0));
}
int command(std::string_view name, const char* text) {
  SqlArguments arguments;
  arguments.text("shop").text(name);
  return static_cast<int>(row(kezu_conf_set_tableinfo, text == nullptr ? arguments : arguments.text(text)).value_or(0));
}

// What is in a table, name by name; a name that is there twice shows.
using Names = std::multiset<std::string>;

template <typename Record, std::size_t N, typename NameOf>
Names namesOf(const Record (&records)[N], int count, NameOf nameOf) {
  Names names;
  for (int i = 0; i < count; ++i) {
    names.insert(nameOf(records[i]));
  }
  return names;
}

// The names in all tables, with flags and texts where a change of theirs is part of the test.
std::map<std::string, Names> tables() {
  const int slot = g_encPolicyArray_flag;
  return {{"policies",
           namesOf(g_encPolicyArray[slot], g_numberOfEncPolicy[slot], [](auto& r) { return std::string(r.policyID); })},
          {"columns", namesOf(g_encColumnInfoArray, g_numberOfEncColumn,
                              [](auto& r) { return r.column + std::string(":") + r.policyID; })},
          {"access", namesOf(g_accessPrivArray, g_numberOfAccessPriv,
                             [](auto& r) { return r.user + std::string(":") + std::to_string(r.priv); })},
          {"privileges", namesOf(g_encPrivArray, g_numberOfEncPriv,
                                 [](auto& r) {
                                   return r.user + std::string(":") + std::to_string(r.enc_priv) +
                                          std::to_string(r.dec_priv);
                                 })},
          {"rules",
           namesOf(g_queryPriv, g_numberOfQueryPriv,
                   [](auto& r) { return r.queryPriv.queryPattern + ":" + std::to_string(r.queryPriv.decAction); })},
          {"commands", namesOf(g_tableInfo, g_numberOftableInfo,
                               [](auto& r) { return r.table + std::string(":") + r.demigrationCmd; })}};
}

void expectTables(std::map<std::string, Names>& expected) {
  for (const auto& [table, names] : tables()) {
    EXPECT_EQ(expected[table], names) << table;
  }
}

// One administrator, with names of its own. Of three names it leaves the first as made, changes the second, and deletes
// the third.
class Administrator {
 public:
  explicit Administrator(int number) : number_(number) {}

  void work(int round) {
    const std::string name = "t" + std::to_string(number_) + "r" + std::to_string(round);
    make(name);
    encrypted_[name] = processed(name, 0, kValue);
    EXPECT_FALSE(encrypted_[name].empty()) << name;
    if (round % 3 == 1) {
      change(name);
    } else if (round % 3 == 2) {
      remove(name);
    }
    expect(name, round % 3);
  }

  // Adds what is to be there.
  void addTo(std::map<std::string, Names>& all) const {
    for (const auto& [table, names] : expected_) {
      all[table].insert(names.begin(), names.end());
    }
  }

  // Whether the policies that are to be there still have their keys.
  void checkValues() const {
    for (const auto& [name, value] : encrypted_) {
      EXPECT_EQ(kValue, processed(name, 1, value)) << name;
    }
  }

 private:
  static void make(const std::string& name) {
    EXPECT_EQ(kCreated, policy(name, true)) << name;
    EXPECT_EQ(kCreated, column(name, true)) << name;
    EXPECT_EQ(kCreated, accessPrivilege(name, {1})) << name;
    EXPECT_EQ(kCreated, encPrivilege(name, {1, 0})) << name;
    EXPECT_EQ(kCreated, rule(name, {1})) << name;
    EXPECT_EQ(kCreated, command(name, "first")) << name;
  }
  static void change(const std::string& name) {
    EXPECT_EQ(kChanged, accessPrivilege(name, {0})) << name;
    EXPECT_EQ(kChanged, encPrivilege(name, {0, 1})) << name;
    EXPECT_EQ(kChanged, rule(name, {2})) << name;
    EXPECT_EQ(kChanged, command(name, "second")) << name;
  }
  void remove(const std::string& name) {
    EXPECT_EQ(0, policy(name, false)) << "a column uses " << name;
    EXPECT_EQ(kDeleted, column(name, false)) << name;
    EXPECT_EQ(kDeleted, policy(name, false)) << name;
    EXPECT_EQ(kDeleted, accessPrivilege(name, {})) << name;
    EXPECT_EQ(kDeleted, encPrivilege(name, {})) << name;
    EXPECT_EQ(kDeleted, rule(name, {})) << name;
    EXPECT_EQ(kDeleted, command(name, nullptr)) << name;
    encrypted_.erase(name);
  }
  void expect(const std::string& name, int kind) {
    if (kind == 2) {
      return;
    }
    const bool changed = kind == 1;
    expected_["policies"].insert(name);
    expected_["columns"].insert(name + ":" + name);
    expected_["access"].insert(name + (changed ? ":0" : ":1"));
    expected_["privileges"].insert(name + (changed ? ":01" : ":10"));
    expected_["rules"].insert(name + (changed ? ":2" : ":1"));
    expected_["commands"].insert(name + (changed ? ":second" : ":first"));
  }

  int number_;
  std::map<std::string, Names> expected_;
  std::map<std::string, std::string> encrypted_;
};

// Each on a thread of its own.
template <typename Worker>
void workAtOnce(std::vector<Worker>& workers, int rounds) {
  std::vector<std::thread> threads;
  for (Worker& worker : workers) {
    threads.emplace_back([&worker, rounds] {
      for (int round = 0; round < rounds; ++round) {
        worker.work(round);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

class ChangeThreadsTest : public store_test::StoreTest {
 protected:
  // The tables as they are in the files.
  void loadAnew() {
    store_test::resetTables();
    store_test::loadStore(home());
  }
};

TEST_F(ChangeThreadsTest, EveryChangeOfSeveralAdministratorsStays) {
  EXPECT_EQ(0, inChild([&] {
              // With quick saves, threads meet between them as often as in them.
              UnsyncedFiles files;
              const InPlaceOfMachine place(files);
              startWithSession(home());
              std::vector<Administrator> administrators;
              for (int i = 0; i < kThreads; ++i) {
                administrators.emplace_back(i);
              }
              workAtOnce(administrators, kRounds);
              std::map<std::string, Names> expected;
              for (const Administrator& administrator : administrators) {
                administrator.addTo(expected);
                administrator.checkValues();
              }
              expectTables(expected);
              loadAnew();
              expectTables(expected);
              for (const Administrator& administrator : administrators) {
                administrator.checkValues();
              }
              EXPECT_EQ(0, leaksFound());
              return 0;
            }));
}

}  // namespace
}  // namespace fault
