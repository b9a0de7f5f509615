// SPDX-License-Identifier: Apache-2.0
//
// What the memory of a server's process tells about keys that are gone, and what of it a core dump takes along.
#include <fcntl.h>
#include <openssl/aes.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <functional>
#include <semaphore>
#include <sstream>
#include <thread>
#include <vector>

#include "cipher/kdf.h"
#include "fault/engine_fixture.h"

namespace fault {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kValue = "a value to encrypt";

// What must not be found: a name for messages, and bytes.
struct Secret {
  std::string name;
  std::string bytes;
};

std::string derived(const std::string& columnKey, std::string_view label, std::size_t size) {
  std::string key(size, '\0');
  const auto* from = reinterpret_cast<const unsigned char*>(columnKey.data());
  EXPECT_TRUE(
      cipher::hkdfSha256({reinterpret_cast<unsigned char*>(key.data()), size}, {from, columnKey.size()}, label));
  return key;
}

AES_KEY scheduleOf(const std::string& key) {
  AES_KEY schedule;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  EXPECT_EQ(0, AES_set_encrypt_key(reinterpret_cast<const unsigned char*>(key.data()), 256, &schedule));
#pragma GCC diagnostic pop
  return schedule;
}

// Round keys 2 to 4 of an AES key (the first two are the key itself), in the standard's byte order and in that of
// little-endian words.
std::vector<Secret> roundKeys(const std::string& key) {
  std::vector<Secret> found;
  const AES_KEY schedule = scheduleOf(key);
  const auto* words = reinterpret_cast<const std::uint32_t*>(schedule.rd_key);
  for (const int round : {2, 3, 14}) {
    std::string asStored(reinterpret_cast<const char*>(words + 4 * round), 16);
    std::string swapped = asStored;
    for (std::size_t word = 0; word < 16; word += 4) {
      std::swap(swapped[word], swapped[word + 3]);
      std::swap(swapped[word + 1], swapped[word + 2]);
    }
    found.push_back({"round key " + std::to_string(round), std::move(asStored)});
    found.push_back({"round key " + std::to_string(round) + " in words", std::move(swapped)});
  }
  return found;
}

// The key of GCM's hash, with which tags can be forged: a block of zeros, encrypted; in the standard's byte order and
// in that of two little-endian words.
std::vector<Secret> hashKeys(const std::string& key) {
  const AES_KEY schedule = scheduleOf(key);
  unsigned char block[16] = {};
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  AES_encrypt(block, block, &schedule);
#pragma GCC diagnostic pop
  const std::string standard(reinterpret_cast<const char*>(block), sizeof block);
  std::string swapped(standard.rbegin(), standard.rend());
  std::rotate(swapped.begin(), swapped.begin() + 8, swapped.end());
  return {{"hash key", standard}, {"hash key in words", swapped}};
}

// All that a column key becomes. The labels are those of docs/ciphertext.md.
std::vector<Secret> secretsOf(const std::string& columnKey) {
  std::vector<Secret> secrets = {{"column key", columnKey},
                                 {"cipher key", derived(columnKey, "orvanta cipher key", 32)},
                                 {"iv key", derived(columnKey, "orvanta iv key", 32)},
                                 {"hmac key", derived(columnKey, "orvanta hmac key", 32)},
                                 {"tag key", derived(columnKey, "orvanta tag key", 32)}};
  for (const auto& made : {roundKeys(secrets[1].bytes), hashKeys(secrets[1].bytes)}) {
    secrets.insert(secrets.end(), made.begin(), made.end());
  }
  return secrets;
}

struct Mapping {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
  std::string description;
  std::string flags;  // of two letters each, with a space on both sides (proc(5), VmFlags of smaps)

