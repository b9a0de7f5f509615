// SPDX-License-Identifier: Apache-2.0
//
// The three key-server modes: what is in use after a fetch, a save, a reload, and the start of a process.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "engine/kms/client.h"
#include "engine/store/home.h"
#include "fault/kms_fixture.h"
#include "kezu/shared.h"

namespace kms_test {
namespace {

using namespace std::chrono_literals;

// --- A process of its own, since an engine starts once in a process -------------------------------------------------

constexpr const char* kStartHere = "KEZU_TEST_START_HERE";

// What a database server would see: the result of the start and the policies in use.
std::string startAndDescribe() {
  const int started = kezuInitialize(1, nullptr, nullptr);
  std::string text = fmt::format("start {} mode {}:", started, static_cast<int>(g_kmsMode));
  const int slot = g_encPolicyArray_flag;
  for (int i = 0; i < g_numberOfEncPolicy[slot]; ++i) {
    text += fmt::format(" {}/{}", g_encPolicyArray[slot][i].policyID, g_makeKeyArray[slot][i] != nullptr);
  }
  const int again = kezuInitialize(1, nullptr, nullptr);
  const int reloaded = Q7_ReloadAllInfoIfChanged();
  return text + fmt::format("; again {} reload {}", again, reloaded);
}

// Takes the place of the tests in a process that startedOn() runs.
class StartHere : public ::testing::Environment {
 public:
  void SetUp() override {
    if (const char* output = std::getenv(kStartHere)) {
      store_test::writeText(output, startAndDescribe());
      _exit(0);
    }
  }
};
const ::testing::Environment* const startHere = ::testing::AddGlobalTestEnvironment(new StartHere);

class KmsModeTest : public KmsTest {
 protected:
  // What a process that starts on the home describes.
  static std::string startedOn(const fs::path& home) {
    const fs::path output = home / "described";
    const std::string self = fs::read_symlink("/proc/self/exe");
    const std::string outputSetting = fmt::format("{}={}", kStartHere, output.string());
    const std::string homeSetting = "KEZU_HOME=" + home.string();
    const pid_t child = fork();
    if (child == 0) {
      const char* arguments[] = {self.c_str(), "--gtest_filter=KmsModeTest.*", nullptr};
      const char* environment[] = {outputSetting.c_str(), homeSetting.c_str(), nullptr};
      execve(self.c_str(), const_cast<char**>(arguments), const_cast<char**>(environment));
      _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
    return store_test::readText(output);
  }

  static void setMode(Q7KmsMode mode) {
    g_kmsMode = mode;
    ASSERT_EQ(0, Q7_SavePolicyInfo());
  }

  static engine::store::KmsSettings settings() {
    const auto home = engine::store::readSettings(engine::store::machineFiles(), directory());
    EXPECT_TRUE(home.ok()) << home.error().text;
    return home.value().kms.value_or(engine::store::KmsSettings{});
  }
};

TEST_F(KmsModeTest, OnlyModeFetchesAtTheStart) {
  Peer& peer = play(somePolicies(2));
  EXPECT_EQ("start 0 mode 1: p0/true p1/true; again 0 reload 0", startedOn(directory()));
  EXPECT_EQ(1, peer.connections());
}

TEST_F(KmsModeTest, OnlyModeStartsWithoutAServer) {
  int port = 0;
  {
    const Peer gone;
    port = gone.port();
  }
  configure(port);
  const std::string before = log();
  EXPECT_EQ("start 0 mode 1:; again 0 reload 0", startedOn(directory()));
  const std::string event = log().substr(before.size());
  EXPECT_NE(std::string::npos, event.find("No policies were fetched")) << event;
  EXPECT_NE(std::string::npos, event.find("Connection refused")) << event;
}

TEST_F(KmsModeTest, OnlyModeStartsWithASilentServer) {
  play(Script{.accept = Script::Accept::keepSilent}, {.connect = 0.3, .read = 0.3});
  EXPECT_EQ("start 0 mode 1:; again 0 reload 0", startedOn(directory()));
}

TEST_F(KmsModeTest, OtherModesStartWithoutTheServer) {
  Peer& peer = play(somePolicies(2));
  setMode(Q7_CACHED_KMS_MODE);
  ASSERT_EQ(0, Q7_GetPolicyInfoFromKMS()) << log();
  ASSERT_EQ(0, Q7_SavePolicyInfo());
  EXPECT_EQ(1, peer.connections());
  EXPECT_EQ("start 0 mode 2: p0/true p1/true; again 0 reload 0", startedOn(directory()));
  setMode(Q7_NO_KMS_MODE);
  EXPECT_EQ("start 0 mode 0: p0/true p1/true; again 0 reload 0", startedOn(directory()));
  EXPECT_EQ(1, peer.connections());
}

TEST_F(KmsModeTest, OnlyModeIsNotOverwrittenByTheFile) {
  play(somePolicies(2));
  ASSERT_EQ(0, Q7_GetPolicyInfoFromKMS()) << log();
  const std::string fetched = table();
  ASSERT_EQ(0, Q7_SavePolicyInfo());
  EXPECT_EQ(-1, compareLocalAndKMSPolicy()) << "policies were written";
  EXPECT_EQ(0, Q7_LoadPolicyInfo(""));
  EXPECT_EQ(fetched, table());
  ASSERT_EQ(0, utimensat(AT_FDCWD, (directory() / "policy.kz").c_str(), nullptr, 0));
  EXPECT_EQ(0, Q7_ReloadAllInfoIfChanged());
  EXPECT_EQ(fetched, table());
  EXPECT_EQ(0, Q7_SavePolicyInfo()) << "the fetched policies were taken for a change under way";
}

TEST_F(KmsModeTest, CachedModeSavesComparesAndLoads) {
  setMode(Q7_CACHED_KMS_MODE);
  Keys keys = somePolicies(3);
  play(keys);
  ASSERT_EQ(0, Q7_GetPolicyInfoFromKMS()) << log();
  EXPECT_EQ(-1, compareLocalAndKMSPolicy());
  ASSERT_EQ(0, Q7_SavePolicyInfo());
  EXPECT_EQ(0, compareLocalAndKMSPolicy());

  std::reverse(keys.keys.begin(), keys.keys.end());
  play(keys);
  ASSERT_EQ(0, Q7_GetPolicyInfoFromKMS()) << log();
  EXPECT_EQ((std::vector<std::string>{"p2", "p1", "p0"}), names());
  EXPECT_EQ(0, compareLocalAndKMSPolicy()) << "the order counts";

  keys.keys[1].material[5] = '~';
  play(keys);
  ASSERT_EQ(0, Q7_GetPolicyInfoFromKMS()) << log();
  EXPECT_EQ(1, compareLocalAndKMSPolicy()) << "another key is not seen";

  ASSERT_EQ(0, Q7_LoadPolicyInfo(""));
  EXPECT_EQ((std::vector<std::string>{"p0", "p1", "p2"}), names());
  EXPECT_EQ(0, compareLocalAndKMSPolicy());

  peer_.reset();
  EXPECT_EQ(-1, Q7_GetPolicyInfoFromKMS());
  EXPECT_EQ((std::vector<std::string>{"p0", "p1", "p2"}), names());
}

// --- What the administrator's program asks for ----------------------------------------------------------------------

class KmsClientTest : public KmsModeTest {};

TEST_F(KmsClientTest, TellsWhoTheServerIs) {
  play(somePolicies(2));
  const auto client = engine::kms::Client::connect(settings());
  ASSERT_TRUE(client.ok()) << client.error().text;
  const engine::kms::ServerInfo& server = client.value().server();
  EXPECT_EQ((engine::kms::Version{1, 2}), server.version);
  EXPECT_EQ(4u, server.versions.size());
  EXPECT_EQ("TLSv1.3", server.tls);
  EXPECT_EQ("CN=server", server.subject);
  EXPECT_EQ("CN=test authority", server.issuer);
  EXPECT_EQ(20u, server.notBefore.size());
  EXPECT_LT(server.notBefore, server.notAfter);
}

TEST_F(KmsClientTest, ReadsPoliciesWithoutTheirKeys) {
  std::atomic<int> keysAsked{0};
  const Keys keys = somePolicies(3);
  play(Script{.reply = [&, keys](const Wire& request) {
    for (const Asked& asked : operationsOf(request)) {
      keysAsked += asked.operation == 0x0a;
    }
    return keys(request);
  }});
  auto client = engine::kms::Client::connect(settings());
  ASSERT_TRUE(client.ok()) << client.error().text;
  const auto policies = client.value().readPolicies({"2", "3"}, engine::kms::WithKeys::no);
  ASSERT_TRUE(policies.ok()) << policies.error().text;
  ASSERT_EQ(2u, policies.value().size());
  EXPECT_STREQ("p2", policies.value()[1].policyID);
  EXPECT_EQ(2, policies.value()[1].algID);
  EXPECT_EQ(0, policies.value()[1].keyLength);
  EXPECT_EQ(0, keysAsked);
}

// The filters that the server is asked to apply, by name and value.
std::vector<std::string> filtersOf(const Asked& asked) {
  std::vector<std::string> all;
  for (const Wire& one : valuesOf(asked.payload, 0x420008)) {
    all.push_back(valueOf(one, 0x42000a) + "=" + valueOf(one, 0x42000b));
  }
  return all;
}

TEST_F(KmsClientTest, LooksForActiveSymmetricKeysOfTheGroup) {
  Asked located{};
  const Keys keys = somePolicies(3);
  play(Script{.reply = [&, keys](const Wire& request) {
    located = operationsOf(request)[0];
    return keys(request);
  }});
  const std::vector<std::string> active = {"Object Type=" + bigEndian(2, 4), "State=" + bigEndian(2, 4)};
  {
    auto client = engine::kms::Client::connect(settings());
    ASSERT_TRUE(client.ok()) << client.error().text;
    const auto found = client.value().locate(2);
    ASSERT_TRUE(found.ok()) << found.error().text;
    EXPECT_EQ((std::vector<std::string>{"1", "2"}), found.value());
  }
  EXPECT_EQ(0x08u, located.operation);
  EXPECT_EQ(bigEndian(2, 4), valueOf(located.payload, 0x42004f));
  EXPECT_EQ(active, filtersOf(located));

  peer_.reset();
  Peer& second = play(Script{.reply = [&, keys](const Wire& request) {
    located = operationsOf(request)[0];
    return keys(request);
  }});
  configure(second.port(), {}, "127.0.0.1", "object_group = \"orvanta group\"\n");
  auto client = engine::kms::Client::connect(settings());
  ASSERT_TRUE(client.ok()) << client.error().text;
  ASSERT_TRUE(client.value().locate(2).ok());
  auto filters = active;
  filters.push_back("Object Group=orvanta group");
  EXPECT_EQ(filters, filtersOf(located));
}

// What is registered can be fetched: the server here knows only what it was sent.
TEST_F(KmsClientTest, RegistersAPolicyThatIsFetchedAgain) {
  Keys server;
  std::vector<std::uint32_t> operations;
  Peer& peer = play(Script{.reply = [&](const Wire& request) {
    const Asked asked = operationsOf(request)[0];
    operations.push_back(asked.operation);
    const Wire reply = server(request);
    if (asked.operation == 0x03) server.keys.push_back(registeredKey(asked));
    if (asked.operation == 0x12) server.keys.at(std::stoul(asked.identifier) - 1).state = 2;
    if (asked.operation == 0x13) server.keys.at(std::stoul(asked.identifier) - 1).state = 3;
    return reply;
  }});
  configure(peer.port(), {}, "127.0.0.1", "object_group = \"orvanta\"\n");
  Q7EncPolicyInfo policy{};
  BCipherKey key = nullptr;
  ASSERT_NE(0, Q7_AddPolicyInfo(policy, &key, "orders", 2, 0, nullptr, 0xFFFFFFFF, 4, 9, 5, 2, "K!"));
  BCIPHER_WipeKey(key);
  BCIPHER_DelKey(key);
  {
    auto client = engine::kms::Client::connect(settings());
    ASSERT_TRUE(client.ok()) << client.error().text;
    const auto identifier = client.value().registerPolicy(policy);
    ASSERT_TRUE(identifier.ok()) << identifier.error().text;
    EXPECT_EQ("1", identifier.value());
    EXPECT_TRUE(client.value().activate("1").ok());
  }
  ASSERT_EQ(0, Q7_GetPolicyInfoFromKMS()) << log();
  const Q7EncPolicyInfo& fetched = g_encPolicyArray[g_encPolicyArray_flag][0];
  EXPECT_EQ(0, std::memcmp(&policy, &fetched, sizeof policy));
  EXPECT_EQ("orvanta", server.keys[0].group);
  EXPECT_EQ(256, server.keys[0].length);
  {
    auto client = engine::kms::Client::connect(settings());
    ASSERT_TRUE(client.ok()) << client.error().text;
    EXPECT_TRUE(client.value().revoke("1").ok());
    EXPECT_TRUE(client.value().destroy("1").ok());
    policy.keyLength = 65;
    EXPECT_FALSE(client.value().registerPolicy(policy).ok());
  }
  EXPECT_EQ((std::vector<std::uint32_t>{0x1e, 0x03, 0x12, 0x1e, 0x08, 0x0b, 0x1e, 0x13, 0x14}), operations);
}

}  // namespace
}  // namespace kms_test
