// SPDX-License-Identifier: Apache-2.0
//
// kezu-admin's commands for the key management server, against one that fails, is full, or has certificates that end
// soon.
#include "fault/kms_fixture.h"
#include "kezu/shared.h"
#include "unit/admin_program.h"

namespace kms_test {
namespace {

using store_test::has;
using store_test::Outcome;

constexpr std::uint32_t kRegister = 0x03, kLocate = 0x08, kGet = 0x0a, kActivate = 0x12, kRevoke = 0x13,
                        kDestroy = 0x14;

// A server that keeps what it is sent. From the first operation of a kind on that is not `spared`, it refuses that
// kind.
struct KeyServer {
  Keys all;  // states: 1 not active, 2 active, 3 revoked, 5 destroyed
  std::uint32_t refused = 0;
  int spared = 0;

  std::vector<Key> active(const std::string& name = "") const {
    std::vector<Key> found;
    for (const Key& key : all.keys) {
      if (key.state == 2 && (name.empty() || key.name == name)) found.push_back(key);
    }
    return found;
  }

  Wire payload(const Asked& asked) {
    const Wire given = all.payload(asked);
    if (asked.operation == kRegister) all.keys.push_back(registeredKey(asked));
    if (asked.operation == kActivate) keyOfNumber(asked).state = 2;
    if (asked.operation == kRevoke) keyOfNumber(asked).state = 3;
    if (asked.operation == kDestroy) keyOfNumber(asked).state = 5;
    return asked.operation == kLocate ? located(asked) : given;
  }

  Wire operator()(const Wire& request) {
    Wire items;
    const auto operations = operationsOf(request);
    for (const Asked& asked : operations) {
      items += asked.operation == refused && spared-- <= 0 ? failure(asked, 0x100, "disk full")
                                                           : success(asked, payload(asked));
    }
    return answer(items, operations.size());
  }

 private:
  Key& keyOfNumber(const Asked& asked) { return all.keys.at(std::stoul(asked.identifier) - 1); }

  Wire located(const Asked& asked) const {
    Wire identifiers;
    auto left = number(valueOf(asked.payload, 0x42004f));
    for (std::size_t i = 0; i < all.keys.size() && left > 0; ++i) {
      if (all.keys[i].state == 2) {
        identifiers += text(0x420094, std::to_string(i + 1));
        --left;
      }
    }
    return identifiers;
  }
};

// A home in mode 0 with two policies, p1 and p2.
class KmsAdminTest : public KmsTest {
 protected:
  void SetUp() override {
    store_test::resetTables();
    g_kmsMode = Q7_NO_KMS_MODE;
    store_test::addPolicy("p1");
    store_test::addPolicy("p2");
    ASSERT_EQ(0, Q7_SavePolicyInfo());
  }

  void TearDown() override {
    peer_.reset();
    store_test::resetTables();
  }

  static std::string material(int policy) {
    const Q7EncPolicyInfo& info = g_encPolicyArray[g_encPolicyArray_flag][policy];
    return {reinterpret_cast<const char*>(info.columnKey), static_cast<std::size_t>(info.keyLength)};
  }

  // Runs a command of `kezu-admin kms` with the server. Nothing that it prints has a key in it.
  Outcome kms(KeyServer& server, const std::string& command) {
    play(Script{.reply = [&server](const Wire& request) { return server(request); }});
    Outcome outcome = kms(command);
    peer_.reset();  // what the server has kept is the test's again
    return outcome;
  }

