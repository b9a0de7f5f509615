// SPDX-License-Identifier: Apache-2.0
//
// kezu-admin from the outside: what it makes, prints and returns.
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <nlohmann/json.hpp>

#include "unit/admin_program.h"
#include "unit/store_fixture.h"

namespace store_test {
namespace {

class AdminTest : public ::testing::Test {
 protected:
  void SetUp() override { resetTables(); }
  void TearDown() override { resetTables(); }

  fs::path home() const { return directory_.path() / "home"; }

  // Runs kezu-admin, which stands beside the tests. What it writes goes to the file at `output` where one is given.
  Outcome run(const std::string& arguments, const std::string& input = "", const fs::path& output = {}) const {
    return runAdmin(directory_.path(), arguments, input, output);
  }

  Outcome init(const std::string& input = "first value\n") const {
    return run("init --home " + home().string() + " --password-file -", input);
  }

  Outcome on(const std::string& command, const std::string& input = "") const {
    return run(command + " --home " + home().string(), input);
  }

  std::string storedPassword() const {
    resetTables();
    loadStore(home());
    return std::string(g_userInfo[0].passwd, strnlen(g_userInfo[0].passwd, sizeof g_userInfo[0].passwd));
  }

  TemporaryDirectory directory_;
};

TEST_F(AdminTest, InitMakesAHomeThatOpens) {
  const Outcome made = init();
  ASSERT_EQ(0, made.status) << made.err;
  EXPECT_EQ("", made.err);
  for (const char* part : {"KEZU_HOME=", "install.sql", "master.key"}) {
    EXPECT_TRUE(has(made.out, part)) << made.out;
  }
  EXPECT_FALSE(has(made.out, "first value"));
  struct stat status = {};
  ASSERT_EQ(0, stat(home().c_str(), &status));
  EXPECT_EQ(0700u, status.st_mode & 07777);
  int files = 0;
  for (const auto& entry : fs::directory_iterator(home())) {
    ASSERT_EQ(0, stat(entry.path().c_str(), &status));
    EXPECT_EQ(0600u, status.st_mode & 07777) << entry.path();
    ++files;
  }
  EXPECT_EQ(10, files) << "seven tables, the master key, the settings and the lock";
  EXPECT_EQ("first value", storedPassword());
  EXPECT_EQ(1, g_numberOfUserInfo);
  EXPECT_STREQ("admin", g_userInfo[0].id);
  EXPECT_EQ(0, g_numberOfEncPolicy[g_encPolicyArray_flag]);
}

TEST_F(AdminTest, EveryHomeHasAMasterKeyOfItsOwn) {
  ASSERT_EQ(0, init().status);
  const std::string first = readText(home() / "master.key");
  EXPECT_EQ(65u, first.size());
  EXPECT_EQ(64u, first.find_first_not_of("0123456789abcdef"));
  fs::remove_all(home());
  ASSERT_EQ(0, init().status);
  EXPECT_NE(first, readText(home() / "master.key"));
}

TEST_F(AdminTest, InitRefusesWhatIsThere) {
  ASSERT_EQ(0, init().status);
  const std::string before = readText(home() / "user.kz");
  const Outcome again = init("other\n");
  EXPECT_EQ(1, again.status);
  EXPECT_TRUE(has(again.err, home().string())) << again.err;
  EXPECT_TRUE(has(again.err, "not empty")) << again.err;
  EXPECT_EQ(before, readText(home() / "user.kz"));

  fs::remove_all(home());
  fs::create_directory(home());
  writeText(home() / "some file", "x");
  EXPECT_EQ(1, init().status);
  fs::remove_all(home());
  writeText(home(), "x");
  EXPECT_EQ(1, init().status);
  EXPECT_EQ("x", readText(home()));
}

TEST_F(AdminTest, InitTakesAnEmptyDirectoryAndKeepsItsOwner) {
  fs::create_directory(home());
  const bool root = geteuid() == 0;
  if (root) {
    ASSERT_EQ(0, chown(home().c_str(), 65534, 65534));
  }
  ASSERT_EQ(0, init().status);
  struct stat status = {};
  for (const fs::path& path : {home(), home() / "user.kz", home() / "master.key", home() / ".lock"}) {
    ASSERT_EQ(0, stat(path.c_str(), &status));
    EXPECT_EQ(root ? 65534u : geteuid(), status.st_uid) << path;
  }
}

TEST_F(AdminTest, InitMakesEverythingOrNothing) {
  const Outcome lost = run("init --home " + (directory_.path() / "none" / "home").string() + " --password-file -", "x");
  EXPECT_EQ(1, lost.status);
  EXPECT_TRUE(has(lost.err, "No such file or directory")) << lost.err;

  // Files may have 30 bytes: too few for a table.
  const fs::path script = directory_.path() / "limited";
  const fs::path program = fs::read_symlink("/proc/self/exe").parent_path() / "kezu-admin";
  const int status = inChild([&] {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {80, 80};
    setrlimit(RLIMIT_FSIZE, &limit);
    writeText(directory_.path() / "password", "x");
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDERR_FILENO);
    execl(program.c_str(), "kezu-admin", "init", "--home", home().c_str(), "--password-file",
          (directory_.path() / "password").c_str(), nullptr);
    return 99;
  });
  EXPECT_EQ(1, status);
  EXPECT_FALSE(fs::exists(home()));
  for (const auto& entry : fs::directory_iterator(directory_.path())) {
    EXPECT_FALSE(has(entry.path(), "home")) << "left behind: " << entry.path();
  }
}

TEST_F(AdminTest, PasswordValuesAreStoredAsGiven) {
  ASSERT_EQ(0, init().status);
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"a", "a"},
      {"a\n", "a"},
      {"a\r\n", "a"},
      {"a\n\n", "a\n"},
      {" a b ", " a b "},
      {"\xff\x80'\"\\", "\xff\x80'\"\\"},
      {"a\r", "a\r"},
      {std::string(127, 'x'), std::string(127, 'x')},
      {std::string(127, 'x') + "\r\n", std::string(127, 'x')}};
  for (const auto& [input, stored] : cases) {
    const Outcome changed = on("passwd --password-file -", input);
    ASSERT_EQ(0, changed.status) << changed.err;
    EXPECT_EQ(stored, storedPassword());
  }
  const std::string before = readText(home() / "user.kz");
  for (const std::string& bad : {std::string(), std::string("\n"), std::string("a\0b", 3), std::string(128, 'x'),
                                 std::string(128, 'x') + "\n", std::string(5000, 'x')}) {
    const Outcome refused = on("passwd --password-file -", bad);
    EXPECT_EQ(1, refused.status);
    EXPECT_TRUE(has(refused.err, "1 to 127 bytes")) << refused.err;
    EXPECT_FALSE(has(refused.err, "xxx"));
  }
  EXPECT_EQ(before, readText(home() / "user.kz"));
}

