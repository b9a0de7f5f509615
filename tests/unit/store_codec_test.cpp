// SPDX-License-Identifier: Apache-2.0
//
// What the reader of payloads refuses. The payloads are made with the JSON library itself, not with the writer under
// test.
#include "engine/store/codec.h"

#include <gtest/gtest.h>

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

template <typename Data>
std::string fault(const Json& settings, const Json& records) {
  const auto data = decode<Data>(payload(settings, records));
  return data.ok() ? "" : data.error().text;
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
