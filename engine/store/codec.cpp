// SPDX-License-Identifier: Apache-2.0
#include "engine/store/codec.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <string_view>

#include "engine/policy/policy_key.h"

namespace engine::store {
namespace {

// JSON whose texts (byte strings here) are wiped when they are released.
using Json = nlohmann::basic_json<std::map, std::vector, std::string, bool, std::int64_t, std::uint64_t, double,
                                  cipher::CleansingAllocator, nlohmann::adl_serializer, cipher::SecretBytes>;

constexpr const char* kSettings = "settings";
constexpr const char* kRecords = "records";

Error invalid(std::string reason) {
  return {Error::Kind::invalid, std::move(reason)};
}

Json binary(const char* bytes, std::size_t length) {
  return Json::binary(cipher::SecretBytes(bytes, bytes + length));
}

// Visitor that turns a record into an object.
class Writer {
 public:
  template <std::size_t N>
  void text(const char* name, const char (&field)[N]) {
    object_[name] = binary(field, strnlen(field, N));
  }
  template <std::size_t N>
  void password(const char* name, const char (&field)[N]) {
    text(name, field);
  }
  void pattern(const char* name, const std::string& value) { object_[name] = binary(value.data(), value.size()); }
  template <typename Int>
  void number(const char* name, Int value, Int /*low*/, Int /*high*/) {
    object_[name] = value;
  }
  void flag(const char* name, char value) { object_[name] = static_cast<int>(static_cast<unsigned char>(value)); }
  template <std::size_t N>
  void bytes(const char* name, const char (&field)[N], int length) {
    // A length that the field can't have becomes a null, which no reader takes.
    const bool fits = length >= 0 && static_cast<std::size_t>(length) <= N;
    object_[name] = fits ? binary(field, static_cast<std::size_t>(length)) : Json(nullptr);
  }
  template <std::size_t N>
  void key(const char* name, const char (&field)[N], int length) {
    bytes(name, field, length);
  }

  Json take() { return std::move(object_); }

 private:
  Json object_ = Json::object();
};

// Visitor that fills a record, zero before, from an object. The first field that can't be accepted is remembered.
class Reader {
 public:
  explicit Reader(const Json& object) : object_(object) {
    if (!object_.is_object()) {
      fault_ = "is no object";
    }
  }

  template <std::size_t N>
  void text(const char* name, char (&field)[N]) {
    store(field, string(name, 0, N - 1, true));
  }
  template <std::size_t N>
  void password(const char* name, char (&field)[N]) {
    store(field, string(name, 1, N, true));
  }
  void pattern(const char* name, std::string& value) {
    if (const auto* bytes = string(name, 0, SIZE_MAX, false)) {
      value.assign(bytes->begin(), bytes->end());
    }
  }
  template <typename Int>
  void number(const char* name, Int& value, Int low, Int high) {
    const Json* node = find(name);
    if (node == nullptr) {
      return;
    }
    // An unsigned number past the signed type's range would come out negative.
    const bool tooLarge =
        node->is_number_unsigned() && node->get<std::uint64_t>() > static_cast<std::uint64_t>(INT64_MAX);
    if (!node->is_number_integer() || tooLarge || node->get<std::int64_t>() < low || node->get<std::int64_t>() > high) {
      fail(name, "is out of range");
      return;
    }
    value = static_cast<Int>(node->get<std::int64_t>());
  }
  void flag(const char* name, char& value) {
    int code = 0;
    number(name, code, 0, 255);
    value = static_cast<char>(static_cast<unsigned char>(code));
  }
  template <std::size_t N>
  void bytes(const char* name, char (&field)[N], int& length) {
    const auto* value = string(name, 0, N, false);
    store(field, value);
    length = value == nullptr ? 0 : static_cast<int>(value->size());
  }
  template <std::size_t N>
  void key(const char* name, char (&field)[N], int& length) {
    bytes(name, field, length);
  }

  // Why the object can't be accepted, empty when it can. To be called last.
  std::string fault() const {
    if (fault_.empty() && object_.size() != found_) {
      return "has fields that this release does not know";
    }
    return fault_;
  }

 private:
  const Json* find(const char* name) {
    if (!fault_.empty()) {
      return nullptr;
    }
    const auto node = object_.find(name);
    if (node == object_.end()) {
      fail(name, "is missing");
      return nullptr;
    }
    ++found_;
    return &*node;
  }

  // The byte string of a field, null when it can't be accepted.
  const cipher::SecretBytes* string(const char* name, std::size_t low, std::size_t high, bool text) {
    const Json* node = find(name);
    if (node == nullptr) {
      return nullptr;
    }
    if (!node->is_binary() || node->get_binary().has_subtype()) {
      fail(name, "is no text");
      return nullptr;
    }
    const cipher::SecretBytes& bytes = node->get_binary();
    if (bytes.size() < low || bytes.size() > high) {
      fail(name, bytes.size() < low ? "is too short" : "is too long");
      return nullptr;
    }
    if (text && std::find(bytes.begin(), bytes.end(), 0) != bytes.end()) {
      fail(name, "holds a zero byte");
      return nullptr;
    }
    return &bytes;
  }

