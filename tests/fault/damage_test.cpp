// SPDX-License-Identifier: Apache-2.0
//
// Every byte of every file of a home changed, every file cut at every length, files exchanged: what is noticed, and the
// way back.
#include <sys/stat.h>

#include <cstdlib>

#include "unit/store_fixture.h"

namespace store_test {
namespace {

constexpr TableId kIds[] = {TableId::policy,    TableId::column,    TableId::access, TableId::privilege,
                            TableId::queryPriv, TableId::tableInfo, TableId::user};

// What a byte is changed by: each bit, the case of a letter with them, and all of it; 7 makes a line end another one.
constexpr int kChanges[] = {1, 2, 4, 8, 16, 32, 64, 128, 7, 255};

// The same for tables, where every change takes a reload and a start.
#if defined(__SANITIZE_THREAD__)
constexpr int kTableChanges[] = {0x10};
#else
constexpr int kTableChanges[] = {0x01, 0x80, 0xff};
#endif

// Gives a file other contents, in place: nobody waits for the disk. Its time is never one that it had before.
void overwrite(const fs::path& path, const std::string& bytes) {
  static long changes = 0;
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  const timespec when = {1'700'000'000, ++changes};
  const timespec times[2] = {when, when};
  EXPECT_EQ(static_cast<ssize_t>(bytes.size()), pwrite(fd, bytes.data(), bytes.size(), 0));
  EXPECT_EQ(0, ftruncate(fd, static_cast<off_t>(bytes.size())));
  EXPECT_EQ(0, futimens(fd, times));
  close(fd);
}

class DamageTest : public StoreTest {
 protected:
  // A home whose tables hold records, each saved twice, and a store that has it loaded.
  void SetUp() override {
    StoreTest::SetUp();
    store_ = loadStore(home());
    addPolicy("p1");
    addColumn("c");
    g_numberOfAccessPriv = g_numberOfEncPriv = g_numberOftableInfo = 1;
    setText(g_accessPrivArray[0].ip, "10.0.0.1");
    setText(g_encPrivArray[0].user, "u");
    setText(g_tableInfo[0].owner, "shop");
    for (int round = 0; round < 2; ++round) {
      for (const TableId id : kIds) {
        ASSERT_TRUE(store_->save(id).ok());
      }
    }
    ASSERT_TRUE(store_->loadAll().ok());
    memory_ = everyTable();
  }

  // The contents of all tables in memory.
  static std::vector<cipher::SecretBytes> everyTable() {
    std::vector<cipher::SecretBytes> tables;
    for (const TableId id : kIds) {
      tables.push_back(engine::store::tableOf(id).capture());
    }
    return tables;
  }

  // With `bytes` in the place of a table's file: a running server and one that starts refuse it with its name and the
  // reason, and nothing in memory changes.
  void expectNoticed(const char* name, const std::string& bytes, const std::string& reason = "") {
    overwrite(file(name), bytes);
    const auto running = store_->reloadChanged();
    ASSERT_FALSE(running.ok());
    EXPECT_NE(std::string::npos, running.error().text.find(file(name).string() + ": ")) << running.error().text;
    EXPECT_NE(std::string::npos, running.error().text.find(reason)) << running.error().text;
    EXPECT_NE(std::string::npos, running.error().text.find("kezu-admin verify")) << running.error().text;
    const auto starting = openStore(home())->loadAll();
    ASSERT_FALSE(starting.ok());
    EXPECT_EQ(running.error().text, starting.error().text);
    EXPECT_EQ(memory_, everyTable());
  }

  // Runs kezu-admin, which stands beside the tests. Gives its exit status, and what it wrote into `output`.
  int admin(const std::string& command, std::string& output) const {
    const fs::path program = fs::read_symlink("/proc/self/exe").parent_path() / "kezu-admin";
    const fs::path out = home().parent_path() / "out";
    const int status = std::system(
        (program.string() + " " + command + " --home " + home().string() + " >" + out.string() + " 2>&1").c_str());
    output = readText(out);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  std::unique_ptr<Store> store_;
  std::vector<cipher::SecretBytes> memory_;
};

TEST_F(DamageTest, EveryChangedByteOfATableIsNoticed) {
  for (const char* name : kTableNames) {
    const std::string good = readText(file(name));
    for (std::size_t at = 0; at < good.size(); ++at) {
      for (const int change : kTableChanges) {
        SCOPED_TRACE(std::string(name) + " at " + std::to_string(at));
        std::string bad = good;
        bad[at] = static_cast<char>(bad[at] ^ change);
        ASSERT_NO_FATAL_FAILURE(expectNoticed(name, bad));
      }
    }
    overwrite(file(name), good);
    ASSERT_TRUE(store_->reloadChanged().ok());
  }
}

TEST_F(DamageTest, EveryCutAndEveryAdditionIsNoticed) {
  for (const char* name : kTableNames) {
    const std::string good = readText(file(name));
    for (std::size_t size = 0; size < good.size(); ++size) {
      SCOPED_TRACE(std::string(name) + " cut to " + std::to_string(size));
      ASSERT_NO_FATAL_FAILURE(expectNoticed(name, good.substr(0, size)));
    }
    for (const std::string& more : {std::string(1, '\0'), std::string("\n"), good}) {
      ASSERT_NO_FATAL_FAILURE(expectNoticed(name, good + more));
    }
    overwrite(file(name), good);
    ASSERT_TRUE(store_->reloadChanged().ok());
  }
}

TEST_F(DamageTest, AFileInAnothersPlaceIsNoticed) {
  for (const char* name : kTableNames) {
    const std::string good = readText(file(name));
    for (const char* other : kTableNames) {
      if (other != name) {
        ASSERT_NO_FATAL_FAILURE(expectNoticed(name, readText(file(other)), "the file of another table"));
        ASSERT_NO_FATAL_FAILURE(
            expectNoticed(name, readText(file(other).string() + ".bak"), "the file of another table"));
      }
    }
    overwrite(file(name), good);
  }
}

TEST_F(DamageTest, AFileOfAnotherHomeIsNoticed) {
  const fs::path foreign = home().parent_path() / "foreign";
  makeHome(foreign, kOtherKeyText);
  for (const char* name : kTableNames) {
    const std::string good = readText(file(name));
    const std::string theirs = readText(foreign / (std::string(name) + ".kz"));
    ASSERT_NO_FATAL_FAILURE(expectNoticed(name, theirs, "another master key"));
    overwrite(file(name), good);
    // And ours in theirs.
    overwrite(foreign / (std::string(name) + ".kz"), good);
    const auto refused = openStore(foreign)->loadAll();
    ASSERT_FALSE(refused.ok());
    EXPECT_NE(std::string::npos, refused.error().text.find("foreign/" + std::string(name) + ".kz"));
    EXPECT_NE(std::string::npos, refused.error().text.find("another master key")) << refused.error().text;
    overwrite(foreign / (std::string(name) + ".kz"), theirs);
  }
}

// A master key that was changed to another one opens no table. What can be read as the same key is the same key: the
// other case of a digit, and a line end or none behind them.
TEST_F(DamageTest, EveryChangedByteOfTheMasterKeyIsNoticed) {
  const fs::path path = home() / "master.key";
  const std::string good = readText(path);
  int same = 0;
  for (std::size_t at = 0; at < good.size(); ++at) {
    for (const int change : kChanges) {
      std::string bad = good;
      bad[at] = static_cast<char>(bad[at] ^ change);
      const bool otherCase = at < 64 && std::isalpha(static_cast<unsigned char>(good[at])) != 0 && change == 0x20;
      const bool otherLineEnd = at == 64 && bad[at] == '\r';
      overwrite(path, bad);
      auto settings = engine::store::openHome(engine::store::machineFiles(), home());
      ASSERT_TRUE(settings.ok());
      auto opened = Store::open(engine::store::machineFiles(), settings.value());
      const auto loaded = opened.ok() ? opened.value()->loadAll() : engine::store::Status(opened.error());
      SCOPED_TRACE("byte " + std::to_string(at) + " changed by " + std::to_string(change));
      ASSERT_EQ(otherCase || otherLineEnd, loaded.ok());
      if (loaded.ok()) {
        ++same;
      } else {
        const std::string named = opened.ok() ? file("policy").string() : path.string();
        ASSERT_NE(std::string::npos, loaded.error().text.find(named)) << loaded.error().text;
      }
      ASSERT_EQ(memory_, everyTable());
    }
  }
  EXPECT_GT(same, 0);
  for (std::size_t size = 0; size < 64; ++size) {
    overwrite(path, good.substr(0, size));
    const auto settings = engine::store::openHome(engine::store::machineFiles(), home());
    const auto opened = Store::open(engine::store::machineFiles(), settings.value());
    ASSERT_FALSE(opened.ok()) << size;
    EXPECT_NE(std::string::npos, opened.error().text.find(path.string())) << opened.error().text;
  }
}

// kezu.toml is plain text without a check of its own: a change that is still valid settings is taken for what its
// administrator wants. It can lead to another master key, which opens no table, or to another folder of logs; it can
// never lead to other tables.
TEST_F(DamageTest, AChangeOfTheSettingsNeverLeadsToOtherTables) {
  const fs::path path = home() / "kezu.toml";
  const std::string good = "# settings\n[paths]\nmaster_key = \"master.key\"  # here\nlog = \"log\"\n";
  int refused = 0;
  int taken = 0;
  const auto expectTablesOrNone = [&](const std::string& text) {
    overwrite(path, text);
    const auto settings = engine::store::openHome(engine::store::machineFiles(), home());
    if (!settings.ok()) {
      ++refused;
      ASSERT_NE(std::string::npos, settings.error().text.find(path.string() + ": ")) << settings.error().text;
      return;
    }
    auto opened = Store::open(engine::store::machineFiles(), settings.value());
    if (!opened.ok()) {
      ++refused;
      ASSERT_NE(std::string::npos, opened.error().text.find(settings.value().masterKey)) << opened.error().text;
      return;
    }
    ++taken;
    ASSERT_TRUE(opened.value()->loadAll().ok());
    ASSERT_EQ(memory_, everyTable());
  };
  for (std::size_t at = 0; at < good.size(); ++at) {
    for (const int change : kChanges) {
      std::string bad = good;
      bad[at] = static_cast<char>(bad[at] ^ change);
      SCOPED_TRACE("byte " + std::to_string(at) + " changed by " + std::to_string(change));
      ASSERT_NO_FATAL_FAILURE(expectTablesOrNone(bad));
    }
  }
  for (std::size_t size = 0; size <= good.size(); ++size) {
    ASSERT_NO_FATAL_FAILURE(expectTablesOrNone(good.substr(0, size)));
  }
  EXPECT_GT(refused, 300);
  EXPECT_GT(taken, 0);
}

TEST_F(DamageTest, VerifyAndTheBakLeadBack) {
  for (const char* name : kTableNames) {
    SCOPED_TRACE(name);
    const std::string path = file(name).string();
    const std::string good = readText(path);
    std::string bad = good;
    bad[bad.size() / 2] = static_cast<char>(bad[bad.size() / 2] ^ 0x10);
    for (const std::string& damaged : {bad, good.substr(0, good.size() / 3), std::string()}) {
      overwrite(path, damaged);
      std::string output;
      EXPECT_EQ(1, admin("verify", output));
      EXPECT_NE(std::string::npos, output.find("kezu-admin: " + path + ": ")) << output;
      // The way back is a command that can be run as it stands.
      const std::size_t command = output.find("cp -p ");
      ASSERT_NE(std::string::npos, command) << output;
      ASSERT_EQ(0, std::system(output.substr(command, output.find('\n', command) - command).c_str()));
      EXPECT_EQ(0, admin("verify", output)) << output;
      ASSERT_TRUE(store_->reloadChanged().ok());
      EXPECT_EQ(memory_, everyTable());
    }
    overwrite(path + ".bak", bad);
    std::string output;
    EXPECT_EQ(1, admin("verify", output));
    EXPECT_NE(std::string::npos, output.find(path + ".bak: ")) << output;
    EXPECT_TRUE(openStore(home())->loadAll().ok()) << "a damaged .bak harms nobody";
    overwrite(path + ".bak", good);
  }
}

}  // namespace
}  // namespace store_test
