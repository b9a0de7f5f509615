// SPDX-License-Identifier: Apache-2.0
#include "engine/store/codec.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <optional>
#include <span>
#include <string_view>
#include <utility>

#include "engine/policy/policy_key.h"

namespace engine::store {
namespace {

// The types of CBOR that tables are made of (RFC 8949, section 3.1). Records are written and read where they stand,
// with no tree of values between: for thousands of records the tree is most of a save's time, and several times the
// table's size in memory.
enum class Type : unsigned { unsignedNumber = 0, negativeNumber = 1, byteString = 2, text = 3, array = 4, map = 5 };

constexpr std::string_view kSettings = "settings";
constexpr std::string_view kRecords = "records";

Error invalid(std::string reason) {
  return {Error::Kind::invalid, std::move(reason)};
}

Error noTable() {
  return invalid("does not hold a table");
}

constexpr std::size_t kMaxFields = 16;  // of a record or of settings; more than any of them has

// A field's value where it stands, in a record or in a payload.
struct Value {
  enum class Kind { number, bytes, other };
  Kind kind = Kind::other;
  std::int64_t number = 0;
  std::span<const unsigned char> bytes;
};

struct Field {
  std::string_view name;
  Value value;
};

// How the fields of a type of records stand in a file. Sorting them anew for every record would be a third of a save.
struct FieldOrder {
  std::array<std::uint8_t, kMaxFields> byName = {};    // numbers of the fields, in the order of their names
  std::array<std::uint8_t, kMaxFields> position = {};  // of each field in that order
};

// Takes a payload's items one after the other.
class Output {
 public:
  std::size_t size() const { return size_; }

  // Makes room for so many bytes more. What is not known to be coming gets room when it comes.
  void expect(std::size_t more) { bytes_.resize(std::max(bytes_.size(), size_ + more)); }

  // The payload.
  cipher::SecretBytes take() {
    bytes_.resize(size_);
    return std::move(bytes_);
  }

  // The head of an item: its type, and its value or length in the fewest bytes that hold it.
  void head(Type type, std::uint64_t argument) {
    const auto major = static_cast<unsigned>(type) << 5U;
    if (argument < 24) {
      byte(major | argument);
      return;
    }
    const unsigned width = argument <= UINT8_MAX ? 0 : argument <= UINT16_MAX ? 1 : argument <= UINT32_MAX ? 2 : 3;
    byte(major | (24U + width));
    for (unsigned bits = 8U << width; bits > 0; bits -= 8) {
      byte(argument >> (bits - 8) & 0xFFU);
    }
  }

  void text(std::string_view text) {
    head(Type::text, text.size());
    bytes({reinterpret_cast<const unsigned char*>(text.data()), text.size()});
  }

  void value(const Value& value) {
    if (value.kind == Value::Kind::bytes) {
      head(Type::byteString, value.bytes.size());
      bytes(value.bytes);
    } else if (value.kind == Value::Kind::other) {
      byte(kNull);
    } else if (value.number < 0) {
      head(Type::negativeNumber, static_cast<std::uint64_t>(-1 - value.number));
    } else {
      head(Type::unsignedNumber, static_cast<std::uint64_t>(value.number));
    }
  }

 private:
  static constexpr std::uint64_t kNull = 0xF6;

  // The place of the next `size` bytes.
  unsigned char* next(std::size_t size) {
    if (bytes_.size() - size_ < size) {
      bytes_.resize(2 * (size_ + size));
    }
    return bytes_.data() + std::exchange(size_, size_ + size);
  }
  void byte(std::uint64_t value) { *next(1) = static_cast<unsigned char>(value); }
  void bytes(std::span<const unsigned char> bytes) { std::copy(bytes.begin(), bytes.end(), next(bytes.size())); }