TEST_F(AdminTest, PasswordFromAFile) {
  writeText(directory_.path() / "password", "from a file\n");
  ASSERT_EQ(
      0,
      run("init --home " + home().string() + " --password-file " + (directory_.path() / "password").string()).status);
  EXPECT_EQ("from a file", storedPassword());
  const Outcome missing = on("passwd --password-file " + (directory_.path() / "none").string());
  EXPECT_EQ(1, missing.status);
  EXPECT_TRUE(has(missing.err, "No such file or directory")) << missing.err;
}

TEST_F(AdminTest, ARunningServerFollowsAPasswordChange) {
  ASSERT_EQ(0, init().status);
  auto server = loadStore(home());
  setText(g_userInfo[0].sessionId, "session");
  g_userInfo[0].authTime = 77;
  ASSERT_EQ(0, on("passwd --password-file -", "second").status);
  ASSERT_TRUE(server->reloadChanged().ok());
  EXPECT_STREQ("second", g_userInfo[0].passwd);
  EXPECT_STREQ("session", g_userInfo[0].sessionId);
  EXPECT_EQ(77, g_userInfo[0].authTime);
  EXPECT_TRUE(server->save(TableId::user).ok());
}

TEST_F(AdminTest, StatusShowsCountsSettingsAndCheckStrings) {
  ASSERT_EQ(0, init().status);
  auto store = loadStore(home());
  addPolicy("p1");
  addColumn("a");
  addColumn("b");
  g_decryptDenyMode = Q7_DECRYPT_DENY_MASKING;
  g_logInfo.denyLog = 1;
  for (const TableId id : {TableId::policy, TableId::column, TableId::privilege}) {
    ASSERT_TRUE(store->save(id).ok());
  }
  const Outcome status = on("status");
  ASSERT_EQ(0, status.status) << status.err;
  EXPECT_TRUE(has(status.out, g_last_policy_KezuFileChkStr)) << status.out;
  EXPECT_TRUE(has(status.out, g_last_column_KezuFileChkStr));
  EXPECT_TRUE(has(status.out, "column            2")) << status.out;
  EXPECT_TRUE(has(status.out, "MASKING"));
  EXPECT_TRUE(has(status.out, "refusals 1"));
  EXPECT_FALSE(has(status.out, "first value"));
}

