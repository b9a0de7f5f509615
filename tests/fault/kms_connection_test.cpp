// SPDX-License-Identifier: Apache-2.0
//
// Connections to a key management server that go wrong: no server, a server that hangs, certificates that don't fit.
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <csignal>

#include "engine/kms/client.h"
#include "engine/kms/tls.h"
#include "engine/store/home.h"
#include "fault/kms_fixture.h"
#include "kezu/change.h"
#include "kezu/shared.h"

namespace kms_test {
namespace {

using Accept = Script::Accept;
using namespace std::chrono_literals;

constexpr Limits kShort{.connect = 0.3, .read = 0.3};

class KmsConnectionTest : public KmsTest {
 protected:
  static engine::store::KmsSettings settings() {
    const auto home = engine::store::readSettings(engine::store::machineFiles(), directory());
    EXPECT_TRUE(home.ok()) << home.error().text;
    return home.value().kms.value_or(engine::store::KmsSettings{});
  }
};

TEST_F(KmsConnectionTest, NoServerNamed) {
  usePolicies();
  store_test::writeText(directory() / "kezu.toml", "");
  expectRefused({"kezu.toml", "names no key management server"});
  store_test::writeText(directory() / "kezu.toml", "[kms]\nhost = 5\n");
  expectRefused({"kezu.toml", "line 2", "kms.host"});
}

TEST_F(KmsConnectionTest, Absent) {
  usePolicies();
  int port = 0;
  {
    const Peer gone;
    port = gone.port();
  }
  configure(port);
  expectRefused({"127.0.0.1", std::to_string(port), "Connection refused"});
  configure(port, {}, "no-such-host.invalid");
  expectRefused({"no-such-host.invalid", "its address can't be found"});
}

TEST_F(KmsConnectionTest, ClosesAtOnce) {
  usePolicies();
  play(Script{.accept = Accept::close});
  expectRefused({"127.0.0.1"});
}

TEST_F(KmsConnectionTest, AcceptsAndKeepsSilent) {
  usePolicies();
  play(Script{.accept = Accept::keepSilent}, kShort);
  expectRefused({"no TLS connection within connect_timeout, 0.3 s"});
}

// The kernel takes the connection, and nobody ever looks at it.
TEST_F(KmsConnectionTest, NeverAccepts) {
  usePolicies();
  const Peer listening;
  configure(listening.port(), kShort);
  expectRefused({"no TLS connection within connect_timeout, 0.3 s"});
}

TEST_F(KmsConnectionTest, DoesNotAnswer) {
  usePolicies();
  Peer& peer = play(Script{.reply = [](const Wire&) { return Wire(); }}, {.connect = 60, .read = 0.3});
  expectRefused({"no whole answer within read_timeout, 0.3 s"});
  EXPECT_EQ(1, peer.requests());
}

// Each byte comes well within the limit, all of them do not.
TEST_F(KmsConnectionTest, TricklesItsAnswer) {
  usePolicies();
  play(Script{.reply = somePolicies(3), .trickle = 20ms}, {.connect = 60, .read = 0.5});
  expectRefused({"no whole answer within read_timeout, 0.5 s"});
}

// The limit of a request holds for each of those that read policies, not only for all of them together.
TEST_F(KmsConnectionTest, AnswersPoliciesTooLate) {
  usePolicies();
  const Keys keys = somePolicies(3);
  play(Script{.reply =
                  [keys](const Wire& request) {
                    std::this_thread::sleep_for(operationsOf(request).size() > 1 ? 1500ms : 0ms);
                    return keys(request);
                  }},
       {.connect = 60, .read = 0.5});
  expectRefused({"no whole answer within read_timeout, 0.5 s"});
}

// Every answer is in time, and there is no end to the answers that are needed.
TEST_F(KmsConnectionTest, ManySlowAnswersAreBoundedTogether) {
  usePolicies();
  const Keys keys = somePolicies(2000);
  Peer& peer = play(Script{.reply =
                               [keys](const Wire& request) {
                                 const auto operations = operationsOf(request);
                                 if (operations.size() > 1) {
                                   return refusal(0x02, "too large");
                                 }
                                 const auto operation = operations[0].operation;
                                 if (operation == 0x0a || operation == 0x0b) {
                                   std::this_thread::sleep_for(100ms);
                                 }
                                 return keys(request);
                               }},
                    {.connect = 60, .read = 1});
  expectRefused({"no whole answer within read_timeout"});
  EXPECT_LT(peer.requests(), 200);
}

TEST_F(KmsConnectionTest, ClosesInTheMiddleOfAnAnswer) {
  usePolicies();
  for (const std::size_t sent : {std::size_t{1}, std::size_t{7}, std::size_t{8}, std::size_t{100}}) {
    const Keys keys = somePolicies(3);
    play(Script{.reply = [keys, sent](const Wire& request) { return keys(request).substr(0, sent); },
                .closeAfterReply = true});
    expectRefused({"it closed the connection"});
  }
}

// The answer is whole but for what its length promises: the rest is waited for, and not for ever.
TEST_F(KmsConnectionTest, TruncatedAnswerThatNeverEnds) {
  usePolicies();
  const Keys keys = somePolicies(3);
  play(Script{.reply =
                  [keys](const Wire& request) {
                    const Wire whole = keys(request);
                    return whole.substr(0, whole.size() - 8);
                  },
              .stallAfterReply = true},
       {.connect = 60, .read = 0.3});
  expectRefused({"no whole answer within read_timeout"});
}

// Certificates

TEST_F(KmsConnectionTest, ExpiredCertificate) {
  usePolicies();
  const Identity& authority = Authority::instance().authority;
  const Identity expired =
      issue({.name = "server", .alternative = "IP:127.0.0.1", .from = -7200, .to = -3600}, &authority);
  Peer& peer = play(Script{.reply = somePolicies(1)}, {}, expired);
  expectRefused({"its certificate is not accepted", "expired"});
  EXPECT_EQ(0, peer.requests());
}

TEST_F(KmsConnectionTest, CertificateThatIsNotValidYet) {
  usePolicies();
  const Identity& authority = Authority::instance().authority;
  const Identity early = issue({.name = "server", .alternative = "IP:127.0.0.1", .from = 3600}, &authority);
  play(Script{.reply = somePolicies(1)}, {}, early);
  expectRefused({"its certificate is not accepted", "not yet valid"});
}

TEST_F(KmsConnectionTest, CertificateOfAForeignAuthority) {
  usePolicies();
  const Identity foreign = issue({.name = "test authority", .alternative = "", .authority = true});
  const Identity server = issue({.name = "server", .alternative = "IP:127.0.0.1"}, &foreign);
  play(Script{.reply = somePolicies(1)}, {}, server);
  expectRefused({"its certificate is not accepted"});
  const Identity itself = issue({.name = "server", .alternative = "IP:127.0.0.1"});
  play(Script{.reply = somePolicies(1)}, {}, itself);
  expectRefused({"its certificate is not accepted", "self"});
}

TEST_F(KmsConnectionTest, CertificateOfAnotherHost) {
  usePolicies();
  const Identity& authority = Authority::instance().authority;
  const Identity other = issue({.name = "127.0.0.1", .alternative = "DNS:kms.example,IP:127.0.0.2"}, &authority);
  Peer& peer = play(Script{.reply = somePolicies(1)}, {}, other);
  expectRefused({"its certificate is not accepted", "IP address mismatch"});
  configure(peer.port(), {}, "localhost");
  expectRefused({"its certificate is not accepted", "ostname mismatch"});
  EXPECT_EQ(0, peer.requests());
}

// The peer takes no client whose certificates don't lead to the authority, so this checks the chains of both sides.
TEST_F(KmsConnectionTest, CertificatesOfAnAuthorityBelow) {
  const Identity& authority = Authority::instance().authority;
  const Identity below = issue({.name = "authority below", .authority = true}, &authority);
  const Identity server = issue({.name = "server", .alternative = "IP:127.0.0.1"}, &below);
  const Identity client = issue({.name = "client"}, &below);
  play(Script{.reply = somePolicies(2)}, {}, server);
  writeCertificate(client, directory() / "client.pem");
  writeKey(client, directory() / "client.key");
  EXPECT_EQ(0, Q7_GetPolicyInfoFromKMS()) << log();

  usePolicies();
  play(Script{.reply = somePolicies(2)}, {}, Identity{.certificate = server.certificate, .key = server.key});
  expectRefused({"its certificate is not accepted", "unable to get local issuer certificate"});
}

// No authority is trusted but those of the file, and all of those are.
TEST_F(KmsConnectionTest, EveryAuthorityOfTheFileIsTrusted) {
  const Identity other = issue({.name = "another authority", .authority = true});
  const Identity server = issue({.name = "server", .alternative = "IP:127.0.0.1"}, &other);
  play(Script{.reply = somePolicies(2)}, {}, server);
  writeCertificate(other, directory() / "other.pem");
  store_test::writeText(directory() / "ca.pem", store_test::readText(directory() / "ca.pem") + "some words\n" +
                                                    store_test::readText(directory() / "other.pem"));
  EXPECT_EQ(0, Q7_GetPolicyInfoFromKMS()) << log();
}

TEST_F(KmsConnectionTest, CertificateForAnotherUse) {
  usePolicies();
  const Identity& authority = Authority::instance().authority;
  const Identity client = issue({.name = "server", .alternative = "IP:127.0.0.1", .usage = "clientAuth"}, &authority);
  play(Script{.reply = somePolicies(1)}, {}, client);
  expectRefused({"its certificate is not accepted"});
}

TEST_F(KmsConnectionTest, HostByItsName) {
  Peer& peer = play(somePolicies(2));
  configure(peer.port(), {}, "localhost");
  EXPECT_EQ(0, Q7_GetPolicyInfoFromKMS()) << log();
}

TEST_F(KmsConnectionTest, ForeignClientCertificate) {
  usePolicies();
  const Identity foreign = issue({.name = "test authority", .alternative = "", .authority = true});
  play(Script{.reply = somePolicies(1)}, {}, Authority::instance().server, foreign);
  expectRefused({"127.0.0.1"});
  EXPECT_EQ(0, peer_->requests());
}

TEST_F(KmsConnectionTest, FilesThatAreMissingOrNotWhatTheyShouldBe) {
  usePolicies();
  Peer& peer = play(somePolicies(1));
  const auto broken = [&](const char* file, const std::string& text, const std::vector<std::string>& words) {
    configure(peer.port());
    if (text.empty()) {
      fs::remove(directory() / file);
    } else {
      store_test::writeText(directory() / file, text);
    }
    expectRefused(words);
  };
  for (const char* file : {"ca.pem", "client.pem", "client.key"}) {
    broken(file, "", {file, "missing"});
  }
  broken("ca.pem", "nothing\n", {"ca.pem", "no certificate"});
  broken("client.pem", "nothing\n", {"client.pem", "no certificate"});
  broken("client.key", "nothing\n", {"client.key", "no private key"});
  for (const char* file : {"ca.pem", "client.pem", "client.key"}) {
    broken(file, "\n", {file, "holds no"});
    configure(peer.port());
    fs::resize_file(directory() / file, 0);
    expectRefused({file, "holds no"});
  }
  // Damaged behind a whole one: what follows must not be left out in silence.
  for (const char* file : {"ca.pem", "client.pem"}) {
    const std::string whole = store_test::readText(directory() / file);
    broken(file, whole + whole.substr(0, whole.size() / 2), {file, "damaged certificate"});
    std::string changed = whole;
    changed[changed.size() / 2] = '!';
    broken(file, whole + changed + whole, {file, "damaged certificate"});
  }
  Identity other = Authority::instance().server;
  for (int i = 0; i < 2; ++i) {
    configure(peer.port());
    writeKey(other, directory() / "client.key");
    expectRefused({"client.key", "not the private key of the certificate"});
    other.key.reset(EVP_RSA_gen(2048), EVP_PKEY_free);  // of another algorithm than the certificate's
  }
  configure(peer.port());
  fs::permissions(directory() / "client.key", fs::perms::owner_all | fs::perms::group_read);
  expectRefused({"client.key", "open to other users"});
  configure(peer.port());
  EXPECT_EQ(0, peer.connections());
  EXPECT_EQ(0, Q7_GetPolicyInfoFromKMS()) << log();
}

// A key with a password would make OpenSSL ask for it at the terminal.
TEST_F(KmsConnectionTest, KeyWithAPassword) {
  usePolicies();
  Peer& peer = play(somePolicies(1));
  configure(peer.port());
  FILE* file = std::fopen((directory() / "client.key").c_str(), "w");
  ASSERT_NE(nullptr, file);
  const unsigned char password[] = "secret";
  ASSERT_EQ(1, PEM_write_PrivateKey(file, Authority::instance().client.key.get(), EVP_aes_256_cbc(), password, 6,
                                    nullptr, nullptr));
  std::fclose(file);
  expectRefused({"client.key", "without a password"});
}

TEST_F(KmsConnectionTest, OldTls) {
  usePolicies();
  play(Script{.reply = somePolicies(1), .newestTls = TLS1_1_VERSION});
  expectRefused({"TLS failed"});
  play(Script{.reply = somePolicies(1), .newestTls = TLS1_2_VERSION});
  EXPECT_EQ(0, Q7_GetPolicyInfoFromKMS()) << log();
}

// A server that is too old for one reason is mostly too old for another as well, so the limits are asked for.
TEST_F(KmsConnectionTest, TlsIsSetUpStrictly) {
  configure(1);
  const auto made = engine::kms::makeTlsContext(settings());
  ASSERT_TRUE(made.ok()) << made.error().text;
  SSL_CTX* context = made.value().get();
  EXPECT_EQ(TLS1_2_VERSION, SSL_CTX_get_min_proto_version(context));
  EXPECT_EQ(0, SSL_CTX_get_max_proto_version(context)) << "the newest is not left out";
  EXPECT_EQ(SSL_VERIFY_PEER, SSL_CTX_get_verify_mode(context));
  EXPECT_EQ(0u, SSL_CTX_get_mode(context) & SSL_MODE_AUTO_RETRY) << "a read may go on behind its limit";
  EXPECT_NE(0u, SSL_CTX_get_options(context) & SSL_OP_CLEANSE_PLAINTEXT);
}

// What a host's certificate must be issued for: "IP ADDRESS" or "DNS NAME", and the name that the server is told.
std::string expectedOf(const std::string& host) {
  const std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> context(SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
  const std::unique_ptr<SSL, void (*)(SSL*)> ssl(SSL_new(context.get()), SSL_free);
  EXPECT_TRUE(engine::kms::expectHost(ssl.get(), host));
  const auto text = [](const char* name) { return std::string(name == nullptr ? "" : name); };
  const std::unique_ptr<char, void (*)(char*)> address(X509_VERIFY_PARAM_get1_ip_asc(SSL_get0_param(ssl.get())),
                                                       [](char* memory) { OPENSSL_free(memory); });
  return (address == nullptr ? "DNS " + text(X509_VERIFY_PARAM_get0_host(SSL_get0_param(ssl.get()), 0))
                             : "IP " + text(address.get())) +
         " told " + text(SSL_get_servername(ssl.get(), TLSEXT_NAMETYPE_host_name));
}

TEST_F(KmsConnectionTest, NamesAndAddressesAreCheckedAsSuch) {
  EXPECT_EQ("DNS kms.example told kms.example", expectedOf("kms.example"));
  EXPECT_EQ("IP 192.0.2.7 told ", expectedOf("192.0.2.7"));
  EXPECT_EQ("IP 2001:DB8:0:0:0:0:0:1 told ", expectedOf("2001:db8::1"));
  EXPECT_EQ("DNS 192.0.2 told 192.0.2", expectedOf("192.0.2")) << "no address in full";
}

// What the process must not notice

std::atomic<int> pipeSignals{0};

TEST_F(KmsConnectionTest, AClosedConnectionRaisesNoSignal) {
  struct sigaction count = {};
  struct sigaction before = {};
  count.sa_handler = [](int) { ++pipeSignals; };
  ASSERT_EQ(0, sigaction(SIGPIPE, &count, &before));
  Peer& peer = play(Script{.reply = somePolicies(1), .closeAfterReply = true});
  configure(peer.port());
  auto client = engine::kms::Client::connect(settings());
  ASSERT_TRUE(client.ok()) << client.error().text;
  for (int i = 0; i < 5; ++i) {
    EXPECT_FALSE(client.value().locate(1).ok());
  }
  sigaction(SIGPIPE, &before, nullptr);
  EXPECT_EQ(0, pipeSignals);
}

TEST_F(KmsConnectionTest, LeavesNoOpenSslErrorsAndNoDescriptors) {
  const auto descriptors = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  usePolicies();
  const Identity foreign = issue({.name = "other", .alternative = "", .authority = true});
  const auto fail = [&](int times) {
    play(Script{.reply = somePolicies(1)}, {}, foreign);
    for (int i = 0; i < times; ++i) {
      EXPECT_EQ(-1, Q7_GetPolicyInfoFromKMS());
      EXPECT_EQ(0u, ERR_peek_error());
    }
    peer_.reset();
  };
  // Descriptors are counted while there is no peer, whose own ends come and go. The first failure opens the log.
  fail(1);
  const auto before = descriptors();
  fail(3);
  EXPECT_EQ(before, descriptors());
  play(somePolicies(1));
  EXPECT_EQ(0, Q7_GetPolicyInfoFromKMS());
  EXPECT_EQ(0u, ERR_peek_error());
}

// A program that the database server starts must not get hold of the connection.
TEST_F(KmsConnectionTest, IsClosedInProgramsThatAreStarted) {
  const auto inherited = [] {
    int count = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
      const int flags = fcntl(std::stoi(entry.path().filename()), F_GETFD);
      count += flags >= 0 && (flags & FD_CLOEXEC) == 0;
    }
    return count;
  };
  play(somePolicies(1));
  const int before = inherited();
  const auto client = engine::kms::Client::connect(settings());
  ASSERT_TRUE(client.ok()) << client.error().text;
  EXPECT_EQ(before, inherited());
}

// Other statements go on while the server is waited for: here one that the server itself waits for.
TEST_F(KmsConnectionTest, OtherOperationsRunDuringAFetch) {
  const Keys keys = somePolicies(2);
  std::atomic<int> reloads{0};
  play(Script{.reply = [&, keys](const Wire& request) {
    reloads += Q7_ReloadAllInfoIfChanged() == 0 && Q7_SavePolicyInfo() == 0 && kezuInitialize(1, nullptr, nullptr) == 0;
    return keys(request);
  }});
  EXPECT_EQ(0, Q7_GetPolicyInfoFromKMS()) << log();
  EXPECT_EQ(3, reloads);
}

TEST_F(KmsConnectionTest, AModeThatChangesDuringAFetchWins) {
  usePolicies();
  const Keys keys = somePolicies(2);
  play(Script{.reply = [keys](const Wire& request) {
    kezu::publish(g_kmsMode, Q7_CACHED_KMS_MODE);
    return keys(request);
  }});
  expectRefused({"mode was changed in the meantime"});
}

// What kezu_conf_set_kms_mode() does, at every moment of a fetch: no policy is in use afterwards.
TEST_F(KmsConnectionTest, SwitchingOffDuringAFetchLeavesNoPolicies) {
  const Keys keys = somePolicies(2);
  std::atomic<bool> answered{false};
  play(Script{.reply = [&, keys](const Wire& request) {
    const Wire reply = keys(request);
    answered = operationsOf(request).size() > 1;
    return reply;
  }});
  int refused = 0;
  for (int i = 0; i < 150; ++i) {
    g_kmsMode = Q7_ONLY_KMS_MODE;
    answered = false;
    std::thread administrator([&] {
      while (!answered) {
        std::this_thread::yield();
      }
      const auto until = std::chrono::steady_clock::now() + i * 10us;
      while (std::chrono::steady_clock::now() < until) {
      }
      const kezu::ConfigurationChange change;
      kezu::publish(g_kmsMode, Q7_NO_KMS_MODE);
      const int slot = kezu::observe(g_encPolicyArray_flag);
      kezu::publish(g_numberOfEncPolicy[slot], 0);
    });
    refused += Q7_GetPolicyInfoFromKMS() != 0;
    administrator.join();
    ASSERT_TRUE(names().empty()) << "after " << i;
  }
  EXPECT_GT(refused, 0);
}

// Several statements at once, each of them whole: what is in use comes from one fetch.
TEST_F(KmsConnectionTest, FetchesReloadsAndSavesAtOnce) {
  std::atomic<int> fetch{0};
  Keys keys = somePolicies(7);
  play(Script{.reply = [&, keys](const Wire& request) mutable {
    if (operationsOf(request).size() > 1) {
      for (Key& key : keys.keys) key.name = fmt::format("f{}", fetch.load());
      for (std::size_t i = 0; i < keys.keys.size(); ++i) keys.keys[i].name += fmt::format("p{}", i);
      ++fetch;
    }
    return keys(request);
  }});
  ASSERT_EQ(0, Q7_GetPolicyInfoFromKMS()) << log();
  std::atomic<bool> done{false};
  std::atomic<int> failed{0};
  std::vector<std::thread> others;
  others.emplace_back([&] {
    while (!done) {
      utimensat(AT_FDCWD, (directory() / "policy.kz").c_str(), nullptr, 0);
      failed += Q7_ReloadAllInfoIfChanged() != 0;
      failed += Q7_LoadPolicyInfo("") != 0;
    }
  });
  others.emplace_back([&] {
    while (!done) compareLocalAndKMSPolicy();
  });
  std::vector<std::thread> fetchers;
  for (int i = 0; i < 2; ++i) {
    fetchers.emplace_back([&] {
      for (int n = 0; n < 20; ++n) failed += Q7_GetPolicyInfoFromKMS() != 0;
    });
  }
  for (std::thread& one : fetchers) one.join();
  done = true;
  for (std::thread& one : others) one.join();
  EXPECT_EQ(0, failed) << log();
  const auto all = names();
  ASSERT_EQ(7u, all.size());
  for (std::size_t i = 0; i < all.size(); ++i) {
    EXPECT_EQ(all[0].substr(0, all[0].find('p')) + fmt::format("p{}", i), all[i]);
  }
}

TEST_F(KmsConnectionTest, TheNewerOfTwoFetchesStays) {
  const Keys older = somePolicies(1);
  const Keys newer = somePolicies(3);
  std::atomic<int> fetches{0};
  Peer second;
  second.start(Script{.reply = newer}, Authority::instance().server, Authority::instance().authority);
  play(Script{.reply = [&, older](const Wire& request) {
    if (operationsOf(request).size() > 1 && fetches++ == 0) {
      configure(second.port());
      EXPECT_EQ(0, Q7_GetPolicyInfoFromKMS()) << log();
    }
    return older(request);
  }});
  EXPECT_EQ(0, Q7_GetPolicyInfoFromKMS()) << log();
  EXPECT_EQ(3u, names().size());
}

}  // namespace
}  // namespace kms_test