  cipher::SecretBytes bytes_;
  std::size_t size_ = 0;
};

// Visitor that collects the fields of a record, to write them as a map.
class Writer {
 public:
  template <std::size_t N>
  void text(std::string_view name, const char (&field)[N]) {
    byteString(name, field, strnlen(field, N));
  }
  template <std::size_t N>
  void password(std::string_view name, const char (&field)[N]) {
    text(name, field);
  }
  void pattern(std::string_view name, const std::string& value) { byteString(name, value.data(), value.size()); }
  template <typename Int>
  void number(std::string_view name, Int value, Int /*low*/, Int /*high*/) {
    add(name, {Value::Kind::number, value, {}});
  }
  void flag(std::string_view name, char value) { number(name, int{static_cast<unsigned char>(value)}, 0, 255); }
  template <std::size_t N>
  void bytes(std::string_view name, const char (&field)[N], int length) {
    if (length >= 0 && static_cast<std::size_t>(length) <= N) {
      byteString(name, field, static_cast<std::size_t>(length));
    } else {
      add(name, {});  // a length that the field can't have becomes a null, which no reader takes
    }
  }
  template <std::size_t N>
  void key(std::string_view name, const char (&field)[N], int length) {
    bytes(name, field, length);
  }

  void write(Output& out, const FieldOrder& order) const {
    out.head(Type::map, count_);
    for (std::size_t i = 0; i < count_; ++i) {
      const Field& field = fields_[order.byName[i]];
      out.text(field.name);
      out.value(field.value);
    }
  }

  FieldOrder order() const {
    FieldOrder order;
    const auto end = order.byName.begin() + static_cast<std::ptrdiff_t>(count_);
    std::iota(order.byName.begin(), end, std::uint8_t{0});
    std::sort(order.byName.begin(), end, [this](auto a, auto b) { return fields_[a].name < fields_[b].name; });
    for (std::size_t i = 0; i < count_; ++i) {
      order.position[order.byName[i]] = static_cast<std::uint8_t>(i);
    }
    return order;
  }

 private:
  void add(std::string_view name, const Value& value) { fields_.at(count_++) = {name, value}; }
  void byteString(std::string_view name, const char* value, std::size_t length) {
    add(name, {Value::Kind::bytes, 0, {reinterpret_cast<const unsigned char*>(value), length}});
  }

  std::array<Field, kMaxFields> fields_;
  std::size_t count_ = 0;
};

template <typename Record>
const FieldOrder& fieldOrder() {
  static const FieldOrder order = [] {
    Record record = {};
    Writer writer;
    fields(writer, record);
    return writer.order();
  }();
  return order;
}

// Walks over a payload's items. Strings and arrays that only claim to be there are refused: nothing is read past the
// end, and no count is larger than the bytes that are left.
class Items {
 public:
  explicit Items(std::span<const unsigned char> payload) : rest_(payload) {}

  bool atEnd() const { return rest_.empty(); }

  // The count of an array or map that begins here, with the items still ahead. Nothing where none begins.
  std::optional<std::size_t> open(Type type) {
    const auto head = next();
    const bool fits = head && head->type == static_cast<unsigned>(type) && head->argument <= rest_.size();
    return fits ? std::optional(static_cast<std::size_t>(head->argument)) : std::nullopt;
  }

  // A text.
  std::optional<std::string_view> text() {
    const auto length = open(Type::text);
    if (!length) {
      return std::nullopt;
    }
    const auto bytes = skip(*length);
    return std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  }

  // A value that holds no others. Nothing for one that does, and for what is no CBOR of known length.
  std::optional<Value> value() {
    const auto head = next();
    if (!head) {
      return std::nullopt;
    }
    const bool fitsSigned = head->argument <= static_cast<std::uint64_t>(INT64_MAX);
    switch (head->type) {
      case static_cast<unsigned>(Type::unsignedNumber):
      case static_cast<unsigned>(Type::negativeNumber): {
        if (!fitsSigned) {
          return Value{};
        }
        const auto number = static_cast<std::int64_t>(head->argument);
        return Value{Value::Kind::number, head->type == 0 ? number : -1 - number, {}};
      }
      case static_cast<unsigned>(Type::byteString):
      case static_cast<unsigned>(Type::text): {
        if (head->argument > rest_.size()) {
          return std::nullopt;
        }
        const auto bytes = skip(static_cast<std::size_t>(head->argument));
        return head->type == static_cast<unsigned>(Type::text) ? Value{} : Value{Value::Kind::bytes, 0, bytes};
      }
      case kSimple:
        return Value{};
      default:
        return std::nullopt;
    }
  }

 private:
  static constexpr unsigned kSimple = 7;  // null, true, false, floating-point numbers

  struct Head {
    unsigned type = 0;
    std::uint64_t argument = 0;
  };

