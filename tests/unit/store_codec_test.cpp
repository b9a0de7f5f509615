// SPDX-License-Identifier: Apache-2.0
//
// The bytes of payloads, and what their reader refuses. The payloads that are read, and those that written ones are
// compared with, are made with the JSON library, not with the writer under test.
#include "engine/store/codec.h"

#include <gtest/gtest.h>

#include <cstring>
#include <nlohmann/json.hpp>
#include <string>

namespace {

using namespace engine::store;
using Json = nlohmann::json;

Json text(const std::string& value) {
  return Json::binary({value.begin(), value.end()});
}

cipher::SecretBytes payload(const Json& settings, const Json& records) {
  const auto bytes = Json::to_cbor({{"settings", settings}, {"records", records}});
  return {bytes.begin(), bytes.end()};
}

// A payload as it is, byte for byte.
template <typename Data>
std::string faultOf(const std::string& bytes) {
  const cipher::SecretBytes payload(bytes.begin(), bytes.end());
  const auto data = decode<Data>(payload);
  const Status checked = check<Data>(payload);
  EXPECT_EQ(data.ok(), checked.ok());
  if (data.ok()) return "";
  EXPECT_EQ(data.error().text, checked.error().text);
  return data.error().text;
}

template <typename Data>
std::string fault(const Json& settings, const Json& records) {
  const auto bytes = payload(settings, records);
  return faultOf<Data>({bytes.begin(), bytes.end()});
}

Json column() {
  return {{"owner", text("o")}, {"table", text("t")}, {"column", text("c")}, {"policy", text("p")}};
}

template <typename Data>
std::string withField(Json record, const char* name, const Json& value, const Json& settings = Json::object()) {
  record[name] = value;
  return fault<Data>(settings, Json::array({record}));
}

TEST(StoreCodecTest, TakesWhatIsRight) {
  EXPECT_EQ(fault<ColumnData>(Json::object(), Json::array({column(), column()})), "");
  EXPECT_EQ(fault<ColumnData>(Json::object(), Json::array()), "");
}

TEST(StoreCodecTest, RefusesOtherShapes) {
  for (const Json& bad : {Json(nullptr), Json(1), Json::array(), Json::object(), Json({{"records", Json::array()}}),
                          Json({{"settings", Json::object()}}), Json({{"settings", Json::object()}, {"records", 3}}),
                          Json({{"settings", 3}, {"records", Json::array()}}),
                          Json({{"settings", Json::object()}, {"records", Json::array()}, {"more", 1}})}) {
    const auto bytes = Json::to_cbor(bad);
    EXPECT_FALSE(decode<ColumnData>({bytes.begin(), bytes.end()}).ok()) << bad.dump();
  }
  EXPECT_FALSE(decode<ColumnData>({}).ok());
  auto longer = payload(Json::object(), Json::array());
  longer.push_back(0);
  EXPECT_FALSE(decode<ColumnData>(longer).ok());
}

// Files of earlier releases hold these bytes, and their file-check strings are made of them.
TEST(StoreCodecTest, WritesTheBytesOfTheFormat) {
  PrivilegeData data;
  data.settings.decryptDenyMode = 4;
  Q7EncPriv record = {};
  std::strcpy(record.user, "joe");
  std::strcpy(record.owner, "db");
  std::strcpy(record.table, "a table with 24 letters.");
  record.enc_priv = 1;
  record.dec_priv = static_cast<char>(0xfe);
  data.records.push_back(record);
  const std::string expected(
      "\xa2\x67records\x81"
      "\xa6\x66"
      "column\x40\x67"
      "decrypt\x18\xfe\x67"
      "encrypt\x01\x65owner\x42"
      "db\x65table\x58\x18"
      "a table with 24 letters.\x64user\x43joe"
      "\x68settings\xa1\x71"
      "decrypt_deny_mode\x04");
  const auto written = encode(data);
  EXPECT_EQ(expected, std::string(written.begin(), written.end()));
  EXPECT_EQ(faultOf<PrivilegeData>(expected), "");
}

TEST(StoreCodecTest, WritesWhatTheLibraryWrites) {
  QueryPrivData data;
  Json records = Json::array();
  const int numbers[] = {0, 23, 24, 255, 256, 65535, 65536, kMaxInt, -1, -24, -25, -256, -257, -65536, -65537, kMinInt};
  for (const std::size_t length : {0UL, 23UL, 24UL, 255UL, 256UL, 65535UL, 65536UL}) {
    for (const int number : numbers) {
      data.records.push_back({number % 2, -1, std::string(length, 'p'), std::string("\0\xff", 2), number, -1});
      records.push_back({{"type", number % 2},
                         {"parent_type", -1},
                         {"pattern", text(data.records.back().queryPattern)},
                         {"parent_pattern", text(data.records.back().parentQueryPattern)},
                         {"decrypt", number},
                         {"encrypt", -1}});
    }
  }
  data.settings.doubleEncryptMode = -5;
  EXPECT_TRUE(encode(data) == payload({{"double_encrypt_mode", -5}}, records));
  for (const std::size_t count : {0UL, 1UL, 23UL, 24UL, 255UL, 256UL, 2000UL}) {
    data.records.assign(count, Rule{});
    const Json rule = {{"type", -1},   {"parent_type", -1}, {"pattern", text("")}, {"parent_pattern", text("")},
                       {"decrypt", 0}, {"encrypt", 0}};
    EXPECT_TRUE(encode(data) == payload({{"double_encrypt_mode", -5}}, Json::array_t(count, rule))) << count;
  }
}

TEST(StoreCodecTest, ReadsBackWhatWasWritten) {
  TableInfoData data;
  for (const std::size_t length : {0UL, 1UL, sizeof Q7TableInfo::demigrationCmd - 1}) {
    Q7TableInfo record = {};
    std::memset(record.demigrationCmd, 'x', length);
    record.migrationTime = static_cast<time_t>(253402300799 * static_cast<long>(length % 2));
    data.records.push_back(record);
  }
  const auto read = decode<TableInfoData>(encode(data));
  ASSERT_TRUE(read.ok());
  EXPECT_TRUE(encode(read.value()) == encode(data));
  ASSERT_EQ(read.value().records.size(), data.records.size());
  for (std::size_t i = 0; i < data.records.size(); ++i) {
    EXPECT_STREQ(read.value().records[i].demigrationCmd, data.records[i].demigrationCmd);
    EXPECT_EQ(read.value().records[i].migrationTime, data.records[i].migrationTime);
  }
}

// A length that its field can't have is written as what no reader takes.
TEST(StoreCodecTest, AnImpossibleLengthIsNotWrittenAsAValue) {
  for (const int length : {-1, int{sizeof Q7EncPolicyInfo::columnKey} + 1}) {
    PolicyData data;
    Q7EncPolicyInfo policy = {};
    policy.keyLength = length;
    data.records.push_back(policy);
    const auto bytes = encode(data);
    EXPECT_EQ(faultOf<PolicyData>({bytes.begin(), bytes.end()}), "record 0: 'key' is no text");
  }
}

// Other ways to write the same table: unknown lengths, tags, tables inside a record, another order, a field twice, more
// fields than any record has.
TEST(StoreCodecTest, RefusesOtherWaysToWriteATable) {
  const std::string head = "\xa2\x67records", settings = "\x68settings\xa0";
  const std::string fields =
      "\x66"
      "column\x41"
      "c\x65owner\x41o\x66policy\x41p\x65table\x41t";
  EXPECT_EQ(faultOf<ColumnData>(head + "\x81\xa4" + fields + settings), "");
  EXPECT_NE(faultOf<ColumnData>(head + "\x9f\xa4" + fields + "\xff" + settings), "");
  EXPECT_NE(faultOf<ColumnData>(head + "\x81\xbf" + fields + "\xff" + settings), "");
  EXPECT_NE(faultOf<ColumnData>("\xa2" + settings + "\x67records\x81\xa4" + fields), "");
  EXPECT_NE(faultOf<ColumnData>(head + "\x80\x67records\x80"), "");
  EXPECT_EQ(faultOf<ColumnData>(head + "\x81\xa5" + fields + "\x65owner\x41o" + settings),
            "record 0: has fields that this release does not know");
  EXPECT_EQ(faultOf<ColumnData>(head + "\x81\xb1" + std::string("\x61x\xf6").append(32, '\x60') + settings),
            "record 0: has fields that this release does not know");
  for (const std::string value :
       {"\x5f\x41o\xff", "\xc0\x41o", "\xd8\x18\x41o", "\x81\x41o", "\xa1\x41o\x41o", "\x1c", "\x1f"}) {
    EXPECT_EQ(faultOf<ColumnData>(head + "\x81\xa1\x65owner" + value + settings), "record 0: is damaged");
  }
}

TEST(StoreCodecTest, RefusesEveryCutAndEveryAddition) {
  const auto bytes = payload(Json::object(), Json::array({column()}));
  const std::string whole(bytes.begin(), bytes.end());
  ASSERT_EQ(faultOf<ColumnData>(whole), "");
  for (std::size_t length = 0; length < whole.size(); ++length) {
    EXPECT_NE(faultOf<ColumnData>(whole.substr(0, length)), "") << length;
  }
  EXPECT_NE(faultOf<ColumnData>(whole + '\0'), "");
}

// Payloads of a few bytes that promise more than there is, and one that nests as deep as its bytes go.
TEST(StoreCodecTest, RefusesWhatOnlyClaimsToBeLarge) {
  const auto refuses = [](const std::string& bytes) {
    const auto result = decode<ColumnData>(cipher::SecretBytes(bytes.begin(), bytes.end()));
    EXPECT_FALSE(result.ok());
    EXPECT_EQ("does not hold a table", result.error().text);
  };
  const std::string most(8, '\xff');
  for (const char major : {'\x5b', '\x7b', '\x9b', '\xbb'}) {  // byte string, text, array, map of 2^64 - 1
    refuses(major + most);
    refuses("\xa1\x67records" + (major + most));
  }
  refuses("\xbb\x7f" + most.substr(1));
  for (const char level : {'\x81', '\x9f'}) {
    refuses(std::string(10'000'000, level));
  }
}

TEST(StoreCodecTest, TextsFitTheirFields) {
  EXPECT_EQ(withField<ColumnData>(column(), "owner", text("")), "");
  EXPECT_EQ(withField<ColumnData>(column(), "owner", text(std::string(64, 'x'))), "");
  EXPECT_EQ(withField<ColumnData>(column(), "owner", text(std::string(65, 'x'))), "record 0: 'owner' is too long");
  EXPECT_EQ(withField<ColumnData>(column(), "owner", text(std::string("a\0b", 3))),
            "record 0: 'owner' holds a zero byte");
  EXPECT_EQ(withField<ColumnData>(column(), "owner", "o"), "record 0: 'owner' is no text");
  EXPECT_EQ(withField<ColumnData>(column(), "owner", 5), "record 0: 'owner' is no text");
  EXPECT_EQ(withField<ColumnData>(column(), "owner", nullptr), "record 0: 'owner' is no text");
}

TEST(StoreCodecTest, FieldsAreThoseOfTheRecord) {
  EXPECT_EQ(withField<ColumnData>(column(), "more", 5), "record 0: has fields that this release does not know");
  Json less = column();
  less.erase("table");
  EXPECT_EQ(fault<ColumnData>(Json::object(), Json::array({column(), less})), "record 1: 'table' is missing");
  EXPECT_EQ(fault<ColumnData>(Json::object(), Json::array({7})), "record 0: is no object");
  EXPECT_EQ(fault<ColumnData>({{"mode", 1}}, Json::array()), "settings: has fields that this release does not know");
}

TEST(StoreCodecTest, CountIsWithinCapacity) {
  EXPECT_EQ(fault<ColumnData>(Json::object(), Json::array_t(2000, column())), "");
  EXPECT_EQ(fault<ColumnData>(Json::object(), Json::array_t(2001, column())),
            "holds 2001 records, and a table takes 2000");
  const Json user = {{"id", text("a")}, {"password", text("b")}};
  EXPECT_EQ(fault<UserData>(Json::object(), Json::array_t(16, user)), "");
  EXPECT_EQ(fault<UserData>(Json::object(), Json::array_t(17, user)), "holds 17 records, and a table takes 16");
}

TEST(StoreCodecTest, PasswordMayFillItsField) {
  const Json user = {{"id", text("a")}, {"password", text("b")}};
  EXPECT_EQ(withField<UserData>(user, "password", text(std::string(128, 'x'))), "");
  EXPECT_EQ(withField<UserData>(user, "password", text(std::string(129, 'x'))), "record 0: 'password' is too long");
  EXPECT_EQ(withField<UserData>(user, "password", text("")), "record 0: 'password' is too short");
}

TEST(StoreCodecTest, NumbersAreWithinRange) {
  const auto deny = [](const Json& mode) { return fault<PrivilegeData>({{"decrypt_deny_mode", mode}}, Json::array()); };
  EXPECT_EQ(deny(0), "");
  EXPECT_EQ(deny(4), "");
  for (const Json& bad : {Json(-1), Json(5), Json(1.0), Json(true), Json("1"), Json(nullptr), Json(UINT64_MAX)}) {
    EXPECT_EQ(deny(bad), "settings: 'decrypt_deny_mode' is out of range") << bad.dump();
  }
  const auto access = [](const Json& mode) {
    return fault<AccessData>({{"access_control_mode", mode}}, Json::array());
  };
  EXPECT_EQ(access(-2147483648LL), "");
  EXPECT_EQ(access(2147483647), "");
  EXPECT_NE(access(2147483648LL), "");
  EXPECT_NE(access(-2147483649LL), "");
  EXPECT_NE(access(UINT64_MAX), "");
}

TEST(StoreCodecTest, PoliciesAreWhatTheCiphersOffer) {
  const Json settings = {{"log_encrypt", 1}, {"log_decrypt", 2}, {"log_deny", 3},
                         {"log_access", 4},  {"log_query", 5},   {"kms_mode", 0}};
  const Json policy = {
      {"name", text("p1")}, {"algorithm", 2}, {"iv", 1},       {"key", text(std::string(32, 'k'))},     {"position", 0},
      {"length", 0},        {"block", 1},     {"encoding", 1}, {"flag", text(std::string("\0\xff", 2))}};
  const auto with = [&](const char* name, const Json& value) {
    return withField<PolicyData>(policy, name, value, settings);
  };
  EXPECT_EQ(with("flag", text("")), "");
  EXPECT_EQ(with("flag", text(std::string(16, '\0'))), "");
  EXPECT_NE(with("flag", text(std::string(17, 'f'))), "");
  EXPECT_EQ(with("key", text(std::string(64, '\0'))), "");
  EXPECT_NE(with("key", text(std::string(65, 'k'))), "");
  EXPECT_NE(with("key", text("")), "");
  EXPECT_NE(with("algorithm", 16), "");
  EXPECT_NE(with("algorithm", 21), "");
  EXPECT_NE(with("algorithm", -1), "");
  EXPECT_NE(with("block", 12), "");
  EXPECT_NE(with("block", 0), "") << "ECB with a random IV";
  EXPECT_NE(with("iv", 2), "");
  EXPECT_NE(with("encoding", 3), "");
  EXPECT_NE(with("position", -1), "");
  EXPECT_NE(with("name", text(std::string(17, 'n'))), "");
  Json mode = settings;
  mode["kms_mode"] = 3;
  EXPECT_NE(fault<PolicyData>(mode, Json::array({policy})), "");
}

}  // namespace
