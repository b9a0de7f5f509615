// SPDX-License-Identifier: Apache-2.0
//
// The table [kms] of kezu.toml.
#include <gtest/gtest.h>

#include "engine/store/home.h"
#include "unit/store_fixture.h"

namespace store_test {
namespace {

using namespace std::chrono_literals;
using engine::store::Home;
using engine::store::Result;

constexpr const char* kFour =
    "host = \"kms.example\"\nca = \"ca.pem\"\ncertificate = \"/etc/c.pem\"\nkey = \"k.key\"\n";

class KmsSettingsTest : public ::testing::Test {
 protected:
  Result<Home> read(const std::string& text) const {
    writeText(directory_.path() / "kezu.toml", text);
    return engine::store::readSettings(engine::store::machineFiles(), directory_.path());
  }

  // Settings with [kms] around lines.
  Result<Home> readKms(const std::string& lines) const { return read("[kms]\n" + lines); }

  void expectRefused(const std::string& lines, const std::vector<std::string>& words) const {
    const auto home = readKms(lines);
    ASSERT_FALSE(home.ok()) << lines;
    for (const std::string& word : words) {
      EXPECT_NE(std::string::npos, home.error().text.find(word)) << home.error().text;
    }
  }

  TemporaryDirectory directory_;
};

TEST_F(KmsSettingsTest, NoServerWithoutTheTable) {
  EXPECT_FALSE(read("").value().kms.has_value());
  EXPECT_FALSE(read("[paths]\nlog = \"log\"\n").value().kms.has_value());
}

TEST_F(KmsSettingsTest, FourSettingsAreEnough) {
  const auto home = readKms(kFour);
  ASSERT_TRUE(home.ok()) << home.error().text;
  const auto& kms = *home.value().kms;
  EXPECT_EQ("kms.example", kms.host);
  EXPECT_EQ(5696, kms.port);
  EXPECT_EQ((directory_.path() / "ca.pem").string(), kms.ca);
  EXPECT_EQ("/etc/c.pem", kms.certificate);
  EXPECT_EQ((directory_.path() / "k.key").string(), kms.key);
  EXPECT_EQ(3000ms, kms.connectTimeout);
  EXPECT_EQ(5000ms, kms.readTimeout);
  EXPECT_EQ("", kms.objectGroup);
}

TEST_F(KmsSettingsTest, EverySettingAtItsLimits) {
  const auto low =
      readKms(std::string(kFour) + "port = 1\nconnect_timeout = 0.01\nread_timeout = 1\nobject_group = \"g\"\n");
  ASSERT_TRUE(low.ok()) << low.error().text;
  EXPECT_EQ(1, low.value().kms->port);
  EXPECT_EQ(10ms, low.value().kms->connectTimeout);
  EXPECT_EQ(1000ms, low.value().kms->readTimeout);
  EXPECT_EQ("g", low.value().kms->objectGroup);
  const std::string group(255, 'g');
  const auto high = readKms(std::string(kFour) + "port = 65535\nconnect_timeout = 3600\nread_timeout = 3600.0\n" +
                            "object_group = \"" + group + "\"\n");
  ASSERT_TRUE(high.ok()) << high.error().text;
  EXPECT_EQ(65535, high.value().kms->port);
  EXPECT_EQ(3600s, high.value().kms->connectTimeout);
  EXPECT_EQ(3600s, high.value().kms->readTimeout);
  EXPECT_EQ(group, high.value().kms->objectGroup);
}

TEST_F(KmsSettingsTest, EverythingElseIsRefusedWithItsLine) {
  for (const char* missing : {"host", "ca", "certificate", "key"}) {
    std::string lines = kFour;
    const std::size_t start = lines.find(std::string(missing) + " = ");
    lines.erase(start, lines.find('\n', start) + 1 - start);
    expectRefused(lines, {"kezu.toml", "line 1", std::string("'kms.") + missing + "' is missing"});
  }
  const std::string all = kFour;
  for (const char* line : {"port = 0", "port = 65536", "port = -1", "port = \"5696\"", "port = 5696.0"}) {
    expectRefused(all + line, {"line 6", "'kms.port'", "1 to 65535"});
  }
  for (const char* name : {"connect_timeout", "read_timeout"}) {
    for (const char* value : {"0", "0.009", "-1", "3601", "nan", "inf", "-inf", "\"3\"", "true", "[3]"}) {
      expectRefused(all + name + " = " + value, {"line 6", std::string("'kms.") + name + "'", "0.01 to 3600"});
    }
  }
  expectRefused(all + "object_group = \"\"", {"line 6", "'kms.object_group'"});
  expectRefused(all + "object_group = \"" + std::string(256, 'g') + "\"", {"line 6", "'kms.object_group'"});
  expectRefused(all + "object_group = 5", {"line 6", "'kms.object_group'"});
  expectRefused(all + "hots = \"x\"", {"line 6", "unknown setting 'kms.hots'"});
  expectRefused("host = \"\"", {"line 2", "'kms.host'"});
  expectRefused("host = \"" + std::string(256, 'h') + "\"", {"line 2", "'kms.host'"});
  expectRefused("host = \"a\\u0000b\"", {"line 2", "'kms.host'"});
  expectRefused("ca = 7", {"line 2", "'kms.ca'"});
  const auto noTable = read("kms = 1\n");
  ASSERT_FALSE(noTable.ok());
  EXPECT_NE(std::string::npos, noTable.error().text.find("'kms' must be a table: [kms]")) << noTable.error().text;
}

}  // namespace
}  // namespace store_test