  [[nodiscard]] bool has(const std::string& flag) const { return flags.find(" " + flag + " ") != std::string::npos; }
};

std::vector<Mapping> mappingsOf(pid_t process) {
  const std::string kFlags = "VmFlags:";
  std::vector<Mapping> mappings;
  std::ifstream smaps("/proc/" + std::to_string(process) + "/smaps");
  for (std::string line; std::getline(smaps, line);) {
    Mapping mapping;
    if (std::sscanf(line.c_str(), "%lx-%lx ", &mapping.begin, &mapping.end) == 2) {
      mapping.description = line;
      mappings.push_back(mapping);
    } else if (line.rfind(kFlags, 0) == 0) {
      mappings.back().flags = line.substr(kFlags.size()) + " ";
    }
  }
  return mappings;
}

// Which mappings are searched: all that can be read, or those of them that a core dump takes along.
enum class Where { everywhere, dumped };

// The secrets whose first 16 bytes stand anywhere in the memory of a process that stands still, each with the place.
std::vector<std::string> found(pid_t process, const std::vector<Secret>& secrets, Where where = Where::everywhere) {
  std::vector<std::string> places;
  const int memory = open(("/proc/" + std::to_string(process) + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_GE(memory, 0);
  constexpr std::size_t kOverlap = 64;
  std::string chunk(std::size_t{8} << 20, '\0');
  for (const Mapping& mapping : mappingsOf(process)) {
    if (!mapping.has("rd") || (where == Where::dumped && mapping.has("dd"))) {
      continue;
    }
    for (std::uint64_t at = mapping.begin; at < mapping.end;) {
      const std::size_t wanted = std::min<std::uint64_t>(chunk.size(), mapping.end - at);
      const ssize_t got = pread(memory, chunk.data(), wanted, static_cast<off_t>(at));
      if (got <= 0) {
        break;  // a mapping without pages behind it, as the kernel has
      }
      const std::string_view bytes(chunk.data(), static_cast<std::size_t>(got));
      for (const Secret& secret : secrets) {
        if (const std::size_t place = bytes.find(secret.bytes.substr(0, 16)); place != std::string_view::npos) {
          std::ostringstream text;
          text << secret.name << " at " << std::hex << at + place << " in " << mapping.description;
          places.push_back(text.str());
        }
      }
      const auto read = static_cast<std::size_t>(got);
      at += read > kOverlap && at + read < mapping.end ? read - kOverlap : read;
    }
  }
  close(memory);
  return places;
}

// A server's process that takes steps when it is told to. Secrets are learnt from it without a copy of them in it: it
// writes the column key from the table itself.
class Server {
 public:
  explicit Server(const std::function<void(Server&)>& life) {
    EXPECT_EQ(0, pipe(toServer_.data()));
    EXPECT_EQ(0, pipe(fromServer_.data()));
    process_ = fork();
    if (process_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      close(toServer_[1]);
      close(fromServer_[0]);
      life(*this);
      _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    close(toServer_[0]);
    close(fromServer_[1]);
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  ~Server() {
    if (!ended_) {
      kill(process_, SIGKILL);
      waitpid(process_, nullptr, 0);
    }
    close(toServer_[1]);
    close(fromServer_[0]);
  }

  // In the server: says that a step is done, with `size` bytes, and waits for the next to be asked for.
  void stepDone(const void* bytes = "", std::size_t size = 1) {
    EXPECT_EQ(static_cast<ssize_t>(size), write(fromServer_[1], bytes, size));
    char next = 0;
    EXPECT_EQ(1, read(toServer_[0], &next, 1));
  }

  // In the test: waits for a step and returns its bytes. The server then stands still until goOn().
  std::string awaitStep(std::size_t size = 1) {
    std::string bytes(size, '\0');
    EXPECT_EQ(static_cast<ssize_t>(size), read(fromServer_[0], bytes.data(), size));
    return bytes;
  }
  void goOn() { EXPECT_EQ(1, write(toServer_[1], "", 1)); }

  // In the test: the end of the process, as waitpid() gives it.
  int end() {
    int status = 0;
    waitpid(process_, &status, 0);
    ended_ = true;
    return status;
  }

  pid_t process() const { return process_; }

 private:
  std::array<int, 2> toServer_ = {};
  std::array<int, 2> fromServer_ = {};
  pid_t process_ = 0;
  bool ended_ = false;
};

// Runs a statement with so much stack above it that what the thread does afterwards does not reach its frames.
[[gnu::noinline]] void runBelow(const std::function<void()>& statement) {
  volatile char room[16384];
  room[0] = 0;
  statement();
  EXPECT_EQ(0, room[0]);
}

// Runs a statement on a connection of its own, whose thread stands still then until the process ends: nothing comes
// over what the statement left on the stack.
void onItsOwnConnection(const std::function<void()>& statement) {
  std::binary_semaphore done(0);
  std::thread([&] {
    runBelow(statement);
    done.release();
    while (true) {
      pause();
    }
  }).detach();
  done.acquire();
}

// Uses the policy in every way there is, so that every key of it was prepared.
void use(std::string_view policy) {
  std::string encrypted;
  onItsOwnConnection([&] {
    encrypted = row(data_process_po_ed, SqlArguments().text(policy).number(0).text(kValue)).value_or("");
    EXPECT_FALSE(encrypted.empty());
  });
  onItsOwnConnection(
      [&] { EXPECT_EQ(kValue, row(data_process_po_ed, SqlArguments().text(policy).number(1).text(encrypted))); });
  for (const char* algorithm : {"SHA1", "SHA256", "SHA512", "HAS160"}) {
    onItsOwnConnection(
        [&] { EXPECT_NE("", row(hmac_b64_data, SqlArguments().text(kValue).text(policy).text(algorithm))); });
  }
}

constexpr int kCbc = 1;
constexpr int kGcm = 5;
constexpr int kCbcHmac = 8;

// The policy "gone" in each of these modes, one after the other: made, used, and told to the test.
void makeAndUse(int blockMode) {
  onItsOwnConnection([blockMode] {
    SqlArguments create = createPolicy("gone", 2, blockMode == kCbc ? 0 : 1, blockMode);
    EXPECT_EQ(1, row(kezu_conf_set_policy, create));
  });
  use("gone");
}

const Q7EncPolicyInfo& lastPolicy() {
  return g_encPolicyArray[g_encPolicyArray_flag][g_numberOfEncPolicy[g_encPolicyArray_flag] - 1];
}

constexpr std::size_t kDrawnKey = 32;

std::string listed(const std::vector<std::string>& places) {
  std::string text;
  for (const std::string& place : places) {
    text += place + "\n";
  }
  return text;
}

// That the search finds a policy's keys while they are in use: each of them, and what a cipher made of one.
void expectFound(const std::vector<std::string>& places, int blockMode) {
  for (const char* name : {"column key at", "cipher key at", "iv key at", "hmac key at", "tag key at"}) {
    EXPECT_NE(std::string::npos, listed(places).find(name)) << name << " is not among\n" << listed(places);
  }
  // Without AES instructions OpenSSL keeps round keys in a form of its own.
  if (Check_CPU_support_AES() != 0) {
    EXPECT_NE(std::string::npos, listed(places).find("round key 2 ")) << listed(places);
  }
  if (blockMode == kGcm) {
    EXPECT_NE(std::string::npos, listed(places).find("hash key ")) << listed(places);
  }
}

class MemoryImageTest : public store_test::StoreTest, public ::testing::WithParamInterface<int> {};

// Lets the server, which has shown its secrets, take its last step: they are nowhere then.
void expectGoneInTheEnd(Server& server, const std::vector<Secret>& secrets) {
  server.goOn();
  server.awaitStep();
  EXPECT_EQ("", listed(found(server.process(), secrets)));
  server.goOn();
  EXPECT_EQ(0, server.end());
}

TEST_P(MemoryImageTest, ADeletedPolicysKeyIsGoneOnceItsSlotIsReused) {
  Server server([&](Server& self) {
    startWithSession(home());
    makeAndUse(GetParam());
    self.stepDone(lastPolicy().columnKey, kDrawnKey);
    onItsOwnConnection([] { EXPECT_EQ(3, row(kezu_conf_set_policy, inSession().text("gone"))); });
    // Each change moves to the next slot: after these, every slot was written anew.
    SqlArguments other = createPolicy("other", 2, 1, kGcm);
    EXPECT_EQ(1, row(kezu_conf_set_policy, other));
    for (int i = 0; i < kPolicySlots; ++i) {
      const std::string name = "p" + std::to_string(i);
      SqlArguments more = createPolicy(name, 2, 1, kGcm);
      EXPECT_EQ(1, row(kezu_conf_set_policy, more));
    }
    use("other");
    self.stepDone();
  });
  const std::vector<Secret> secrets = secretsOf(server.awaitStep(kDrawnKey));
  expectFound(found(server.process(), secrets), GetParam());
  expectGoneInTheEnd(server, secrets);
}

TEST_P(MemoryImageTest, TheKeysAreGoneAsSoonAsTheModeIsSwitchedOff) {
  Server server([&](Server& self) {
    startWithSession(home());
    makeAndUse(GetParam());
    self.stepDone(lastPolicy().columnKey, kDrawnKey);
    // Copies in other slots, also in one that was filled and never published.
    SqlArguments other = createPolicy("other", 2, 1, kGcm);
    onItsOwnConnection([&other] { EXPECT_EQ(1, row(kezu_conf_set_policy, other)); });
    use("gone");
    SqlArguments refused = createPolicy("refused", 16, 1, kGcm);
    EXPECT_EQ(0, row(kezu_conf_set_policy, refused));
    EXPECT_EQ(1, row(kezu_conf_set_kms_mode, inSession().number(Q7_NO_KMS_MODE)));
    self.stepDone();
  });
  const std::vector<Secret> secrets = secretsOf(server.awaitStep(kDrawnKey));
  expectFound(found(server.process(), secrets), GetParam());
  expectGoneInTheEnd(server, secrets);
}

TEST_P(MemoryImageTest, TheKeysAreGoneWhenAnotherServerDiscardedThePolicies) {
  Server server([&](Server& self) {
    startWithSession(home());
    makeAndUse(GetParam());
    self.stepDone(lastPolicy().columnKey, kDrawnKey);
    EXPECT_EQ(0, Q7_ReloadAllInfoIfChanged());
    EXPECT_EQ(0, g_numberOfEncPolicy[g_encPolicyArray_flag]);
    self.stepDone();
  });
  const std::vector<Secret> secrets = secretsOf(server.awaitStep(kDrawnKey));
  expectFound(found(server.process(), secrets), GetParam());
  EXPECT_EQ(0, store_test::inChild([&] {
              auto store = store_test::loadStore(home());
              g_numberOfEncPolicy[g_encPolicyArray_flag] = 0;
              return store->save(store_test::TableId::policy).ok() ? 0 : 1;
            }));
  expectGoneInTheEnd(server, secrets);
}

// Each operation on a connection of its own, with little behind it that would come over its stack.
TEST_P(MemoryImageTest, NoOperationLeavesAKeyOnTheStack) {
  Server server([&](Server& self) {
    startWithSession(home());
    Q7EncPolicyInfo policy = {};
    BCipherKey key = nullptr;
    BCipherKey copy = nullptr;
    int done = 0;
    onItsOwnConnection([&] {
      done = Q7_AddPolicyInfo(policy, &key, "gone", 2, GetParam() == kCbc ? 0 : 1, nullptr, 0xFFFFFFFF, 0, 0,
                              GetParam(), 0, "");
    });
    EXPECT_NE(0, done);
    onItsOwnConnection([&] { copy = BCIPHER_DupKey(key); });
    const auto* text = reinterpret_cast<const unsigned char*>(kValue.data());
    constexpr unsigned int kSize = kValue.size();
    unsigned char value[100];
    unsigned int size = sizeof value;
    onItsOwnConnection([&] { done = Q7_EncryptBinaryExt(value, &size, text, kSize, &policy, key); });
    EXPECT_EQ(0, done);
    unsigned char clear[100];
    unsigned int clearSize = sizeof clear;
    onItsOwnConnection([&] { done = Q7_DecryptBinaryExt(clear, &clearSize, value, size, &policy, copy); });
    EXPECT_EQ(0, done);
    unsigned char digest[64];
    unsigned int digestSize = sizeof digest;
    onItsOwnConnection([&] { done = kezuHmacBinary(digest, &digestSize, text, kSize, kHashSha256, &policy); });
    EXPECT_EQ(0, done);
    self.stepDone(policy.columnKey, kDrawnKey);
    for (const BCipherKey handle : {key, copy}) {
      BCIPHER_WipeKey(handle);
      BCIPHER_DelKey(handle);
    }
    kezu::clearRecord(policy);
    self.stepDone();
  });
  const std::vector<Secret> secrets = secretsOf(server.awaitStep(kDrawnKey));
  EXPECT_NE("", listed(found(server.process(), secrets)));
  expectGoneInTheEnd(server, secrets);
}

INSTANTIATE_TEST_SUITE_P(BlockModes, MemoryImageTest, ::testing::Values(kCbc, kGcm, kCbcHmac));

class ClearTextTest : public store_test::StoreTest {};

// One that is not printable is put through decryption again and again. Neither its number of layers nor the empty
// result of the last round is the text, so nothing of it is left.
TEST_F(ClearTextTest, IsGoneAfterPeelingThatCameToNothing) {
  constexpr std::size_t kSize = 3000;
  Server server([&](Server& self) {
    startWithSession(home());
    SqlArguments create = createPolicy("p", 2, 1, kGcm);
    EXPECT_EQ(1, row(kezu_conf_set_policy, create));
    std::array<unsigned char, kSize> clear;
    EXPECT_TRUE(cipher::randomBytes(clear));
    clear[0] = 0x80;
    const std::string_view text(reinterpret_cast<const char*>(clear.data()), kSize);
    const auto encrypted = row(data_process_po_ed, SqlArguments().text("p").number(0).text(text)).value_or("");
    self.stepDone(clear.data(), kSize);
    OPENSSL_cleanse(clear.data(), kSize);
    std::optional<long long> layers;
    onItsOwnConnection([&] { layers = row(data_process_ed_check_int, SqlArguments().text("p").text(encrypted)); });
    EXPECT_EQ(-1, layers);
    std::optional<std::string> result;
    onItsOwnConnection([&] { result = row(data_process_ed_check_str, SqlArguments().text("p").text(encrypted)); });
    EXPECT_EQ("", result);
    self.stepDone();
  });
  const std::string clear = server.awaitStep(kSize);
  const std::vector<Secret> secrets = {
      {"beginning", clear.substr(0, 16)}, {"middle", clear.substr(1500, 16)}, {"end", clear.substr(kSize - 16)}};
  EXPECT_NE("", listed(found(server.process(), secrets)));
  expectGoneInTheEnd(server, secrets);
}

class EncryptedTextTest : public store_test::StoreTest, public ::testing::WithParamInterface<std::tuple<int, int>> {};

// Of a text short enough to be put together with its padding first, and of one that is not.
TEST_P(EncryptedTextTest, IsNowhereElse) {
  const auto [ivMode, blockMode] = GetParam();
  for (const std::size_t size : {std::size_t{100}, std::size_t{1000}}) {
    Server server([&, ivMode = ivMode, blockMode = blockMode](Server& self) {
      startWithSession(home());
      addPolicyWithKey("p", ivMode, blockMode, 'k');
      std::array<unsigned char, 1000> clear;
      EXPECT_TRUE(cipher::randomBytes(clear));
      const std::string_view text(reinterpret_cast<const char*>(clear.data()), size);
      std::optional<std::string> encrypted;
      // The first calls have the dynamic linker look for functions, which saves the processor's registers on the stack.
      encrypted = row(data_process_po_ed, SqlArguments().text("p").number(0).text(std::string(size, 'x')));
      onItsOwnConnection([&] { encrypted = row(data_process_po_ed, SqlArguments().text("p").number(0).text(text)); });
      EXPECT_LT(size, encrypted.value_or("").size());
      self.stepDone(clear.data(), clear.size());
      OPENSSL_cleanse(clear.data(), clear.size());
      self.stepDone();
    });
    const std::string clear = server.awaitStep(1000);
    std::vector<Secret> secrets;
    for (std::size_t at = 0; at + 16 <= size; at += 4) {
      secrets.push_back({"text from byte " + std::to_string(at), clear.substr(at, 16)});
    }
    EXPECT_NE("", listed(found(server.process(), {secrets.front()})));
    expectGoneInTheEnd(server, secrets);
  }
}

INSTANTIATE_TEST_SUITE_P(Modes, EncryptedTextTest,
                         ::testing::Combine(::testing::Values(0, 1), ::testing::Values(kCbc, kGcm, kCbcHmac)));

class CoreDumpTest : public store_test::StoreTest {};

// Whether the page that `address` lies on has the flag.
bool hasMappingFlag(const void* address, const std::string& flag) {
  const auto wanted = reinterpret_cast<std::uint64_t>(address);
  for (const Mapping& mapping : mappingsOf(getpid())) {
    if (mapping.begin <= wanted && wanted < mapping.end) {
      return mapping.has(flag);
    }
  }
  return false;
}

TEST_F(CoreDumpTest, TablesWithSecretsAreMarkedToBeLeftOut) {
  EXPECT_EQ(0, store_test::inChild([&] {
              startWithSession(home());
              makeAndUse(kGcm);
              const char* policies = reinterpret_cast<const char*>(&g_encPolicyArray);
              const char* users = reinterpret_cast<const char*>(&g_userInfo);
              EXPECT_TRUE(hasMappingFlag(policies, "dd"));
              EXPECT_TRUE(hasMappingFlag(policies + sizeof g_encPolicyArray - 1, "dd"));
              EXPECT_TRUE(hasMappingFlag(users, "dd"));
              EXPECT_TRUE(hasMappingFlag(users + sizeof g_userInfo - 1, "dd"));
              const BCipherKey key = g_makeKeyArray[g_encPolicyArray_flag][0];
              EXPECT_TRUE(hasMappingFlag(key, "dd"));
              EXPECT_TRUE(hasMappingFlag(key->keyMat + key->keyMatLen - 1, "dd"));
              // Nothing else goes with them.
              EXPECT_FALSE(hasMappingFlag(&g_makeKeyArray, "dd"));
              EXPECT_FALSE(hasMappingFlag(&g_encColumnInfoArray, "dd"));
              const auto store = store_test::openStore(home());
              EXPECT_TRUE(hasMappingFlag(&store->keys(store_test::TableId::policy), "dd"));
              EXPECT_TRUE(hasMappingFlag(store.get() + 1, "dd") ||
                          reinterpret_cast<std::uintptr_t>(store.get() + 1) % 4096 == 0);
              return 0;
            }));
}

// The password value as a random text that nothing but the table holds.
void changePassword() {
  char text[] = "0123456789abcdef0123456789abcdef";
  unsigned char bytes[16];
  ASSERT_TRUE(cipher::randomBytes(bytes));
  for (std::size_t i = 0; i < 32; ++i) {
    text[i] = static_cast<char>('a' + (bytes[i / 2] >> (i % 2 * 4)) % 16);
  }
  EXPECT_EQ(2, row(kezu_conf_set_passwd, inSession().text({text, 32})));
  OPENSSL_cleanse(text, sizeof text);
}

// Looks at what the kernel would write rather than at a core file, which a machine may send elsewhere or forbid.
TEST_F(CoreDumpTest, WhatIsDumpedHoldsNoKeyOfTheTables) {
  Server server([&](Server& self) {
    startWithSession(home());
    changePassword();
    self.stepDone(g_userInfo[0].passwd, 32);
    makeAndUse(kGcm);
    self.stepDone(lastPolicy().columnKey, kDrawnKey);
    SqlArguments unused = createPolicy("unused", 2, 1, kGcm);
    EXPECT_EQ(1, row(kezu_conf_set_policy, unused));
    self.stepDone(g_encPolicyArray[g_encPolicyArray_flag][1].columnKey, kDrawnKey);
    std::vector<unsigned char> ordinary(32);
    EXPECT_TRUE(cipher::randomBytes(ordinary));
    self.stepDone(ordinary.data(), ordinary.size());
  });
  // A key that is in use stands in OpenSSL's contexts too, and these are in ordinary memory: of it, the column key
  // only.
  std::vector<Secret> secrets = {{"password", server.awaitStep(32)}};
  server.goOn();
  secrets.push_back({"column key in use", server.awaitStep(kDrawnKey)});
  server.goOn();
  const std::string unused = server.awaitStep(kDrawnKey);
  for (Secret& secret : secretsOf(unused)) {
    secrets.push_back({"unused " + secret.name, secret.bytes});
  }
  engine::store::TableKeys keys;
  const auto master = engine::store::readMasterKeys(engine::store::machineFiles(), home() / "master.key");
  ASSERT_TRUE(master.ok() && engine::store::deriveTableKeys(keys, master.value().current, "policy"));
  secrets.push_back({"key of the policy file", {reinterpret_cast<char*>(keys.seal.bytes), sizeof keys.seal.bytes}});
  server.goOn();
  const std::vector<Secret> ordinary = {{"ordinary memory", server.awaitStep(32)}};
  EXPECT_NE("", listed(found(server.process(), ordinary, Where::dumped)));
  for (const Secret& secret : {secrets.front(), secrets.back()}) {
    EXPECT_NE("", listed(found(server.process(), {secret}))) << secret.name;
  }
  EXPECT_EQ("", listed(found(server.process(), secrets, Where::dumped)));
  server.goOn();
  EXPECT_EQ(0, server.end());
}

}  // namespace
}  // namespace fault
