// SPDX-License-Identifier: Apache-2.0
//
// What calls leave behind in memory, and of open files: nothing.
//
// KEZU_TEST_CALLS and KEZU_TEST_SAVES in the environment say how often each function is called: one that only reads,
// and one that saves a table, where every call writes a file.
#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <vector>

#include "fault/engine_fixture.h"
#include "fault/machine.h"

namespace fault {
namespace {

namespace fs = std::filesystem;

struct Use {
  const char* name;
  bool saves;
  std::function<void()> once;
  long first = saves ? 6 : 24;  // calls after which what is kept for good is there: rings, prepared keys, slots
};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr long kCalls = 1'000;
constexpr long kSaves = 20;
#else
constexpr long kCalls = 20'000;
constexpr long kSaves = 80;
#endif

long envNumber(const char* name, long otherwise) {
  const char* text = std::getenv(name);
  return text == nullptr ? otherwise : std::atol(text);
}

// Bytes that the program has from the allocator, those in mapped blocks too.
std::size_t heapInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

std::string today() {
  const time_t now = time(nullptr);
  tm parts = {};
  char text[11];
  return std::string(text, std::strftime(text, sizeof text, "%Y-%m-%d", localtime_r(&now, &parts)));
}

long openDescriptors() {
  return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

// Every SQL function, with a valid session where it takes one. `encrypted` is a value under the policy "p".
std::vector<Use> everyFunction(const std::string& encrypted) {
  // SQL NULL would say that a call was refused and came nowhere near what it is to be tried for.
  const auto text = [](StringFunction function, SqlArguments arguments) { EXPECT_TRUE(row(function, arguments)); };
  const auto number = [](IntegerFunction function, SqlArguments arguments) { EXPECT_TRUE(row(function, arguments)); };
  std::vector<Use> uses;
  const auto reads = [&uses](const char* name, std::function<void()> once) {
    uses.push_back({name, false, std::move(once)});
  };
  const auto saves = [&uses](const char* name, std::function<void()> once) {
    uses.push_back({name, true, std::move(once)});
  };
  reads("hash_raw_data", [=] { text(hash_raw_data, SqlArguments().text("v")); });
  reads("hash_b64_data", [=] { text(hash_b64_data, SqlArguments().text("v").text("HAS160")); });
  reads("hmac_b64_data", [=] { text(hmac_b64_data, SqlArguments().text("v").text("p").text("SHA512")); });
  reads("hmac_b64_data of no policy", [=] { text(hmac_b64_data, SqlArguments().text("v").text("none")); });
  reads("data_process_po_ed", [=] { text(data_process_po_ed, SqlArguments().text("p").number(0).text("value")); });
  reads("data_process_po_ed back",
        [=] { text(data_process_po_ed, SqlArguments().text("p").number(1).text(encrypted)); });
  reads("data_process_po_ed of rubbish",
        [=] { text(data_process_po_ed, SqlArguments().text("p").number(1).text("x")); });
  reads("data_process_ed_check_str",
        [=] { text(data_process_ed_check_str, SqlArguments().text("p").text(encrypted)); });
  reads("data_process_ed_check_int",
        [=] { number(data_process_ed_check_int, SqlArguments().text("p").text(encrypted)); });
  reads("getcolumnsizebyotc_kezu",
        [=] { number(getcolumnsizebyotc_kezu, SqlArguments().text("shop").text("customer").text("c").number(20)); });
  reads("reload_kezu", [=] { number(reload_kezu, SqlArguments()); });
  reads("kezu_conf_get_session_id", [=] { text(kezu_conf_get_session_id, SqlArguments().text("admin")); });
  reads("kezu_conf_check_session_auth", [=] { number(kezu_conf_check_session_auth, inSession()); });
  reads("kezu_conf_get_env", [=] { text(kezu_conf_get_env, inSession().number(1)); });
  reads("kezu_conf_get_log_flag", [=] { text(kezu_conf_get_log_flag, inSession().number(1)); });
  reads("kezu_conf_get_policy", [=] { text(kezu_conf_get_policy, inSession().text("p").number(0)); });
  reads("kezu_conf_get_policy()", [=] { text(kezu_conf_get_policy, SqlArguments()); });
  reads("kezu_conf_get_kms_mode", [=] { number(kezu_conf_get_kms_mode, inSession()); });
  reads("kezu_conf_get_policy_for_kms", [=] { number(kezu_conf_get_policy_for_kms, inSession()); });
  reads("kezu_conf_get_column", [=] { text(kezu_conf_get_column, inSession().number(0).number(3)); });
  reads("kezu_conf_get_accepriv", [=] { text(kezu_conf_get_accepriv, inSession().number(0).number(0)); });
  reads("kezu_conf_get_encpriv", [=] { text(kezu_conf_get_encpriv, inSession().number(0).number(0)); });
  reads("kezu_conf_get_querypriv", [=] { text(kezu_conf_get_querypriv, inSession().number(0)); });
  reads("kezu_conf_get_tableinfo", [=] { text(kezu_conf_get_tableinfo, SqlArguments().text("shop").text("t")); });
  reads("kezu_conf_get_log", [=] { text(kezu_conf_get_log, inSession().number(0).text("2001-01-01")); });
  reads("kezu_conf_get_log, a line", [=] { row(kezu_conf_get_log, inSession().number(0).text(today()).number(0)); });
  // These two write a line of the audit log each, and no table.
  reads("kezu_conf_get_auth", [=] { number(kezu_conf_get_auth, inSession()); });
  reads("hash_raw_data, a statement", [] {
    SqlArguments arguments;
    arguments.text("v");
    prepare(hash_raw_data_init, arguments);
    hash_raw_data_deinit(nullptr);
  });
  saves("kezu_conf_set_policy", [=] {
    number(kezu_conf_set_policy, createPolicy("q", 2, 1, 5));
    number(kezu_conf_set_policy, inSession().text("q"));
  });
  saves("kezu_conf_set_policy, refused", [=] { number(kezu_conf_set_policy, createPolicy("q", 16, 1, 5)); });
  saves("kezu_conf_set_column", [=] {
    number(kezu_conf_set_column, inSession().text("o").text("t").text("c").text("p"));
    number(kezu_conf_set_column, inSession().text("o").text("t").text("c"));
  });
  saves("kezu_conf_set_accepriv", [=] {
    number(kezu_conf_set_accepriv, inSession().text("i").text("v").text("o").text("t").text("c").number(1));
    number(kezu_conf_set_accepriv, inSession().text("i").text("v").text("o").text("t").text("c"));
  });
  saves("kezu_conf_set_encpriv", [=] {
    number(kezu_conf_set_encpriv, inSession().text("v").text("o").text("t").text("c").number(1).number(1));
    number(kezu_conf_set_encpriv, inSession().text("v").text("o").text("t").text("c"));
  });
  saves("kezu_conf_set_querypriv", [=] {
    number(kezu_conf_set_querypriv, inSession().text("SELECT").text("a.*c").text("NULL").text("NULL").number(1));
    number(kezu_conf_set_querypriv, inSession().text("SELECT").text("a.*c").text("NULL").text("NULL"));
  });
  saves("kezu_conf_set_tableinfo", [=] {
    number(kezu_conf_set_tableinfo, SqlArguments().text("o").text("t").text("command"));
    number(kezu_conf_set_tableinfo, SqlArguments().text("o").text("t"));
  });
  saves("kezu_conf_set_env", [=] { number(kezu_conf_set_env, inSession().number(0).number(1)); });
  saves("kezu_conf_set_log_flag", [=] { number(kezu_conf_set_log_flag, inSession().number(0).number(1)); });
  saves("kezu_conf_set_passwd", [=] { number(kezu_conf_set_passwd, inSession().text("the value")); });
  saves("kezu_conf_set_kms_mode", [=] { number(kezu_conf_set_kms_mode, inSession().number(9)); });
  return uses;
}

// What another server does: it saves each table, the policies now in one version and now in the other. And the reload
// that takes them in.
class OtherServer {
 public:
  explicit OtherServer(fs::path home) : home_(std::move(home)) {}

  // Takes the policies' file as it stands for one of the versions.
  void addPolicyVersion() { policies_.push_back(store_test::readText(home_ / "policy.kz")); }

  void saveAndReload() {
    for (const std::string name : store_test::kTableNames) {
      const fs::path path = home_ / (name + ".kz");
      const std::string bytes = name == "policy" ? policies_[saves_++ % policies_.size()] : store_test::readText(path);
      store_test::writeText(path.string() + ".other", bytes);
      fs::rename(path.string() + ".other", path);
    }
    EXPECT_EQ(0, Q7_ReloadAllInfoIfChanged());
  }

 private:
  fs::path home_;
  std::vector<std::string> policies_;
  std::size_t saves_ = 0;
};

// Tells whether calls of a function leave anything behind.
void expectNothingLeft(const Use& use, long calls) {
  for (long i = 0; i < use.first; ++i) {
    use.once();
  }
  const std::size_t before = heapInUse();
  const long descriptors = openDescriptors();
  for (long i = 0; i < calls; ++i) {
    use.once();
  }
  // The least that a call could leave is a block of the allocator's: 32 bytes.
  EXPECT_LT(heapInUse(), before + 32 * static_cast<std::size_t>(calls)) << use.name;
  EXPECT_EQ(descriptors, openDescriptors()) << use.name;
}

// A record in each table, for the functions that read them.
void fillTables() {
  SqlArguments policy = createPolicy("p", 2, 1, 5);
  EXPECT_EQ(1, row(kezu_conf_set_policy, policy));
  EXPECT_EQ(1, row(kezu_conf_set_column, inSession().text("shop").text("customer").text("c").text("p")));
  EXPECT_EQ(1, row(kezu_conf_set_accepriv, inSession().text("ip").text("u").text("o").text("t").text("c").number(1)));
  EXPECT_EQ(1, row(kezu_conf_set_encpriv, inSession().text("u").text("o").text("t").text("c").number(1).number(1)));
  EXPECT_EQ(1, row(kezu_conf_set_tableinfo, SqlArguments().text("shop").text("t").text("command")));
  EXPECT_EQ(1,
            row(kezu_conf_set_querypriv, inSession().text("SELECT").text("a.*b").text("NULL").text("NULL").number(1)));
}

class LeakTest : public store_test::StoreTest {};

TEST_F(LeakTest, CallsLeaveMemoryAsItWas) {
  const long reading = envNumber("KEZU_TEST_CALLS", kCalls);
  const long saving = envNumber("KEZU_TEST_SAVES", kSaves);
  EXPECT_EQ(
      0, store_test::inChild([&] {
        UnsyncedFiles files;
        const InPlaceOfMachine place(files);
        startWithSession(home());
        fillTables();
        OtherServer other(home());
        other.addPolicyVersion();
        SqlArguments second = createPolicy("q", 2, 1, 5);
        EXPECT_EQ(1, row(kezu_conf_set_policy, second));
        other.addPolicyVersion();
        EXPECT_EQ(3, row(kezu_conf_set_policy, inSession().text("q")));
        const auto encrypted = row(data_process_po_ed, SqlArguments().text("p").number(0).text("value"));
        for (const Use& use : everyFunction(encrypted.value_or(""))) {
          expectNothingLeft(use, use.saves ? saving : reading);
        }
        // The allocator keeps a few freed blocks of each size, and a reload uses many sizes: it takes more of
        // them to tell a leak from that.
        const Use reload = {"reload of what another server saved", true, [&other] { other.saveAndReload(); }, 200};
        expectNothingLeft(reload, std::max(5 * kSaves, saving));
        EXPECT_EQ(0, leaksFound());
        return 0;
      }));
}

}  // namespace
}  // namespace fault
