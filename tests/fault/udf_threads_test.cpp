// SPDX-License-Identifier: Apache-2.0
//
// Eight connections at work on values while an administrator changes everything that they depend on, through the C
// entry points with the engine behind them. Run under the address and thread sanitizers as well.
#include <atomic>
#include <thread>
#include <vector>

#include "fault/engine_fixture.h"
#include "fault/machine.h"

namespace fault {
namespace {

namespace fs = std::filesystem;
using store_test::inChild;

constexpr int kThreads = 8;
constexpr int kRounds = 20;  // of the administrator, unless KEZU_TEST_ROUNDS of the environment says otherwise
constexpr int kReplacements = 50'000;  // of one policy by another
constexpr std::string_view kValue = "4111-1111-1111-1111";
constexpr const char* kAlgorithms[] = {"SHA1", "SHA256", "SHA512", "HAS160"};

// What one thread alone gets. Policies with these keys come and go; a policy "det" or "rnd" never has another key.
struct Expected {
  std::string hash;
  std::vector<std::string> hashB64;
  std::vector<std::string> hmac;
  std::string deterministic;
  std::string random;
};

std::string hmacOf(std::string_view algorithm) {
  return row(hmac_b64_data, SqlArguments().text(kValue).text("det").text(algorithm)).value_or("NULL");
}

std::string processed(std::string_view policy, int mode, std::string_view value) {
  return row(data_process_po_ed, SqlArguments().text(policy).number(mode).text(value)).value_or("NULL");
}

Expected expectedResults() {
  Expected expected;
  expected.hash = row(hash_raw_data, SqlArguments().text(kValue)).value_or("");
  for (const char* algorithm : kAlgorithms) {
    expected.hashB64.push_back(row(hash_b64_data, SqlArguments().text(kValue).text(algorithm)).value_or(""));
    expected.hmac.push_back(hmacOf(algorithm));
  }
  expected.deterministic = processed("det", 0, kValue);
  expected.random = processed("rnd", 0, kValue);
  return expected;
}

struct Counts {
  std::atomic<int> right{0};
  std::atomic<int> empty{0};
  std::atomic<int> wrong{0};

  void add(const std::string& result, std::string_view expected) {
    ++(result == expected ? right : result.empty() ? empty : wrong);
  }
};

// The statements of one connection.
class Connection {
 public:
  Connection(const Expected& expected, Counts& counts, Counts& digests)
      : expected_(expected), counts_(counts), digests_(digests) {}

  void digests() {
    SqlArguments arguments;
    arguments.text(kValue);
    digests_.add(prepare(hash_raw_data_init, arguments), "");
    digests_.add(row(hash_raw_data, arguments).value_or("NULL"), expected_.hash);
    hash_raw_data_deinit(nullptr);
    for (std::size_t i = 0; i < std::size(kAlgorithms); ++i) {
      digests_.add(row(hash_b64_data, SqlArguments().text(kValue).text(kAlgorithms[i])).value_or("NULL"),
                   expected_.hashB64[i]);
    }
    hash_b64_data_deinit(nullptr);
  }

  // As every statement with the function does, this one reloads what changed.
  void keyedDigests() {
    SqlArguments arguments;
    arguments.text(kValue).text("det");
    digests_.add(prepare(hmac_b64_data_init, arguments), "");
    for (std::size_t i = 0; i < std::size(kAlgorithms); ++i) {
      counts_.add(hmacOf(kAlgorithms[i]), expected_.hmac[i]);
    }
    hmac_b64_data_deinit(nullptr);
  }

  void values(int round) {
    counts_.add(processed("det", 0, kValue), expected_.deterministic);
    counts_.add(processed("det", 1, expected_.deterministic), kValue);
    counts_.add(processed("rnd", 1, expected_.random), kValue);
    const std::string own = "value " + std::to_string(round);
    const std::string encrypted = processed("rnd", 0, own);
    if (encrypted.empty()) {
      ++counts_.empty;
      return;
    }
    counts_.add(processed("rnd", 1, encrypted), own);
    SqlArguments checked;
    checked.text("rnd").text(encrypted);
    counts_.add(row(data_process_ed_check_str, checked).value_or("NULL"), own);
    const long long layers = row(data_process_ed_check_int, checked).value_or(-2);
    ++(layers == 1 ? counts_.right : layers == -1 ? counts_.empty : counts_.wrong);
  }