  std::span<const unsigned char> skip(std::size_t length) {
    const auto bytes = rest_.first(length);
    rest_ = rest_.subspan(length);
    return bytes;
  }

  // Nothing at the end, and for an unknown length.
  std::optional<Head> next() {
    if (rest_.empty()) {
      return std::nullopt;
    }
    const unsigned first = skip(1)[0];
    Head head = {first >> 5U, first & 31U};
    if (head.argument < 24) {
      return head;
    }
    const std::size_t width = std::size_t{1} << (head.argument - 24);
    if (head.argument > 27 || width > rest_.size()) {
      return std::nullopt;
    }
    head.argument = 0;
    for (const unsigned char byte : skip(width)) {
      head.argument = head.argument << 8U | byte;
    }
    return head;
  }

  std::span<const unsigned char> rest_;
};

// Visitor that fills a record, zero before, from a map. The first field that can't be accepted is remembered.
class Reader {
 public:
  Reader(Items& items, const FieldOrder& order) : order_(order) {
    const auto count = items.open(Type::map);
    if (!count) {
      fault_ = "is no object";
      return;
    }
    for (std::size_t i = 0; i < *count && fault_.empty(); ++i) {
      const auto name = items.text();
      const auto value = name ? items.value() : std::nullopt;
      if (!value) {
        fault_ = "is damaged";
      } else if (count_ == kMaxFields) {
        fault_ = kUnknownFields;
      } else {
        fields_[count_++] = {*name, *value};
      }
    }
  }

  template <std::size_t N>
  void text(std::string_view name, char (&field)[N]) {
    store(field, string(name, 0, N - 1, true));
  }
  template <std::size_t N>
  void password(std::string_view name, char (&field)[N]) {
    store(field, string(name, 1, N, true));
  }
  void pattern(std::string_view name, std::string& value) {
    const auto bytes = string(name, 0, SIZE_MAX, false);
    value.assign(bytes.begin(), bytes.end());
  }
  template <typename Int>
  void number(std::string_view name, Int& value, Int low, Int high) {
    const Value* found = find(name);
    if (found == nullptr) {
      return;
    }
    if (found->kind != Value::Kind::number || found->number < low || found->number > high) {
      fail(name, "is out of range");
      return;
    }
    value = static_cast<Int>(found->number);
  }
  void flag(std::string_view name, char& value) {
    int code = 0;
    number(name, code, 0, 255);
    value = static_cast<char>(static_cast<unsigned char>(code));
  }
  template <std::size_t N>
  void bytes(std::string_view name, char (&field)[N], int& length) {
    const auto value = string(name, 0, N, false);
    store(field, value);
    length = static_cast<int>(value.size());
  }
  template <std::size_t N>
  void key(std::string_view name, char (&field)[N], int& length) {
    bytes(name, field, length);
  }

  // Why the map can't be accepted, empty when it can. To be called last.
  std::string fault() const { return fault_.empty() && found_ != count_ ? kUnknownFields : fault_; }

 private:
  // Also what a field that is there twice counts as: the second one is never asked for.
  static constexpr const char* kUnknownFields = "has fields that this release does not know";

  const Value* find(std::string_view name) {
    if (!fault_.empty()) {
      return nullptr;
    }
    // Fields are asked for in the order of the record. As this release writes them, each stands in its place.
    const auto isIt = [name](const Field& field) { return field.name == name; };
    const auto end = fields_.begin() + static_cast<std::ptrdiff_t>(count_);
    auto field = fields_.begin() + order_.position[found_];
    if (field >= end || !isIt(*field)) {
      field = std::find_if(fields_.begin(), end, isIt);
    }
    if (field == end) {
      fail(name, "is missing");
      return nullptr;
    }
    ++found_;
    return &field->value;
  }

  // The byte string of a field, empty when it can't be accepted.
  std::span<const unsigned char> string(std::string_view name, std::size_t low, std::size_t high, bool text) {
    const Value* value = find(name);
    if (value == nullptr) {
      return {};
    }
    const auto bytes = value->bytes;
    if (value->kind != Value::Kind::bytes) {
      fail(name, "is no text");
    } else if (bytes.size() < low || bytes.size() > high) {
      fail(name, bytes.size() < low ? "is too short" : "is too long");
    } else if (text && !bytes.empty() && std::memchr(bytes.data(), 0, bytes.size()) != nullptr) {
      fail(name, "holds a zero byte");
    } else {
      return bytes;
    }
    return {};
  }

