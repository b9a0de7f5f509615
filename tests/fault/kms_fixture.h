// SPDX-License-Identifier: Apache-2.0
//
// An engine that runs on a home of the test's own and fetches its policies from a peer that the test scripts.
#pragma once

#include <fmt/format.h>
#include <openssl/err.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "fault/kms_peer.h"
#include "kezu/engine.h"
#include "unit/store_fixture.h"

namespace kms_test {

namespace fs = std::filesystem;

// Time limits of kezu.toml, in seconds. The long ones are not met by any test that passes.
struct Limits {
  double connect = 60;
  double read = 60;
};

// Certificates of an authority, of the server and of the client, made once for all tests.
struct Authority {
  Identity authority = issue({.name = "test authority", .alternative = "", .authority = true});
  Identity server = issue({.name = "server", .alternative = "IP:127.0.0.1,DNS:localhost"}, &authority);
  Identity client = issue({.name = "client", .alternative = ""}, &authority);

  static const Authority& instance() {
    static const Authority made;
    return made;
  }
};

inline std::string hexOf(const std::string& bytes) {
  std::string digits;
  for (const char c : bytes) {
    digits += fmt::format("{:02x}", static_cast<unsigned char>(c));
  }
  return digits;
}

inline std::string base64Of(const std::string& bytes) {
  std::string out(bytes.size() * 2 + 8, '\0');
  unsigned int length = 0;
  std::string in = bytes;
  Q7_GetEncode64(out.data(), static_cast<unsigned int>(out.size()), &length,
                 reinterpret_cast<unsigned char*>(in.data()), static_cast<int>(in.size()));
  return out.substr(0, length);
}

// Policies as the server's keys: p0, p1, ... with 32 bytes each that are easy to find again.
inline Keys somePolicies(std::size_t count) {
  Keys keys;
  for (std::size_t i = 0; i < count; ++i) {
    keys.keys.push_back({.name = fmt::format("p{}", i), .material = fmt::format("SecretMaterial-of-policy-{:06}!", i)});
  }
  return keys;
}

class KmsTest : public ::testing::Test {
 protected:
  // A home with no policies, in only-mode, and an engine that runs on it. It can be started once in a process.
  static void SetUpTestSuite() {
    if (home_ == nullptr) {
      home_ = std::make_unique<TemporaryDirectory>();
      store_test::resetTables();
      store_test::addUser("admin", "the value");
      store_test::makeHome(directory());
      setenv("KEZU_HOME", directory().c_str(), 1);
      fs::create_directory(directory() / "log");
      ASSERT_EQ(0, kezuInitialize(1, nullptr, nullptr));
    }
  }

  void SetUp() override {
    g_kmsMode = Q7_ONLY_KMS_MODE;
    ASSERT_EQ(0, Q7_SavePolicyInfo());
  }

  void TearDown() override {
    peer_.reset();
    g_kmsMode = Q7_NO_KMS_MODE;
    g_numberOfEncPolicy[g_encPolicyArray_flag] = 0;
    ASSERT_EQ(0, Q7_SavePolicyInfo());
  }

  static fs::path directory() { return home_->path() / "home"; }

  // Writes kezu.toml for a server at a port.
  static void configure(int port, const Limits& limits = {}, const std::string& host = "127.0.0.1",
                        const std::string& more = "") {
    const Authority& all = Authority::instance();
    writeCertificate(all.authority, directory() / "ca.pem");
    writeCertificate(all.client, directory() / "client.pem");
    writeKey(all.client, directory() / "client.key");
    store_test::writeText(directory() / "kezu.toml",
                          fmt::format("[kms]\nhost = \"{}\"\nport = {}\nca = \"ca.pem\"\ncertificate = \"client.pem\"\n"
                                      "key = \"client.key\"\nconnect_timeout = {}\nread_timeout = {}\n{}",
                                      host, port, limits.connect, limits.read, more));
  }

  // Starts a peer and points kezu.toml at it.
  Peer& play(Script script, const Limits& limits = {}, const Identity& server = Authority::instance().server,
             const Identity& authority = Authority::instance().authority) {
    peer_ = std::make_unique<Peer>();
    peer_->start(std::move(script), server, authority);
    configure(peer_->port(), limits);
    return *peer_;
  }

  Peer& play(const Keys& keys) { return play(Script{.reply = keys}); }

  // Everything that was logged so far.
  static std::string log() {
    std::string all;
    for (const auto& entry : fs::directory_iterator(directory() / "log")) {
      if (entry.is_regular_file() && entry.path().extension() == ".log") {
        all += store_test::readText(entry.path());
      }
    }
    return all;
  }

  // Policies in use: their records, with the slot that they are in.
  static std::string table() {
    const int slot = g_encPolicyArray_flag;
    return std::to_string(slot) + ":" +
           std::string(reinterpret_cast<const char*>(g_encPolicyArray[slot]), sizeof g_encPolicyArray[slot]) +
           std::to_string(g_numberOfEncPolicy[slot]);
  }

  static std::vector<std::string> names() {
    std::vector<std::string> all;
    for (int i = 0; i < g_numberOfEncPolicy[g_encPolicyArray_flag]; ++i) {
      all.emplace_back(g_encPolicyArray[g_encPolicyArray_flag][i].policyID);
    }
    return all;
  }

  // Puts two policies into use that a failed fetch must leave there.
  void usePolicies() {
    Keys keys;
    keys.keys = {{.name = "stays1", .material = "the material of the first policy"},
                 {.name = "stays2", .material = "the material of another policy!"}};
    play(keys);
    ASSERT_EQ(0, Q7_GetPolicyInfoFromKMS()) << log();
    peer_.reset();
    ASSERT_EQ((std::vector<std::string>{"stays1", "stays2"}), names());
  }

  // Fetches, and expects that nothing came of it but an event that has all the words and no key.
  void expectRefused(const std::vector<std::string>& words) {
    const std::string before = table();
    const std::string logged = log();
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(-1, Q7_GetPolicyInfoFromKMS());
    // The limits that are met on the way are below a second: this only tells a call that hangs.
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(50));
    EXPECT_EQ(before, table()) << "the table in use changed";
    EXPECT_EQ(0u, ERR_peek_error()) << "left to the server's own connection";
    const std::string event = log().substr(logged.size());
    EXPECT_EQ(1, std::count(event.begin(), event.end(), '\n')) << event;
    for (const std::string& word : words) {
      EXPECT_NE(std::string::npos, event.find(word)) << "'" << word << "' is not in: " << event;
    }
    expectNoKey(event);
  }

  static void expectNoKey(const std::string& event) {
    for (const char* secret : {"SecretMaterial", "the material of"}) {
      EXPECT_EQ(std::string::npos, event.find(secret)) << event;
      EXPECT_EQ(std::string::npos, event.find(hexOf(secret))) << event;
      EXPECT_EQ(std::string::npos, event.find(base64Of(std::string(secret).substr(0, 12)))) << event;
    }
  }

  std::unique_ptr<Peer> peer_;

 private:
  static inline std::unique_ptr<TemporaryDirectory> home_;
};

}  // namespace kms_test