 private:
  const Expected& expected_;
  Counts& counts_;
  Counts& digests_;
};

// One after the other what an administrator can do about policies, and rows of both privilege tables beside it.
class Administrator {
 public:
  Administrator(fs::path home, std::vector<std::string> policyFiles)
      : home_(std::move(home)), policyFiles_(std::move(policyFiles)) {}

  void work(int round) {
    for (int i = 0; i < 6; ++i) {
      SqlArguments create = createPolicy("passing", 2, 1, 5);
      EXPECT_EQ(1, row(kezu_conf_set_policy, create));
      EXPECT_EQ(3, row(kezu_conf_set_policy, inSession().text("passing")));
    }
    changePrivileges();
    EXPECT_EQ("1", row(kezu_conf_get_encpriv, inSession()));
    removePrivileges();
    EXPECT_EQ(1, row(kezu_conf_set_kms_mode, inSession().number(Q7_NO_KMS_MODE))) << "discards the policies";
    if (round % 2 == 0) {
      EXPECT_EQ(1, row(kezu_conf_set_kms_mode, inSession().number(Q7_ONLY_KMS_MODE)));
      EXPECT_EQ(1, row(kezu_conf_set_kms_mode, inSession().number(Q7_NO_KMS_MODE)));
    }
    // Another server's save: the policies come back, at other places of the table.
    store_test::writeText(home_ / "policy.kz.other", policyFiles_[static_cast<std::size_t>(round) % 2]);
    fs::rename(home_ / "policy.kz.other", home_ / "policy.kz");
    SqlArguments none;
    EXPECT_EQ("", prepare(reload_kezu_init, none));
  }

 private:
  static void changePrivileges() {
    EXPECT_EQ(1, row(kezu_conf_set_encpriv, inSession().text("u").text("o").text("t").text("c").number(1).number(0)));
    EXPECT_EQ(2, row(kezu_conf_set_encpriv, inSession().text("u").text("o").text("t").text("c").number(1).number(1)));
    EXPECT_EQ(
        1, row(kezu_conf_set_accepriv, inSession().text("10.0.0.1").text("u").text("o").text("t").text("c").number(1)));
  }
  static void removePrivileges() {
    EXPECT_EQ(3, row(kezu_conf_set_encpriv, inSession().text("u").text("o").text("t").text("c")));
    EXPECT_EQ(3, row(kezu_conf_set_accepriv, inSession().text("10.0.0.1").text("u").text("o").text("t").text("c")));
  }