TEST_F(AdminTest, VerifyFindsDamageAndTheWayBack) {
  ASSERT_EQ(0, init().status);
  const Outcome good = on("verify");
  EXPECT_EQ(0, good.status) << good.err;
  for (const char* name : kTableNames) {
    EXPECT_TRUE(has(good.out, std::string("/") + name + ".kz: good"));
  }
  const fs::path user = home() / "user.kz";
  std::string bytes = readText(user);
  bytes[50] = static_cast<char>(bytes[50] ^ 1);
  writeText(user, bytes);
  const Outcome without = on("verify");
  EXPECT_EQ(1, without.status);
  EXPECT_TRUE(has(without.err, user.string() + ": is damaged")) << without.err;
  EXPECT_TRUE(has(without.err, "backup")) << without.err;
  EXPECT_TRUE(has(without.out, "/policy.kz: good")) << "the rest is examined too";

  fs::remove_all(home());
  ASSERT_EQ(0, init("old").status);
  ASSERT_EQ(0, on("passwd --password-file -", "new").status);
  EXPECT_TRUE(has(on("verify").out, "user.kz.bak: good"));
  writeText(user, readText(user).substr(1));
  const Outcome with = on("verify");
  EXPECT_EQ(1, with.status);
  EXPECT_TRUE(has(with.err, "cp -p " + user.string() + ".bak " + user.string())) << with.err;
  fs::copy_file(user.string() + ".bak", user, fs::copy_options::overwrite_existing);
  EXPECT_EQ(0, on("verify").status);
  EXPECT_EQ("old", storedPassword());

  writeText(user.string() + ".bak", "rubbish");
  const Outcome backup = on("verify");
  EXPECT_EQ(1, backup.status);
  EXPECT_TRUE(has(backup.err, "user.kz.bak")) << backup.err;
  fs::remove(user);
  const Outcome missing = on("verify");
  EXPECT_EQ(1, missing.status);
  EXPECT_TRUE(has(missing.err, "user.kz: the file is missing")) << missing.err;
}

TEST_F(AdminTest, DumpHasEverythingButTheSecrets) {
  ASSERT_EQ(0, init().status);
  auto store = loadStore(home());
  addPolicy("p1");
  std::memcpy(g_encPolicyArray[0][0].columnKey, "KEYKEYKEYKEYKEYKEYKEYKEYKEYKEYKE", 32);
  addColumn("a\xff\"b");
  Q7QueryPriv rule;
  rule.queryType = 0;
  rule.queryPattern = "^x";
  ASSERT_EQ(0, Q7QueryPriv::insert(rule));
  for (const TableId id : {TableId::policy, TableId::column, TableId::queryPriv}) {
    ASSERT_TRUE(store->save(id).ok());
  }
  const Outcome dump = on("dump");
  ASSERT_EQ(0, dump.status) << dump.err;
  EXPECT_FALSE(has(dump.out, "KEYKEY"));
  EXPECT_FALSE(has(dump.out, "4b45594b4559"));
  EXPECT_FALSE(has(dump.out, "first value"));
  const auto json = nlohmann::json::parse(dump.out);
  EXPECT_EQ("p1", json["policy"]["records"][0]["name"]);
  EXPECT_EQ("AES256", json["policy"]["records"][0]["algorithm"]);
  EXPECT_EQ("4b21", json["policy"]["records"][0]["flag_hex"]);
  EXPECT_EQ(32, json["policy"]["records"][0]["key_length"]);
  EXPECT_EQ("shop", json["column"]["records"][0]["owner"]);
  EXPECT_EQ("SELECT", json["querypriv"]["records"][0]["type"]);
  EXPECT_EQ(nullptr, json["querypriv"]["records"][0]["parent_type"]);
  EXPECT_EQ(nlohmann::json({{"id", "admin"}}), json["user"]["records"][0]);
  EXPECT_EQ(7u, json.size());
}