  template <std::size_t N>
  static void store(char (&field)[N], const cipher::SecretBytes* bytes) {
    if (bytes != nullptr) {
      std::copy(bytes->begin(), bytes->end(), field);
    }
  }

  void fail(const char* name, const char* reason) {
    if (fault_.empty()) {
      fault_ = fmt::format("'{}' {}", name, reason);
    }
  }

  const Json& object_;
  std::size_t found_ = 0;
  std::string fault_;
};

// What a record must satisfy beyond its fields' types and ranges.
template <typename Record>
std::string recordFault(const Record& /*record*/) {
  return {};
}
std::string recordFault(const Q7EncPolicyInfo& policy) {
  const char* fault = policyFault(policy);
  return fault == nullptr ? std::string() : std::string(fault);
}

template <typename Record>
Json toObject(const Record& record) {
  Writer writer;
  fields(writer, const_cast<Record&>(record));  // the writer only reads
  return writer.take();
}

// Fills `record`, and returns why it can't be.
template <typename Record>
std::string fromObject(Record& record, const Json& object) {
  Reader reader(object);
  fields(reader, record);
  std::string fault = reader.fault();
  return fault.empty() ? recordFault(record) : fault;
}

// A record with every byte zero, those between its fields too.
template <typename Record>
Record emptyRecord() {
  Record record;
  if constexpr (std::is_trivially_copyable_v<Record> && std::is_trivially_default_constructible_v<Record>) {
    std::memset(&record, 0, sizeof record);
  }
  return record;
}

// Builds a table from CBOR, and stops at what no table has: a fourth level, which a reader that calls itself would run
// out of stack on, or a count that the payload has no bytes for.
class TableBuilder : public nlohmann::detail::json_sax_dom_parser<Json> {
 public:
  TableBuilder(Json& table, std::size_t payloadSize) : json_sax_dom_parser(table, false), payloadSize_(payloadSize) {}

  bool start_object(std::size_t count) { return enter(count) && json_sax_dom_parser::start_object(count); }
  bool start_array(std::size_t count) { return enter(count) && json_sax_dom_parser::start_array(count); }
  bool end_object() { return leave() && json_sax_dom_parser::end_object(); }
  bool end_array() { return leave() && json_sax_dom_parser::end_array(); }

 private:
  static constexpr int kLevels = 3;  // the table, its records, a record
  static constexpr auto kUncounted = static_cast<std::size_t>(-1);

  bool enter(std::size_t count) { return ++level_ <= kLevels && (count == kUncounted || count <= payloadSize_); }
  bool leave() { return --level_ >= 0; }

  std::size_t payloadSize_;
  int level_ = 0;
};

// Null for what is no table's CBOR.
Json parse(const cipher::SecretBytes& payload) {
  Json table;
  TableBuilder builder(table, payload.size());
  return Json::sax_parse(payload.begin(), payload.end(), &builder, Json::input_format_t::cbor) ? table : Json();
}

}  // namespace

template <typename Data>
cipher::SecretBytes encode(const Data& data) {
  Json::array_t records;
  records.reserve(data.records.size());
  for (const auto& record : data.records) {
    records.push_back(toObject(record));
  }
  Json table = Json::object();
  table[kSettings] = toObject(data.settings);
  table[kRecords] = std::move(records);
  cipher::SecretBytes payload;
  Json::to_cbor(table, payload);
  return payload;
}

template <typename Data>
Result<Data> decode(const cipher::SecretBytes& payload) {
  const Json table = parse(payload);
  if (!table.is_object() || table.size() != 2 || !table.contains(kSettings) || !table.contains(kRecords) ||
      !table[kRecords].is_array()) {
    return invalid("does not hold a table");
  }
  const Json& records = table[kRecords];
  if (records.size() > static_cast<std::size_t>(Data::kCapacity)) {
    return invalid(fmt::format("holds {} records, and a table takes {}", records.size(), Data::kCapacity));
  }
  Data data;
  if (const std::string fault = fromObject(data.settings, table[kSettings]); !fault.empty()) {
    return invalid("settings: " + fault);
  }
  data.records.reserve(records.size());
  for (std::size_t i = 0; i < records.size(); ++i) {
    data.records.push_back(emptyRecord<typename Data::Record>());
    if (const std::string fault = fromObject(data.records.back(), records[i]); !fault.empty()) {
      return invalid(fmt::format("record {}: {}", i, fault));
    }
  }
  return data;
}

template cipher::SecretBytes encode(const PolicyData&);
template cipher::SecretBytes encode(const ColumnData&);
template cipher::SecretBytes encode(const AccessData&);
template cipher::SecretBytes encode(const PrivilegeData&);
template cipher::SecretBytes encode(const QueryPrivData&);
template cipher::SecretBytes encode(const TableInfoData&);
template cipher::SecretBytes encode(const UserData&);

template Result<PolicyData> decode(const cipher::SecretBytes&);
template Result<ColumnData> decode(const cipher::SecretBytes&);
template Result<AccessData> decode(const cipher::SecretBytes&);
template Result<PrivilegeData> decode(const cipher::SecretBytes&);
template Result<QueryPrivData> decode(const cipher::SecretBytes&);
template Result<TableInfoData> decode(const cipher::SecretBytes&);
template Result<UserData> decode(const cipher::SecretBytes&);

}  // namespace engine::store