  fs::path home_;
  std::vector<std::string> policyFiles_;
};

class UdfThreadsTest : public store_test::StoreTest {
 protected:
  // The policy file with "det" and "rnd", and `others` policies before and between them.
  std::string policyFileWith(int others) {
    EXPECT_EQ(0, inChild([&] {
                auto store = store_test::loadStore(home());
                for (int i = 0; i < others; ++i) {
                  addPolicyWithKey("a" + std::to_string(i), 1, 5, 7);
                }
                addPolicyWithKey("det", 0, 1, 1);
                for (int i = 0; i < others; ++i) {
                  addPolicyWithKey("b" + std::to_string(i), 1, 5, 8);
                }
                addPolicyWithKey("rnd", 1, 5, 2);
                return store->save(store_test::TableId::policy).ok() ? 0 : 1;
              }));
    const std::string bytes = store_test::readText(file("policy"));
    EXPECT_EQ(0, inChild([&] {
                auto store = store_test::loadStore(home());
                g_numberOfEncPolicy[g_encPolicyArray_flag] = 0;
                return store->save(store_test::TableId::policy).ok() ? 0 : 1;
              }));
    return bytes;
  }
};

TEST_F(UdfThreadsTest, ResultsAreRightOrEmptyWhileEverythingChanges) {
  const std::vector<std::string> policyFiles = {policyFileWith(0), policyFileWith(3)};
  store_test::writeText(file("policy"), policyFiles[0]);
  EXPECT_EQ(0, inChild([&] {
              // With quick saves, slots are filled anew while threads are still in them.
              UnsyncedFiles files;
              const InPlaceOfMachine place(files);
              startWithSession(home());
              const Expected expected = expectedResults();
              EXPECT_FALSE(expected.deterministic.empty() || expected.random.empty());
              Counts counts;
              Counts digests;
              std::atomic<bool> done{false};
              std::vector<std::thread> connections;
              for (int i = 0; i < kThreads; ++i) {
                connections.emplace_back([&] {
                  Connection connection(expected, counts, digests);
                  for (int round = 0; !done || round < 10; ++round) {
                    connection.digests();
                    connection.keyedDigests();
                    connection.values(round);
                  }
                });
              }
              Administrator administrator(home(), policyFiles);
              const char* wanted = std::getenv("KEZU_TEST_ROUNDS");
              const int rounds = wanted == nullptr ? kRounds : std::atoi(wanted);
              for (int round = 0; round < rounds; ++round) {
                administrator.work(round);
              }
              done = true;
              for (std::thread& connection : connections) {
                connection.join();
              }
              EXPECT_EQ(0, counts.wrong) << "right " << counts.right << ", empty " << counts.empty;
              EXPECT_GT(counts.right, 0);
              EXPECT_EQ(0, digests.wrong);
              EXPECT_EQ(0, digests.empty);
              EXPECT_GT(digests.right, 0);
              // With nothing changing any more, nothing is empty any more.
              EXPECT_EQ(expected.deterministic, processed("det", 0, kValue));
              EXPECT_EQ(expected.hmac[0], hmacOf("SHA1"));
              EXPECT_EQ(0, leaksFound());
              return 0;
            }));
}

// A policy with its key, to be put into a place of the table again and again.
struct Stored {
  Q7EncPolicyInfo record;
  BCipherKey key;

  explicit Stored(int index)
      : record(g_encPolicyArray[g_encPolicyArray_flag][index]),
        key(BCIPHER_DupKey(g_makeKeyArray[g_encPolicyArray_flag][index])) {}
  Stored(const Stored&) = delete;
  Stored& operator=(const Stored&) = delete;
  ~Stored() { BCIPHER_DelKey(key); }

  // Into the first place of the active slot, in the order in which a slot is rebuilt.
  void putFirst() const {
    const int slot = g_encPolicyArray_flag;
    BCipherKey old = g_makeKeyArray[slot][0];
    BCIPHER_WipeKey(old);
    BCIPHER_DelKey(old);
    kezu::publish(g_makeKeyArray[slot][0], BCipherKey{nullptr});
    kezu::clearRecord(g_encPolicyArray[slot][0]);
    kezu::storeRecord(g_encPolicyArray[slot][0], record);
    kezu::publish(g_makeKeyArray[slot][0], BCIPHER_DupKey(key));
  }
};

// The slot that readers are in is rebuilt with another policy in the place of theirs, far more often than saves
// allow: also between finding the name and taking the key.
TEST_F(UdfThreadsTest, ResultsAreOfTheNamedPolicyWhileItsPlaceIsAnothers) {
  store_test::writeText(file("policy"), policyFileWith(0));
  EXPECT_EQ(0, inChild([&] {
              startWithSession(home());
              const Expected expected = expectedResults();
              const Stored det(0);
              const Stored other(1);
              Counts counts;
              std::atomic<bool> done{false};
              std::vector<std::thread> connections;
              for (int i = 0; i < 3; ++i) {
                connections.emplace_back([&] {
                  while (!done) {
                    counts.add(processed("det", 0, kValue), expected.deterministic);
                    counts.add(processed("det", 1, expected.deterministic), kValue);
                    counts.add(hmacOf(kAlgorithms[1]), expected.hmac[1]);
                  }
                });
              }
              for (int i = 0; (i < kReplacements || counts.right == 0) && counts.wrong == 0; ++i) {
                (i % 2 == 0 ? other : det).putFirst();
                for (int pause = i % 8 * 400; pause > 0 && !done; --pause) {
                }
              }
              done = true;
              for (std::thread& connection : connections) {
                connection.join();
              }
              EXPECT_EQ(0, counts.wrong) << "right " << counts.right << ", empty " << counts.empty;
              EXPECT_EQ(0, leaksFound());
              return 0;
            }));
}

}  // namespace
}  // namespace fault
