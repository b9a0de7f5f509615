// SPDX-License-Identifier: Apache-2.0
#include "engine/kms/ttlv.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace engine::kms {
namespace {

store::Error malformed(std::string reason) {
  return {store::Error::Kind::invalid, std::move(reason)};
}

std::uint64_t bigEndian(Bytes bytes) noexcept {
  std::uint64_t value = 0;
  for (const unsigned char byte : bytes) {
    value = value << 8 | byte;
  }
  return value;
}

constexpr std::size_t padded(std::size_t length) noexcept {
  return (length + 7) / 8 * 8;
}

// Whether a value of the type can have this length.
bool lengthFits(Type type, std::size_t length) noexcept {
  switch (type) {
    case Type::integer:
    case Type::enumeration:
    case Type::interval:
      return length == 4;
    case Type::longInteger:
    case Type::boolean:
    case Type::dateTime:
      return length == 8;
    case Type::bigInteger:
    case Type::structure:
      return length % 8 == 0;
    default:
      return true;
  }
}

// Names of the tags that answers are looked for, in KMIP's own words.
constexpr std::pair<Tag, std::string_view> kTagNames[] = {
    {Tag::applicationData, "Application Data"},
    {Tag::applicationNamespace, "Application Namespace"},
    {Tag::attribute, "Attribute"},
    {Tag::attributeName, "Attribute Name"},
    {Tag::attributeValue, "Attribute Value"},
    {Tag::batchItem, "Batch Item"},
    {Tag::cryptographicLength, "Cryptographic Length"},
    {Tag::keyBlock, "Key Block"},
    {Tag::keyFormatType, "Key Format Type"},
    {Tag::keyMaterial, "Key Material"},
    {Tag::keyValue, "Key Value"},
    {Tag::nameValue, "Name Value"},
    {Tag::objectType, "Object Type"},
    {Tag::operation, "Operation"},
    {Tag::protocolVersion, "Protocol Version"},
    {Tag::protocolVersionMajor, "Protocol Version Major"},
    {Tag::protocolVersionMinor, "Protocol Version Minor"},
    {Tag::responseHeader, "Response Header"},
    {Tag::responseMessage, "Response Message"},
    {Tag::responsePayload, "Response Payload"},
    {Tag::resultMessage, "Result Message"},
    {Tag::resultReason, "Result Reason"},
    {Tag::resultStatus, "Result Status"},
    {Tag::symmetricKey, "Symmetric Key"},
    {Tag::uniqueBatchItemId, "Unique Batch Item ID"},
    {Tag::uniqueIdentifier, "Unique Identifier"},
};

std::string shown(Tag tag) {
  const auto* name =
      std::find_if(std::begin(kTagNames), std::end(kTagNames), [tag](const auto& entry) { return entry.first == tag; });
  return name == std::end(kTagNames) ? fmt::format("tag {:06x}", static_cast<std::uint32_t>(tag))
                                     : std::string(name->second);
}

class Decoder {
 public:
  explicit Decoder(Bytes message) noexcept : rest_(message) {}

  // Decodes the next item. False, with the fault set, when there is none that can be accepted.
  bool next(Item& item, int depth) {
    if (rest_.size() < kHeaderSize) {
      return fail("ends in the middle of an item");
    }
    if (++items_ > kMaxItems) {
      return fail(fmt::format("holds more than {} items", kMaxItems));
    }
    item.tag = static_cast<Tag>(bigEndian(rest_.first(3)));
    item.type = static_cast<Type>(rest_[3]);
    const auto length = static_cast<std::size_t>(bigEndian(rest_.subspan(4, 4)));
    rest_ = rest_.subspan(kHeaderSize);
    if (item.type < Type::structure || item.type > Type::interval) {
      return fail(fmt::format("{} is of a type that KMIP does not have", shown(item.tag)));
    }
    if (!lengthFits(item.type, length)) {
      return fail(fmt::format("{} has a length that its type can't have", shown(item.tag)));
    }
    if (padded(length) > rest_.size()) {
      return fail(fmt::format("{} is longer than what it is in", shown(item.tag)));
    }
    return item.type == Type::structure ? content(item, length, depth) : scalar(item, length);
  }

  bool atEnd() const noexcept { return rest_.empty(); }
  const std::string& fault() const noexcept { return fault_; }
  bool fail(std::string reason) {
    fault_ = std::move(reason);
    return false;
  }

 private:
  bool scalar(Item& item, std::size_t length) {
    item.value = rest_.first(length);
    rest_ = rest_.subspan(padded(length));
    return true;
  }

  bool content(Item& item, std::size_t length, int depth) {
    if (depth >= kMaxDepth) {
      return fail(fmt::format("is nested more than {} deep", kMaxDepth));
    }
    const Bytes after = rest_.subspan(length);
    rest_ = rest_.first(length);
    while (!rest_.empty()) {
      if (!next(item.content.emplace_back(), depth + 1)) {
        return false;
      }
    }
    rest_ = after;
    return true;
  }

  Bytes rest_;
  std::size_t items_ = 0;
  std::string fault_;
};

const Item& nothing() noexcept {
  static const Item item;
  return item;
}

}  // namespace

// Writer

