// SPDX-License-Identifier: Apache-2.0
//
// What is refused as a configuration home, and the engine's start, through the exported operations. Each start happens
// in a process of its own, as an engine starts once.
#include "engine/store/home.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <array>
#include <csignal>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "logw/log_factory.h"
#include "unit/store_fixture.h"

namespace store_test {
namespace {

class StoreHomeTest : public StoreTest {
 protected:
  // Starts the engine on `path`; gives its message, empty when it runs.
  static std::string start(const std::string& path) {
    setenv("KEZU_HOME", path.c_str(), 1);
    char message[kInitMessageSize];
    std::memset(message, '~', sizeof message);
    if (kezuInitialize(1, nullptr, message) == 0) {
      EXPECT_EQ('~', message[0]) << "the message is written on failure only";
      return "";
    }
    EXPECT_LT(strnlen(message, sizeof message), sizeof message);
    return message;
  }

  // How a message shows a path: by its end when it is longer than 36 bytes.
  static std::string shown(const std::string& part) {
    return part.front() != '/' || part.size() <= 36 ? part : "..." + part.substr(part.size() - 33);
  }

  // Expects the start on `path` to fail with a message that has every part.
  static void expectRefused(const std::string& path, const std::vector<std::string>& parts) {
    EXPECT_EQ(0, inChild([&] {
                const std::string message = start(path);
                EXPECT_NE("", message);
                for (const std::string& part : parts) {
                  EXPECT_NE(std::string::npos, message.find(shown(part))) << "'" << part << "' in: " << message;
                }
                EXPECT_EQ(-1, Q7_ReloadAllInfoIfChanged());
                EXPECT_EQ(-1, Q7_SaveColumnInfo());
                return 0;
              }));
  }