TEST_F(AdminTest, RootKeepsTheOwnerOfTheFiles) {
  if (geteuid() != 0) {
    return;  // only root can give files away
  }
  ASSERT_EQ(0, init().status);
  chmod(directory_.path().c_str(), 0755);
  for (const auto& entry : fs::directory_iterator(home())) {
    ASSERT_EQ(0, chown(entry.path().c_str(), 65534, 65534));
  }
  ASSERT_EQ(0, chown(home().c_str(), 65534, 65534));
  // A program that gave up root can't be traced, which is how the leak checker of a sanitizer build works.
  setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
  const Outcome changed = on("passwd --password-file -", "new");
  ASSERT_EQ(0, changed.status) << changed.err;
  for (const char* command : {"status", "verify", "dump", "rekey"}) {
    EXPECT_EQ(0, on(command).status) << command;
  }
  unsetenv("ASAN_OPTIONS");
  struct stat status = {};
  for (const auto& entry : fs::directory_iterator(home())) {
    ASSERT_EQ(0, stat(entry.path().c_str(), &status));
    EXPECT_EQ(65534u, status.st_uid) << entry.path();
    EXPECT_EQ(65534u, status.st_gid) << entry.path();
  }
}

TEST_F(AdminTest, WrongCallsReturn2) {
  for (const char* arguments :
       {"", "nothing", "init", "init --home /x", "passwd", "status extra", "--wrong", "status --home", "rekey extra",
        "kms", "kms nothing", "kms push", "kms push --replace", "kms push --all p1", "kms push p1 --all",
        "kms push p1 --wrong", "kms list p1", "kms check p1", "kms --all"}) {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(2, outcome.status) << arguments;
    EXPECT_NE("", outcome.err) << arguments;
  }
  EXPECT_EQ(0, run("--help").status);
  EXPECT_EQ(0, run("init --help").status);
  EXPECT_EQ(0, run("kms push --help").status);
}

TEST_F(AdminTest, FailuresReturn1AndSayWhatToDo) {
  for (const char* command : {"status", "verify", "dump", "passwd --password-file -", "rekey", "kms push --all",
                              "kms push p1 --replace", "kms list", "kms check"}) {
    const Outcome outcome = on(command, "x");
    EXPECT_EQ(1, outcome.status) << command;
    EXPECT_TRUE(has(outcome.err, home().string() + ": the configuration home does not exist")) << outcome.err;
    EXPECT_TRUE(has(outcome.err, "kezu-admin init"));
    EXPECT_EQ("", outcome.out);
  }
}

TEST_F(AdminTest, KmsNeedsAServerInTheSettings) {
  ASSERT_EQ(0, init().status);
  auto store = loadStore(home());
  addPolicy("p1");
  ASSERT_TRUE(store->save(TableId::policy).ok());
  for (const char* command : {"kms push --all", "kms push p1", "kms list", "kms check"}) {
    const Outcome outcome = on(command);
    EXPECT_EQ(1, outcome.status) << command;
    EXPECT_TRUE(has(outcome.err, "kezu.toml: names no key management server; add a table [kms]")) << outcome.err;
    EXPECT_EQ("", outcome.out);
  }
  writeText(home() / "kezu.toml", "[kms]\nhost = \"localhost\"\n");
  for (const char* command : {"kms push --all", "kms list", "kms check"}) {
    const Outcome outcome = on(command);
    EXPECT_EQ(1, outcome.status) << command;
    EXPECT_TRUE(has(outcome.err, "kezu.toml")) << outcome.err;
    EXPECT_TRUE(has(outcome.err, "kms.ca")) << outcome.err;
  }
}