  template <std::size_t N>
  static void store(char (&field)[N], std::span<const unsigned char> bytes) {
    if (!bytes.empty()) {
      std::memcpy(field, bytes.data(), bytes.size());
    }
  }

  void fail(std::string_view name, const char* reason) {
    if (fault_.empty()) {
      fault_ = fmt::format("'{}' {}", name, reason);
    }
  }

  const FieldOrder& order_;
  std::array<Field, kMaxFields> fields_;
  std::size_t count_ = 0;
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
void write(Output& out, const Record& record) {
  Writer writer;
  fields(writer, const_cast<Record&>(record));  // the writer only reads
  writer.write(out, fieldOrder<Record>());
}

// Fills `record`, and returns why it can't be.
template <typename Record>
std::string read(Items& items, Record& record) {
  Reader reader(items, fieldOrder<Record>());
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

// Reads a table. `next` gives the place for each record, zero; `reserve` is told their count before.
template <typename Data, typename Reserve, typename Next>
Status readTable(const cipher::SecretBytes& payload, typename Data::Settings& settings, Reserve reserve, Next next) {
  Items items(payload);
  if (items.open(Type::map) != 2 || items.text() != kRecords) {
    return noTable();
  }
  const auto count = items.open(Type::array);
  if (!count) {
    return noTable();
  }
  if (*count > static_cast<std::size_t>(Data::kCapacity)) {
    return invalid(fmt::format("holds {} records, and a table takes {}", *count, Data::kCapacity));
  }
  reserve(*count);
  for (std::size_t i = 0; i < *count; ++i) {
    if (const std::string fault = read(items, next()); !fault.empty()) {
      return invalid(fmt::format("record {}: {}", i, fault));
    }
  }
  if (items.text() != kSettings) {
    return noTable();
  }
  if (const std::string fault = read(items, settings); !fault.empty()) {
    return invalid("settings: " + fault);
  }
  return items.atEnd() ? Status() : noTable();
}

}  // namespace

template <typename Data>
cipher::SecretBytes encode(const Data& data) {
  constexpr std::size_t kFrame = 256;  // for everything but records, roughly
  Output out;
  out.expect(kFrame);
  out.head(Type::map, 2);
  out.text(kRecords);
  out.head(Type::array, data.records.size());
  for (std::size_t i = 0; i < data.records.size(); ++i) {
    const std::size_t before = out.size();
    write(out, data.records[i]);
    if (i == 0) {
      // The others are taken to be about as long.
      const std::size_t one = out.size() - before;
      out.expect(data.records.size() * (one + one / 8) + kFrame);
    }
  }
  out.text(kSettings);
  write(out, data.settings);
  return out.take();
}

template <typename Data>
Result<Data> decode(const cipher::SecretBytes& payload) {
  Data data;
  const auto reserve = [&data](std::size_t count) { data.records.reserve(count); };
  const auto next = [&data]() -> auto& {
    return data.records.emplace_back(emptyRecord<typename Data::Record>());
  };
  if (Status status = readTable<Data>(payload, data.settings, reserve, next); !status.ok()) {
    return status.error();
  }
  return data;
}

template <typename Data>
Status check(const cipher::SecretBytes& payload) {
  typename Data::Settings settings;
  std::vector<typename Data::Record, cipher::CleansingAllocator<typename Data::Record>> place(1);
  const auto next = [&place]() -> auto& {
    return place[0] = emptyRecord<typename Data::Record>();
  };
  return readTable<Data>(
      payload, settings, [](std::size_t /*count*/) {}, next);
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

template Status check<PolicyData>(const cipher::SecretBytes&);
template Status check<ColumnData>(const cipher::SecretBytes&);
template Status check<AccessData>(const cipher::SecretBytes&);
template Status check<PrivilegeData>(const cipher::SecretBytes&);
template Status check<QueryPrivData>(const cipher::SecretBytes&);
template Status check<TableInfoData>(const cipher::SecretBytes&);
template Status check<UserData>(const cipher::SecretBytes&);

}  // namespace engine::store