  void expectStarts() {
    EXPECT_EQ(0, inChild([&] {
                EXPECT_EQ("", start(home()));
                return 0;
              }));
  }
};

// Servers show the first 80 bytes of a message.
TEST_F(StoreHomeTest, PathAndReasonShowInTheFirst80Bytes) {
  const std::string missing = "/" + std::string(120, 'x') + "/the/home";
  EXPECT_EQ(0, inChild([&] {
              EXPECT_EQ(start(missing).substr(0, 80),
                        "..." + std::string(24, 'x') + "/the/home: the configuration home does not exist; mak");
              return 0;
            }));
  EXPECT_EQ(0, inChild([&] {
              EXPECT_EQ(start("/" + std::string(35, 'y')).substr(0, 40), "/" + std::string(35, 'y') + ": th");
              EXPECT_EQ(start("/" + std::string(36, 'y')).substr(0, 40), "..." + std::string(33, 'y') + ": th");
              return 0;
            }));
}

TEST_F(StoreHomeTest, StartsOnAGoodHome) {
  EXPECT_EQ(0, inChild([&] {
              setenv("KEZU_HOME", home().c_str(), 1);
              char scratch[kInitScratchSize];
              std::memset(scratch, '~', sizeof scratch);
              EXPECT_EQ(0, kezuInitialize(1, scratch, nullptr));
              EXPECT_STREQ("2.3.2.0", scratch);
              EXPECT_EQ(1, g_numberOfUserInfo);
              g_numberOfUserInfo = 0;
              EXPECT_EQ(0, kezuInitialize(1, nullptr, nullptr));
              EXPECT_EQ(0, g_numberOfUserInfo) << "a second start does nothing";
              return 0;
            }));
  EXPECT_FALSE(fs::exists(home() / "log")) << "a start creates nothing";
  EXPECT_FALSE(fs::exists(home() / ".lock"));
}

TEST_F(StoreHomeTest, FirstStartsAtOnceAllSucceed) {
  EXPECT_EQ(0, inChild([&] {
              setenv("KEZU_HOME", home().c_str(), 1);
              std::array<int, 8> results;
              results.fill(-7);
              std::vector<std::thread> threads;
              for (int& result : results) {
                threads.emplace_back([&result] {
                  char scratch[kInitScratchSize];
                  char message[kInitMessageSize];
                  result = kezuInitialize(1, scratch, message);
                  if (result == 0 && g_numberOfUserInfo != 1) {
                    result = -8;  // it said that it runs before it had loaded
                  }
                });
              }
              for (std::thread& thread : threads) {
                thread.join();
              }
              for (const int result : results) {
                EXPECT_EQ(0, result);
              }
              return 0;
            }));
}

TEST_F(StoreHomeTest, AnotherModeIsRefused) {
  EXPECT_EQ(0, inChild([&] {
              setenv("KEZU_HOME", home().c_str(), 1);
              char message[kInitMessageSize] = "";
              for (const unsigned int mode : {0u, 2u, 0xFFFFFFFFu}) {
                EXPECT_NE(0, kezuInitialize(mode, nullptr, message));
                EXPECT_NE(std::string::npos, std::string(message).find(std::to_string(mode)));
              }
              EXPECT_NE(0, kezuInitialize(0, nullptr, nullptr));
              return 0;
            }));
}

TEST_F(StoreHomeTest, ALaterStartSucceeds) {
  EXPECT_EQ(0, inChild([&] {
              fs::rename(file("user"), home() / "away");
              EXPECT_NE("", start(home()));
              fs::rename(home() / "away", file("user"));
              EXPECT_EQ("", start(home()));
              EXPECT_EQ(0, Q7_ReloadAllInfoIfChanged3());
              return 0;
            }));
}

TEST_F(StoreHomeTest, MissingAndEmptyHomes) {
  const fs::path parent = home().parent_path();
  expectRefused(parent / "none", {(parent / "none").string(), "does not exist", "kezu-admin init"});
  EXPECT_FALSE(fs::exists(parent / "none"));
  fs::create_directory(parent / "empty");
  fs::permissions(parent / "empty", fs::perms::owner_all);
  expectRefused(parent / "empty", {"empty/kezu.toml", "missing", "kezu-admin init"});
  EXPECT_TRUE(fs::is_empty(parent / "empty"));
  writeText(parent / "plain", "");
  expectRefused(parent / "plain", {"plain", "is not a directory"});
  expectRefused("relative/home", {"relative/home", "absolute"});
}

TEST_F(StoreHomeTest, TheDefaultHome) {
  unsetenv("KEZU_HOME");
  EXPECT_EQ("/var/lib/kezu", engine::store::configuredHome());
  setenv("KEZU_HOME", "", 1);
  EXPECT_EQ("/var/lib/kezu", engine::store::configuredHome());
  setenv("KEZU_HOME", "/somewhere", 1);
  EXPECT_EQ("/somewhere", engine::store::configuredHome());
}

TEST_F(StoreHomeTest, EveryMissingFileIsNamed) {
  for (const char* name : {"master.key", "policy.kz", "column.kz", "access.kz", "privilege.kz", "querypriv.kz",
                           "tableinfo.kz", "user.kz"}) {
    fs::rename(home() / name, home() / "away");
    expectRefused(home(), {(home() / name).string(), "missing"});
    fs::rename(home() / "away", home() / name);
  }
  expectStarts();
}

TEST_F(StoreHomeTest, OpenPermissionsAreRefused) {
  for (const mode_t mode : {0710u, 0701u, 0750u, 0777u}) {
    chmod(home().c_str(), mode);
    expectRefused(home(), {home().string(), "open to other users", "chmod 700"});
  }
  chmod(home().c_str(), 0700);
  for (const char* name : {"master.key", "policy.kz", "user.kz"}) {
    for (const mode_t mode : {0640u, 0604u, 0660u}) {
      chmod((home() / name).c_str(), mode);
      expectRefused(home(), {(home() / name).string(), "open to other users", "chmod 600"});
    }
    chmod((home() / name).c_str(), 0400);
    expectStarts();
    chmod((home() / name).c_str(), 0600);
  }
}

TEST_F(StoreHomeTest, AHomeOfAnotherUserIsRefused) {
  if (geteuid() != 0) {
    return;  // only root can give files away
  }
  ASSERT_EQ(0, chown(home().c_str(), 65534, 65534));
  expectRefused(home(), {home().string(), "65534", "chown"});
}

TEST_F(StoreHomeTest, AFileInAFilesPlaceIsAFile) {
  fs::remove(file("user"));
  fs::create_directory(file("user"));
  expectRefused(home(), {"user.kz", "is not a regular file"});
  fs::remove(file("user"));
  ASSERT_EQ(0, mkfifo(file("user").c_str(), 0600));
  expectRefused(home(), {"user.kz", "is not a regular file"});
  fs::remove(file("user"));
  fs::create_symlink(file("column"), file("user"));
  expectRefused(home(), {"user.kz", "cannot be opened"});
}

TEST_F(StoreHomeTest, DamageIsNamedWithTheFile) {
  for (const char* name : kTableNames) {
    const std::string good = readText(file(name));
    for (const std::size_t at : {std::size_t{0}, std::size_t{12}, good.size() / 2, good.size() - 1}) {
      std::string bad = good;
      bad[at] = static_cast<char>(bad[at] ^ 0x40);
      writeText(file(name), bad);
      expectRefused(home(), {file(name).string(), "damaged", "kezu-admin verify"});
    }
    for (const std::size_t size : {std::size_t{0}, std::size_t{20}, good.size() - 1}) {
      writeText(file(name), good.substr(0, size));
      expectRefused(home(), {file(name).string()});
    }
    writeText(file(name), good);
  }
  expectStarts();
}

TEST_F(StoreHomeTest, AFileOfAnotherTableOrAnotherHomeIsRefused) {
  const std::string column = readText(file("column"));
  fs::copy_file(file("access"), file("column"), fs::copy_options::overwrite_existing);
  expectRefused(home(), {"column.kz", "another table"});
  writeText(file("column"), column);
  makeHome(home().parent_path() / "foreign", kOtherKeyText);
  fs::copy_file(home().parent_path() / "foreign" / "column.kz", file("column"), fs::copy_options::overwrite_existing);
  expectRefused(home(), {"column.kz", "another master key"});
  writeText(file("column"), column);
  writeText(home() / "master.key", kOtherKeyText);
  expectRefused(home(), {"policy.kz", "another master key"});
}

TEST_F(StoreHomeTest, TheMasterKeyIs64HexadecimalDigits) {
  const std::string digits = std::string(kMasterKeyText).substr(0, 64);
  std::string upper = digits;
  for (char& c : upper) {
    c = static_cast<char>(std::toupper(c));
  }
  for (const std::string& good : {digits, digits + "\n", digits + "\r\n", upper}) {
    writeText(home() / "master.key", good);
    expectStarts();
  }
  for (const std::string& bad : {std::string(), digits.substr(1), digits + "0", digits.substr(1) + "g", " " + digits,
                                 digits + "\n\n\n", std::string(10000, '0')}) {
    writeText(home() / "master.key", bad);
    EXPECT_EQ(0, inChild([&] {
                const std::string message = start(home());
                EXPECT_NE(std::string::npos, message.find("master.key")) << message;
                EXPECT_EQ(std::string::npos, message.find(digits.substr(2, 20))) << "no part of the key is shown";
                return 0;
              }));
  }
}

TEST_F(StoreHomeTest, SettingsAreStrict) {
  const auto refused = [&](const std::string& text, const std::vector<std::string>& parts) {
    writeText(home() / "kezu.toml", text);
    expectRefused(home(), parts);
  };
  refused("\n\n[path]\n", {"kezu.toml", "line 3", "'path'"});
  refused("[paths]\nmaster_key = \"master.key\"\nmaster_kee = \"x\"\n", {"kezu.toml", "line 3", "paths.master_kee"});
  refused("[paths]\nlog = 5\n", {"kezu.toml", "line 2", "paths.log"});
  refused("[paths]\nlog = \"\"\n", {"kezu.toml", "line 2", "paths.log"});
  refused("paths = 1\n", {"kezu.toml", "line 1", "paths"});
  refused("[paths]\nlog = \"a\"\nlog = \"b\"\n", {"kezu.toml", "line 3"});
  refused("[paths\n", {"kezu.toml", "line 1"});
  refused("[\n", {"kezu.toml", "not valid TOML"});
  refused("[]\n", {"kezu.toml", "line 1"});
  refused("[\u03fb\n", {"kezu.toml", "not valid TOML"});
  refused("\u03fb = 1\n", {"kezu.toml", "line 1"});
  refused("\xff\xff\n", {"kezu.toml", "line 1"});
  writeText(home() / "kezu.toml", "");
  expectStarts();
}

TEST_F(StoreHomeTest, SettingsGiveThePaths) {
  const fs::path medium = home().parent_path() / "medium";
  fs::create_directory(medium);
  fs::rename(home() / "master.key", medium / "key");
  writeText(home() / "kezu.toml", "[paths]\nmaster_key = \"" + (medium / "key").string() + "\"\nlog = \"records\"\n");
  EXPECT_EQ(0, inChild([&] {
              EXPECT_EQ("", start(home()));
              EXPECT_NE(0, Q7_GetPolicyInfoFromKMS());
              return 0;
            }));
  EXPECT_TRUE(fs::exists(home() / "records"));
}

TEST_F(StoreHomeTest, MessagesFitHoweverLongThePath) {
  std::string path = home().parent_path();
  for (int i = 0; i < 15; ++i) {
    path += "/" + std::string(200, 'd');
  }
  expectRefused(path, {"...", "does not exist", "kezu-admin init"});
}

// Exported operations on a running engine

std::string logOfToday() {
  char date[16];
  const std::time_t now = std::time(nullptr);
  std::strftime(date, sizeof date, "%Y-%m-%d", std::localtime(&now));
  Log* log = LogFactory::getLogFactory()->getLog(0);
  std::string all;
  for (unsigned int i = 0; i < log->getNumTotalLines(date); ++i) {
    all += log->getLog(date, i) + std::string("\n");
  }
  return all;
}

std::size_t countOf(const std::string& part, const std::string& text) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

TEST_F(StoreHomeTest, SavesReturnTheirCodes) {
  EXPECT_EQ(0, inChild([&] {
              EXPECT_EQ("", start(home()));
              EXPECT_EQ(0, Q7_SavePolicyInfo());
              EXPECT_EQ(0, Q7_SaveColumnInfo());
              EXPECT_EQ(0, Q7_SaveAccessPrivInfo());
              EXPECT_EQ(0, Q7_SaveEncPrivInfo());
              EXPECT_EQ(0, Q7_SaveQueryPrivInfo());
              EXPECT_EQ(0, Q7_SaveTableInfo());
              EXPECT_EQ(0, Q7_SaveUserInfo());
              return 0;
            }));
}

// Each save writes the file of its own table and no other.
TEST_F(StoreHomeTest, SavesWriteTheirOwnFile) {
  EXPECT_EQ(0, inChild([&] {
              EXPECT_EQ("", start(home()));
              const std::pair<const char*, int (*)()> saves[] = {
                  {"policy", Q7_SavePolicyInfo},       {"column", Q7_SaveColumnInfo},
                  {"access", Q7_SaveAccessPrivInfo},   {"privilege", Q7_SaveEncPrivInfo},
                  {"querypriv", Q7_SaveQueryPrivInfo}, {"tableinfo", Q7_SaveTableInfo},
                  {"user", Q7_SaveUserInfo},
              };
              for (const auto& [saved, save] : saves) {
                std::map<std::string, std::string> before;
                for (const char* name : kTableNames) {
                  before[name] = readText(file(name));
                }
                EXPECT_EQ(0, save());
                for (const char* name : kTableNames) {
                  EXPECT_EQ(name == std::string(saved), readText(file(name)) != before[name]) << saved << ", " << name;
                }
              }
              return 0;
            }));
}

// Another process saves every table with one record more, or one table alone.
void saveElsewhere(const fs::path& home, const std::vector<TableId>& ids) {
  EXPECT_EQ(0, inChild([&] {
              auto store = loadStore(home);
              addPolicy("theirs");
              addColumn("theirs");
              g_numberOfAccessPriv = g_numberOfEncPriv = g_numberOftableInfo = 1;
              Q7QueryPriv rule;
              EXPECT_EQ(0, Q7QueryPriv::insert(rule));
              addUser("theirs", "value");
              for (const TableId id : ids) {
                if (!store->save(id).ok()) {
                  return 1;
                }
              }
              return 0;
            }));
}

TEST_F(StoreHomeTest, ReloadsTakeInEveryTable) {
  for (const auto reload : {Q7_ReloadAllInfoIfChanged, Q7_ReloadAllInfoIfChanged3}) {
    EXPECT_EQ(0, inChild([&] {
                EXPECT_EQ("", start(home()));
                const int policies = g_numberOfEncPolicy[g_encPolicyArray_flag];
                const int columns = g_numberOfEncColumn;
                const int rules = g_numberOfQueryPriv;
                const int users = g_numberOfUserInfo;
                const std::string check = g_last_column_KezuFileChkStr;
                saveElsewhere(home(), {TableId::policy, TableId::column, TableId::access, TableId::privilege,
                                       TableId::queryPriv, TableId::tableInfo, TableId::user});
                EXPECT_EQ(check, g_last_column_KezuFileChkStr) << "of the file as last loaded";
                EXPECT_EQ(0, reload());
                EXPECT_NE(check, g_last_column_KezuFileChkStr);
                EXPECT_EQ(policies + 1, g_numberOfEncPolicy[g_encPolicyArray_flag]);
                EXPECT_EQ(columns + 1, g_numberOfEncColumn);
                EXPECT_EQ(1, g_numberOfAccessPriv);
                EXPECT_EQ(1, g_numberOfEncPriv);
                EXPECT_EQ(rules + 1, g_numberOfQueryPriv);
                EXPECT_EQ(1, g_numberOftableInfo);
                EXPECT_EQ(users + 1, g_numberOfUserInfo);
                return 0;
              }));
  }
}

TEST_F(StoreHomeTest, LoadingTableInfosTakesInNoOtherTable) {
  EXPECT_EQ(0, inChild([&] {
              EXPECT_EQ(-1, Q7_LoadTableInfo()) << "not started";
              EXPECT_EQ("", start(home()));
              saveElsewhere(home(), {TableId::tableInfo, TableId::column});
              EXPECT_EQ(0, Q7_LoadTableInfo());
              EXPECT_EQ(1, g_numberOftableInfo);
              EXPECT_EQ(0, g_numberOfEncColumn);
              writeText(file("tableinfo"), "damaged");
              EXPECT_NE(0, Q7_LoadTableInfo());
              EXPECT_EQ(1, g_numberOftableInfo) << "unchanged";
              return 0;
            }));
}

TEST_F(StoreHomeTest, SavesThatAnotherProcessOvertookReturnTheirCodes) {
  EXPECT_EQ(0, inChild([&] {
              EXPECT_EQ("", start(home()));
              const int other = inChild([&] {
                auto store = loadStore(home());
                for (std::size_t i = 0; i < engine::store::kTableCount; ++i) {
                  if (!store->save(static_cast<TableId>(i)).ok()) {
                    return 1;
                  }
                }
                return 0;
              });
              EXPECT_EQ(0, other);
              EXPECT_EQ(-3, Q7_SavePolicyInfo());
              EXPECT_EQ(1, Q7_SaveColumnInfo());
              EXPECT_EQ(-1, Q7_SaveAccessPrivInfo());
              EXPECT_EQ(-1, Q7_SaveEncPrivInfo());
              EXPECT_EQ(1, Q7_SaveQueryPrivInfo());
              EXPECT_EQ(-1, Q7_SaveTableInfo());
              EXPECT_EQ(-1, Q7_SaveUserInfo());
              const std::string log = logOfToday();
              for (const char* name : kTableNames) {
                EXPECT_EQ(1u, countOf(std::string("/") + name + ".kz: was changed by another process", log)) << log;
              }
              EXPECT_EQ(0, Q7_ReloadAllInfoIfChanged());
              EXPECT_EQ(0, Q7_SavePolicyInfo());
              return 0;
            }));
}

TEST_F(StoreHomeTest, AReadOnlyHomeLoadsAndItsSavesFail) {
  if (geteuid() == 0) {
    for (const auto& entry : fs::recursive_directory_iterator(home().parent_path())) {
      ASSERT_EQ(0, chown(entry.path().c_str(), 65534, 65534));
    }
    ASSERT_EQ(0, chown(home().parent_path().c_str(), 65534, 65534));
  }
  chmod(home().c_str(), 0500);
  EXPECT_EQ(0, inChild([&] {
              if (geteuid() == 0 && (setegid(65534) != 0 || seteuid(65534) != 0)) {
                return 1;
              }
              EXPECT_EQ("", start(home()));
              EXPECT_EQ(1, g_numberOfUserInfo);
              EXPECT_EQ(-1, Q7_SavePolicyInfo());
              EXPECT_EQ(-1, Q7_SaveColumnInfo());
              EXPECT_EQ(-1, Q7_SaveAccessPrivInfo());
              EXPECT_EQ(-1, Q7_SaveEncPrivInfo());
              EXPECT_EQ(1, Q7_SaveQueryPrivInfo());
              EXPECT_EQ(-1, Q7_SaveTableInfo());
              EXPECT_EQ(-1, Q7_SaveUserInfo());
              EXPECT_EQ(0, Q7_ReloadAllInfoIfChanged());
              return 0;
            }));
  chmod(home().c_str(), 0700);
}

TEST_F(StoreHomeTest, AFullDiskGivesTheFailureCodeAndALogLine) {
  EXPECT_EQ(0, inChild([&] {
              EXPECT_EQ("", start(home()));
              const std::string before = readText(file("column"));
              addColumn("c");
              EXPECT_NE(0, Q7_GetPolicyInfoFromKMS());  // opens the log before the limit bites
              std::signal(SIGXFSZ, SIG_IGN);
              const rlimit limit = {60, RLIM_INFINITY};
              setrlimit(RLIMIT_FSIZE, &limit);
              EXPECT_EQ(-1, Q7_SaveColumnInfo());
              const rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
              setrlimit(RLIMIT_FSIZE, &none);
              EXPECT_EQ(before, readText(file("column")));
              EXPECT_EQ(1, g_numberOfEncColumn) << "the change stays in memory";
              EXPECT_EQ(0, Q7_ReloadAllInfoIfChanged());
              EXPECT_EQ(1, g_numberOfEncColumn);
              EXPECT_EQ(0, Q7_SaveColumnInfo());
              return 0;
            }));
}

TEST_F(StoreHomeTest, AFailureThatLastsIsLoggedOnce) {
  EXPECT_EQ(0, inChild([&] {
              EXPECT_EQ("", start(home()));
              const std::string good = readText(file("user"));
              const auto damage = [&] { writeText(file("user"), good.substr(1)); };
              damage();
              for (int i = 0; i < 5; ++i) {
                EXPECT_EQ(-1, Q7_ReloadAllInfoIfChanged());
              }
              EXPECT_EQ(1u, countOf("Reload failed: ", logOfToday())) << logOfToday();
              EXPECT_EQ(1u, countOf("\"group\"", "\"group\""));
              EXPECT_EQ(1u, countOf("group=\"status\" desc=\"Reload failed: " + file("user").string(), logOfToday()))
                  << logOfToday();
              writeText(file("user"), good);
              EXPECT_EQ(0, Q7_ReloadAllInfoIfChanged());
              damage();
              EXPECT_EQ(-1, Q7_ReloadAllInfoIfChanged());
              EXPECT_EQ(2u, countOf("Reload failed: ", logOfToday()));
              return 0;
            }));
}

TEST_F(StoreHomeTest, WithoutAKeyServerAFetchFailsAndSaysSo) {
  EXPECT_EQ(0, inChild([&] {
              EXPECT_EQ("", start(home()));
              EXPECT_NE(0, Q7_GetPolicyInfoFromKMS());
              EXPECT_EQ(1u, countOf("policies are local in this key-server mode", logOfToday())) << logOfToday();
              g_kmsMode = Q7_ONLY_KMS_MODE;
              EXPECT_NE(0, Q7_GetPolicyInfoFromKMS());
              EXPECT_EQ(1u, countOf("names no key management server", logOfToday())) << logOfToday();
              return 0;
            }));
}

TEST_F(StoreHomeTest, ComparesPoliciesWithTheLocalFile) {
  EXPECT_EQ(0, inChild([&] {
              EXPECT_EQ("", start(home()));
              EXPECT_EQ(-1, compareLocalAndKMSPolicy()) << "the file holds none";
              addPolicy("p1");
              addPolicy("p2", 0);
              EXPECT_EQ(-1, compareLocalAndKMSPolicy());
              EXPECT_EQ(0, Q7_SavePolicyInfo());
              EXPECT_EQ(0, compareLocalAndKMSPolicy());
              auto* slot = g_encPolicyArray[g_encPolicyArray_flag];
              std::swap(slot[0], slot[1]);
              EXPECT_EQ(0, compareLocalAndKMSPolicy()) << "the order does not count";
              slot[0].columnKey[31] = static_cast<char>(slot[0].columnKey[31] ^ 1);
              EXPECT_EQ(1, compareLocalAndKMSPolicy()) << "the key does";
              slot[0].columnKey[31] = static_cast<char>(slot[0].columnKey[31] ^ 1);
              slot[1] = slot[0];
              EXPECT_EQ(1, compareLocalAndKMSPolicy()) << "twice the one is not both";
              EXPECT_EQ(0, Q7_LoadPolicyInfo(nullptr));
              EXPECT_EQ(0, compareLocalAndKMSPolicy());
              g_numberOfEncPolicy[g_encPolicyArray_flag] = 1;
              EXPECT_EQ(1, compareLocalAndKMSPolicy());
              EXPECT_EQ(0, Q7_LoadPolicyInfo(""));
              EXPECT_EQ(2, g_numberOfEncPolicy[g_encPolicyArray_flag]);
              EXPECT_NE(0, Q7_LoadPolicyInfo("/none"));
              return 0;
            }));
}

TEST_F(StoreHomeTest, PolicyOfAColumn) {
  addColumn("card");
  setText(g_encColumnInfoArray[0].policyID, std::string(64, 'p'));
  char policy[65] = "";
  char error[256] = "";
  char owner[] = "shop";
  char table[] = "customer";
  char column[] = "card";
  char upper[] = "CARD";
  char longName[101];
  std::memset(longName, 'x', 100);
  longName[100] = '\0';
  EXPECT_EQ(0, kezuGetEncPolicyId(owner, table, column, policy, error));
  EXPECT_EQ(std::string(64, 'p'), policy);
  EXPECT_STREQ("", error);
  EXPECT_NE(0, kezuGetEncPolicyId(owner, table, upper, policy, error));
  EXPECT_STREQ("the column is not registered for encryption", error);
  EXPECT_NE(0, kezuGetEncPolicyId(owner, longName, column, policy, nullptr));
  EXPECT_NE(0, kezuGetEncPolicyId(upper, table, column, policy, error)) << "the owner counts";
  EXPECT_NE(0, kezuGetEncPolicyId(owner, upper, column, policy, error)) << "the table counts";
  EXPECT_NE(0, kezuGetEncPolicyId(nullptr, table, column, policy, error));
  g_numberOfEncColumn = 0;
  EXPECT_NE(0, kezuGetEncPolicyId(owner, table, column, policy, error));
}

TEST_F(StoreHomeTest, PolicyOfAColumnIsTheFirstThatMatches) {
  for (int i = 0; i < kMaxColumns; ++i) {
    addColumn("c" + std::to_string(i));
    setText(g_encColumnInfoArray[i].policyID, "p" + std::to_string(i));
  }
  setText(g_encColumnInfoArray[7].column, "twice");
  setText(g_encColumnInfoArray[8].column, "twice");
  char policy[65] = "";
  char owner[] = "shop";
  char table[] = "customer";
  char twice[] = "twice";
  char last[] = "c1999";
  EXPECT_EQ(0, kezuGetEncPolicyId(owner, table, twice, policy, nullptr));
  EXPECT_STREQ("p7", policy);
  EXPECT_EQ(0, kezuGetEncPolicyId(owner, table, last, policy, nullptr));
  EXPECT_STREQ("p1999", policy);
}

}  // namespace
}  // namespace store_test
