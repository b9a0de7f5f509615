// SPDX-License-Identifier: Apache-2.0
//
// kezu-admin dump
#include <fmt/format.h>

#include <array>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>

#include "access.h"
#include "commands.h"
#include "engine/store/codec.h"

namespace admin {
namespace {

namespace store = engine::store;
using Json = nlohmann::ordered_json;

std::string hex(const char* bytes, int length) {
  std::string digits;
  for (int i = 0; i < length; ++i) {
    digits += fmt::format("{:02x}", static_cast<unsigned char>(bytes[i]));
  }
  return digits;
}

// Visitor that describes a record, its secrets left out.
class Describer {
 public:
  template <std::size_t N>
  void text(const char* name, const char (&field)[N]) {
    object_[name] = std::string(field, strnlen(field, N));
  }
  template <std::size_t N>
  void password(const char* /*name*/, const char (&/*field*/)[N]) {}
  void pattern(const char* name, const std::string& value) { object_[name] = value; }
  template <typename Int>
  void number(const char* name, Int value, Int /*low*/, Int /*high*/) {
    object_[name] = value;
  }
  void flag(const char* name, char value) { object_[name] = value != 0; }
  template <std::size_t N>
  void bytes(const char* name, const char (&field)[N], int length) {
    object_[std::string(name) + "_hex"] = hex(field, length);
  }
  template <std::size_t N>
  void key(const char* /*name*/, const char (&/*field*/)[N], int length) {
    object_["key_length"] = length;
  }

  Json take() { return std::move(object_); }

 private:
  Json object_ = Json::object();
};

template <typename Record>
Json describe(Record& record) {
  Describer describer;
  store::fields(describer, record);
  return describer.take();
}

Json nameOrNull(const char* const* names, int index) {
  return index < 0 ? Json(nullptr) : Json(names[index]);
}

// The codes of a policy or rule with their names.
void addNames(Json& object, const Q7EncPolicyInfo& policy) {
  object["algorithm"] = nameOrNull(Q7EncryptionAlgorithmStr, policy.algID);
  object["iv"] = nameOrNull(Q7EncryptionIVTypeStr, policy.ivMode);
  object["block"] = nameOrNull(Q7EncryptionBlockModeTypeStr, policy.blockMode);
  object["encoding"] = nameOrNull(Q7EncryptionStrModeStr, policy.strMode);
}
void addNames(Json& object, const store::Rule& rule) {
  const auto name = [](int type) { return type < 0 || sqlType[type] == nullptr ? Json(nullptr) : Json(sqlType[type]); };
  object["type"] = name(rule.queryType);
  object["parent_type"] = name(rule.parentQueryType);
}
template <typename Record>
void addNames(Json& /*object*/, const Record& /*record*/) {}

template <typename Data>
Result<Json> describeTable(const cipher::SecretBytes& payload) {
  auto data = store::decode<Data>(payload);
  if (!data.ok()) {
    return data.error();
  }
  Json table = Json::object();
  if (Json settings = describe(data.value().settings); !settings.empty()) {
    table["settings"] = std::move(settings);
  }
  table["records"] = Json::array();
  for (auto& record : data.value().records) {
    Json object = describe(record);
    addNames(object, record);
    table["records"].push_back(std::move(object));
  }
  return table;
}

using DescribeTable = Result<Json> (*)(const cipher::SecretBytes&);
constexpr std::array<DescribeTable, store::kTableCount> kDescribe = {
    describeTable<store::PolicyData>,    describeTable<store::ColumnData>,    describeTable<store::AccessData>,
    describeTable<store::PrivilegeData>, describeTable<store::QueryPrivData>, describeTable<store::TableInfoData>,
    describeTable<store::UserData>};

}  // namespace

int dumpHome(const std::string& home) {
  const auto opened = openStore(home);
  if (!opened.ok()) {
    return fail(opened.error());
  }
  Json all = Json::object();
  for (std::size_t i = 0; i < store::kTableCount; ++i) {
    const auto id = static_cast<store::TableId>(i);
    const std::string path = opened.value()->path(id);
    const auto image =
        store::openTableFile(opened.value()->files(), path, store::tableOf(id), opened.value()->keys(id));
    if (!image.ok()) {
      return fail(image.error());
    }
    auto table = kDescribe[i](image.value().payload);
    if (!table.ok()) {
      return fail({table.error().kind, store::shownPath(path) + ": " + table.error().text});
    }
    all[std::string(store::tableOf(id).name())] = std::move(table.value());
  }
  fmt::print("{}\n", all.dump(2, ' ', false, Json::error_handler_t::replace));
  return kSuccess;
}

}  // namespace admin