  static Outcome kms(const std::string& command) {
    Outcome outcome =
        store_test::runAdmin(directory().parent_path(), "kms " + command + " --home " + directory().string());
    for (const std::string& secret : {material(0), material(1), std::string("SecretMaterial")}) {
      EXPECT_FALSE(has(outcome.out + outcome.err, secret));
      EXPECT_FALSE(has(outcome.out + outcome.err, hexOf(secret)));
      EXPECT_FALSE(has(outcome.out + outcome.err, base64Of(secret).substr(0, 16)));
    }
    return outcome;
  }
};

// Wherever a push stops, no name of the server's is missing meanwhile, and the same command with --replace finishes it.
TEST_F(KmsAdminTest, APushThatIsCutShortIsFinishedByTheNext) {
  struct Cut {
    std::uint32_t operation;
    int spared;
    const char* reason;
    const char* next;
  };
  for (const Cut& cut : {Cut{kGet, 0, "Get was refused: General Failure. What", "replaced"},
                         Cut{kRegister, 1, "Register was refused: General Failure. What", "replaced"},
                         Cut{kActivate, 1, ": disk full; its key 3 is on the server and not active. What", "replaced"},
                         Cut{kRevoke, 0, ": disk full; the old key 1 is still on the server. What", "replaced"},
                         Cut{kDestroy, 0, ": disk full; the old key 1 is still on the server. What", "unchanged"}}) {
    SCOPED_TRACE(cut.reason);
    KeyServer server;
    server.all.keys = {{.name = "p2", .material = "SecretMaterial of the old policy"}};
    server.refused = cut.operation;
    server.spared = cut.spared;
    const Outcome stopped = kms(server, "push --all --replace");
    EXPECT_EQ(1, stopped.status);
    EXPECT_EQ("'p1': pushed\n", stopped.out);
    for (const char* part : {"kezu-admin: 'p2': key management server 127.0.0.1 port ", cut.reason,
                             "What is listed was done before; to go on, run the command again with --replace\n"}) {
      EXPECT_TRUE(has(stopped.err, part)) << stopped.err;
    }
    EXPECT_FALSE(server.active("p2").empty());

    server.refused = 0;
    const Outcome finished = kms(server, "push --all --replace");
    EXPECT_EQ(0, finished.status) << finished.err;
    EXPECT_EQ(std::string("'p1': unchanged\n'p2': ") + cut.next + "\n", finished.out);
    ASSERT_EQ(2u, server.active().size());
    EXPECT_EQ(material(0), server.active("p1").at(0).material);
    EXPECT_EQ(material(1), server.active("p2").at(0).material);
  }
}

TEST_F(KmsAdminTest, ANameThatIsThereIsRefusedBeforeAnythingIsPushed) {
  KeyServer server;
  server.all.keys = {{.name = "p2", .material = "SecretMaterial of the old policy"}};
  const Outcome refused = kms(server, "push --all");
  EXPECT_EQ(1, refused.status);
  EXPECT_EQ("", refused.out);
  EXPECT_TRUE(has(refused.err, "nothing was pushed: on the server already: 'p2'; --replace puts")) << refused.err;
  EXPECT_EQ(1u, server.all.keys.size());
  EXPECT_EQ(1u, server.active().size());
}

TEST_F(KmsAdminTest, AServerTakesAsManyPoliciesAsADatabaseServer) {
  KeyServer server;
  for (int i = 0; i < 1999; ++i) {
    server.all.keys.push_back({.name = fmt::format("q{}", i), .material = "SecretMaterial"});
  }
  EXPECT_EQ("'p1': pushed\n", kms(server, "push p1").out);
  EXPECT_EQ("'p1': unchanged\n", kms(server, "push p1 --replace").out);
  const Outcome full = kms(server, "push p2");
  EXPECT_EQ(1, full.status);
  EXPECT_EQ("kezu-admin: nothing was pushed: the server would have 2001 policies, and a database server takes 2000\n",
            full.err);
  EXPECT_EQ(2000u, server.all.keys.size());
  const Outcome listed = kms(server, "list");
  EXPECT_EQ(0, listed.status) << listed.err;
  EXPECT_EQ(2001, std::count(listed.out.begin(), listed.out.end(), '\n'));

  server.all.keys.push_back({.name = "q1999", .material = "SecretMaterial"});
  for (const char* command : {"list", "push p1 --replace"}) {
    const Outcome refused = kms(server, command);
    EXPECT_EQ(1, refused.status) << command;
    EXPECT_EQ("", refused.out);
    EXPECT_TRUE(has(refused.err, "the server has more than 2000 active keys")) << refused.err;
  }
  EXPECT_EQ(2001u, server.all.keys.size());
}

TEST_F(KmsAdminTest, CheckComplainsOfCertificatesThatEndWithin30Days) {
  constexpr long kDay = 24 * 60 * 60;
  constexpr long kHour = 60 * 60;
  const Authority& known = Authority::instance();
  const auto ending = [&](long seconds) {
    return issue({.name = "localhost", .alternative = "IP:127.0.0.1", .to = seconds}, &known.authority);
  };
  const Identity early = ending(30 * kDay - kHour), late = ending(30 * kDay + kHour);
  const auto complaints = [&](const Identity& theirs, const Identity& mine) {
    play(Script{.reply = Keys{}}, {}, theirs);
    writeCertificate(mine, directory() / "client.pem");
    writeKey(mine, directory() / "client.key");
    const Outcome checked = kms("check");
    EXPECT_EQ(0, checked.status) << checked.err;
    return checked.err;
  };
  const std::string rest = " certificate expires in less than 30 days; renew it before 2";
  EXPECT_EQ("", complaints(late, late));
  const std::string server = complaints(early, late);
  EXPECT_TRUE(has(server, "kezu-admin: the server's" + rest)) << server;
  EXPECT_FALSE(has(server, "client's")) << server;
  const std::string client = complaints(late, early);
  EXPECT_TRUE(has(client, "kezu-admin: the client's" + rest)) << client;
  EXPECT_FALSE(has(client, "server's")) << client;
}

}  // namespace
}  // namespace kms_test