TEST_F(AdminTest, PushChecksTheNamesBeforeItConnects) {
  ASSERT_EQ(0, init().status);
  const std::string server = "[kms]\nhost = \"127.0.0.1\"\nport = 1\nca = \"ca\"\ncertificate = \"c\"\nkey = \"k\"\n";
  writeText(home() / "kezu.toml", server);
  EXPECT_TRUE(has(on("kms push --all").err, "nothing was pushed: the home has no policies of its own"));
  auto store = loadStore(home());
  addPolicy("p1");
  ASSERT_TRUE(store->save(TableId::policy).ok());
  const Outcome unknown = on("kms push p1 P1 p2 p1");
  EXPECT_EQ(1, unknown.status);
  EXPECT_TRUE(has(unknown.err, "nothing was pushed: no policy of this home: 'P1', 'p2'; ")) << unknown.err;
  EXPECT_TRUE(has(unknown.err, "kezu-admin dump")) << unknown.err;
  EXPECT_EQ("", unknown.out);
  addPolicy("a_b");
  ASSERT_TRUE(store->save(TableId::policy).ok());
  for (const char* command : {"kms push --all", "kms push p1 a_b"}) {
    const Outcome unfetchable = on(command);
    EXPECT_EQ(1, unfetchable.status);
    EXPECT_EQ(
        "kezu-admin: nothing was pushed: can't be used: 'a_b'; its name has other characters than letters and digits\n",
        unfetchable.err);
  }
  const Outcome away = on("kms push p1");
  EXPECT_EQ(1, away.status);
  EXPECT_FALSE(has(away.err, "nothing was pushed: ")) << away.err;
  EXPECT_NE("", away.err);
}

TEST_F(AdminTest, RekeyMakesANewMasterKey) {
  ASSERT_EQ(0, init().status);
  const std::string before = readText(home() / "master.key");
  const Outcome made = on("rekey");
  ASSERT_EQ(0, made.status) << made.err;
  const std::string after = readText(home() / "master.key");
  EXPECT_NE(before, after);
  for (const char* part : {"new master key", "Restart every database server", "Back up"}) {
    EXPECT_TRUE(has(made.out, part)) << made.out;
  }
  EXPECT_FALSE(has(made.out, after.substr(0, 20)));
  EXPECT_EQ(0, on("verify").status);
  EXPECT_EQ("first value", storedPassword());

  // As it stands when it is cut short.
  writeText(home() / "master.key", std::string(kOtherKeyText) + after);
  EXPECT_EQ(0, on("verify").status);
  const Outcome finished = on("rekey");
  ASSERT_EQ(0, finished.status) << finished.err;
  EXPECT_TRUE(has(finished.out, "cut short before is finished")) << finished.out;
  EXPECT_EQ(kOtherKeyText, readText(home() / "master.key"));
  EXPECT_EQ("first value", storedPassword());
}

TEST_F(AdminTest, OutputThatCannotBeWrittenIsAFailure) {
  ASSERT_EQ(0, init().status);
  for (const char* command : {"status", "verify", "dump"}) {
    const Outcome outcome = run(std::string(command) + " --home " + home().string(), "", "/dev/full");
    EXPECT_EQ(1, outcome.status) << command;
    EXPECT_EQ("kezu-admin: the output cannot be written: No space left on device\n", outcome.err) << command;
  }
}

TEST_F(AdminTest, HomeComesFromTheEnvironment) {
  ASSERT_EQ(0, init().status);
  setenv("KEZU_HOME", home().c_str(), 1);
  EXPECT_TRUE(has(run("status").out, home().string()));
  unsetenv("KEZU_HOME");
}

}  // namespace
}  // namespace store_test