void Writer::number(std::uint64_t value, int size) {
  for (int shift = 8 * (size - 1); shift >= 0; shift -= 8) {
    out_.push_back(static_cast<unsigned char>(value >> shift));
  }
}

void Writer::header(Tag tag, Type type, std::size_t length) {
  number(static_cast<std::uint32_t>(tag), 3);
  out_.push_back(static_cast<unsigned char>(type));
  number(length, 4);
}

void Writer::value(Tag tag, Type type, Bytes value) {
  header(tag, type, value.size());
  out_.insert(out_.end(), value.begin(), value.end());
  out_.resize(padded(out_.size()));  // every item begins at a multiple of 8
}

void Writer::begin(Tag tag) {
  header(tag, Type::structure, 0);
  open_.push_back(out_.size());
}

void Writer::end() {
  const std::size_t start = open_.back();
  open_.pop_back();
  const std::size_t length = out_.size() - start;
  for (std::size_t i = 0; i < 4; ++i) {
    out_[start - 1 - i] = static_cast<unsigned char>(length >> (8 * i));
  }
}

void Writer::integer(Tag tag, std::int32_t value) {
  header(tag, Type::integer, 4);
  number(static_cast<std::uint32_t>(value), 4);
  number(0, 4);
}

void Writer::enumeration(Tag tag, std::uint32_t value) {
  header(tag, Type::enumeration, 4);
  number(value, 4);
  number(0, 4);
}

void Writer::text(Tag tag, std::string_view text) {
  value(tag, Type::text, {reinterpret_cast<const unsigned char*>(text.data()), text.size()});
}

void Writer::bytes(Tag tag, Bytes bytes) {
  value(tag, Type::bytes, bytes);
}

void Writer::items(Bytes encoded) {
  out_.insert(out_.end(), encoded.begin(), encoded.end());
}

// Decoding

store::Result<std::size_t> messageLength(Bytes header) {
  if (header.size() < kHeaderSize || bigEndian(header.first(3)) != static_cast<std::uint32_t>(Tag::responseMessage) ||
      header[3] != static_cast<unsigned char>(Type::structure)) {
    return malformed("is not a KMIP answer");
  }
  const auto length = static_cast<std::size_t>(bigEndian(header.subspan(4, 4)));
  if (length > kMaxMessage - kHeaderSize) {
    return malformed(fmt::format("is longer than {} bytes", kMaxMessage));
  }
  return kHeaderSize + length;
}

store::Result<Item> decodeMessage(Bytes message) {
  const auto length = messageLength(message);
  if (!length.ok()) {
    return length.error();
  }
  Decoder decoder(message);
  Item item;
  if (!decoder.next(item, 0)) {
    return malformed(decoder.fault());
  }
  if (!decoder.atEnd()) {
    return malformed("goes on behind its end");
  }
  return item;
}

// Fields

void Fields::fail(Tag tag, const char* reason) const {
  if (fault_.empty()) {
    fault_ = fmt::format("{} {}", shown(tag), reason);
  }
}

bool Fields::has(Tag tag) const noexcept {
  return std::any_of(structure_.content.begin(), structure_.content.end(),
                     [tag](const Item& item) { return item.tag == tag; });
}

const Item& Fields::find(Tag tag) const {
  if (!fault_.empty()) {
    return nothing();
  }
  const Item* found = nullptr;
  for (const Item& item : structure_.content) {
    if (item.tag == tag && found != nullptr) {
      fail(tag, "is there twice");
      return nothing();
    }
    if (item.tag == tag) {
      found = &item;
    }
  }
  if (found == nullptr) {
    fail(tag, "is missing");
    return nothing();
  }
  return *found;
}

const Item& Fields::take(Tag tag, Type type) const {
  const Item& item = find(tag);
  if (fault_.empty() && item.type != type) {
    fail(tag, "is of the wrong type");
    return nothing();
  }
  return item;
}

Fields Fields::structure(Tag tag) const {
  return {take(tag, Type::structure), fault_};
}
const Item& Fields::item(Tag tag) const {
  return find(tag);
}
std::int32_t Fields::integer(Tag tag) const {
  return integerOf(take(tag, Type::integer));
}
std::uint32_t Fields::enumeration(Tag tag) const {
  return enumerationOf(take(tag, Type::enumeration));
}
std::string_view Fields::text(Tag tag) const {
  return textOf(take(tag, Type::text));
}
Bytes Fields::bytes(Tag tag) const {
  return take(tag, Type::bytes).value;
}

std::vector<const Item*> Fields::all(Tag tag, Type type) const {
  std::vector<const Item*> found;
  for (const Item& item : structure_.content) {
    if (item.tag == tag && item.type != type) {
      fail(tag, "is of the wrong type");
    }
    if (item.tag == tag && fault_.empty()) {
      found.push_back(&item);
    }
  }
  return fault_.empty() ? found : std::vector<const Item*>();
}

std::int32_t integerOf(const Item& item) noexcept {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(bigEndian(item.value)));
}
std::uint32_t enumerationOf(const Item& item) noexcept {
  return static_cast<std::uint32_t>(bigEndian(item.value));
}
std::string_view textOf(const Item& item) noexcept {
  return {reinterpret_cast<const char*>(item.value.data()), item.value.size()};
}

}  // namespace engine::kms
