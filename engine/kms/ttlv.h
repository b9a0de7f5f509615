// SPDX-License-Identifier: Apache-2.0
//
// The encoding of KMIP messages: tag (3 bytes), type (1), length (4, big-endian), value, and zeros up to a multiple of
// 8 bytes (OASIS KMIP 1.2, section 9.1).
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cipher/secret.h"
#include "engine/store/result.h"

namespace engine::kms {

// The tags that are written or looked for.
enum class Tag : std::uint32_t {
  applicationData = 0x420002,
  applicationNamespace = 0x420003,
  applicationSpecificInformation = 0x420004,
  attribute = 0x420008,
  attributeIndex = 0x420009,
  attributeName = 0x42000a,
  attributeValue = 0x42000b,
  batchCount = 0x42000d,
  batchItem = 0x42000f,
  cryptographicAlgorithm = 0x420028,
  cryptographicLength = 0x42002a,
  keyBlock = 0x420040,
  keyCompressionType = 0x420041,
  keyFormatType = 0x420042,
  keyMaterial = 0x420043,
  keyValue = 0x420045,
  keyWrappingData = 0x420046,
  maximumItems = 0x42004f,
  maximumResponseSize = 0x420050,
  nameType = 0x420054,
  nameValue = 0x420055,
  objectType = 0x420057,
  operation = 0x42005c,
  protocolVersion = 0x420069,
  protocolVersionMajor = 0x42006a,
  protocolVersionMinor = 0x42006b,
  requestHeader = 0x420077,
  requestMessage = 0x420078,
  requestPayload = 0x420079,
  responseHeader = 0x42007a,
  responseMessage = 0x42007b,
  responsePayload = 0x42007c,
  resultMessage = 0x42007d,
  resultReason = 0x42007e,
  resultStatus = 0x42007f,
  revocationReason = 0x420081,
  revocationReasonCode = 0x420082,
  symmetricKey = 0x42008f,
  templateAttribute = 0x420091,
  uniqueBatchItemId = 0x420093,
  uniqueIdentifier = 0x420094,
};

enum class Type : unsigned char {
  structure = 1,
  integer = 2,
  longInteger = 3,
  bigInteger = 4,
  enumeration = 5,
  boolean = 6,
  text = 7,
  bytes = 8,
  dateTime = 9,
  interval = 10,
};

// Bounds of a message that is decoded. The longest answer that is asked for, the keys of 100 policies with their
// attributes, takes less than 200 KiB and 5000 items, and is nested 7 deep.
inline constexpr std::size_t kHeaderSize = 8;                     // tag, type and length
inline constexpr std::size_t kMaxMessage = std::size_t{1} << 20;  // bytes, header included
inline constexpr int kMaxDepth = 16;                              // structures inside each other, the message counted
inline constexpr std::size_t kMaxItems = 32768;

using Bytes = std::span<const unsigned char>;

// Builds a message. Its memory is wiped when it goes: a request can hold a key.
class Writer {
 public:
  // Opens a structure; everything up to the matching end() is inside.
  void begin(Tag tag);
  void end();

  void integer(Tag tag, std::int32_t value);
  void enumeration(Tag tag, std::uint32_t value);
  void text(Tag tag, std::string_view value);
  void bytes(Tag tag, Bytes value);

  // Items that another writer encoded.
  void items(Bytes encoded);

  // The message, when every structure is closed.
  cipher::SecretBytes take() { return std::move(out_); }

 private:
  void header(Tag tag, Type type, std::size_t length);
  void number(std::uint64_t value, int size);
  void value(Tag tag, Type type, Bytes value);

  cipher::SecretBytes out_;
  std::vector<std::size_t> open_;  // where the values of the open structures begin
};

// A decoded item. Views the message that it was decoded from, which holds the only copy of its value.
struct Item {
  Tag tag{};  // any number of 24 bits
  Type type{};
  Bytes value;                // without padding; empty for a structure
  std::vector<Item> content;  // of a structure
};

// The whole length of a message, header included, from its first kHeaderSize bytes. An error when they are not those of
// an answer, or it is longer than kMaxMessage.
store::Result<std::size_t> messageLength(Bytes header);

// Decodes a whole answer. Every length must be that of its type and lie within its structure, and nothing may follow.
// `message` outlives the item. The error's text is the reason alone.
store::Result<Item> decodeMessage(Bytes message);

// Takes the fields of a structure, each by its tag. What is not asked for is skipped. The first field that is missing,
// there twice or of another type is remembered, and nothing more is read then: what comes out is empty or 0.
//
// One fault serves several structures, so that a caller asks once.
class Fields {
 public:
  Fields(const Item& structure, std::string& fault) noexcept : structure_(structure), fault_(fault) {}

  bool has(Tag tag) const noexcept;
  Fields structure(Tag tag) const;
  const Item& item(Tag tag) const;  // of any type
  std::int32_t integer(Tag tag) const;
  std::uint32_t enumeration(Tag tag) const;
  std::string_view text(Tag tag) const;
  Bytes bytes(Tag tag) const;

  // Every item of a tag; each must be of the type.
  std::vector<const Item*> all(Tag tag, Type type) const;

 private:
  const Item& take(Tag tag, Type type) const;
  const Item& find(Tag tag) const;
  void fail(Tag tag, const char* reason) const;

  const Item& structure_;
  std::string& fault_;
};

// The value of an item of the type that Fields checked.
std::int32_t integerOf(const Item& item) noexcept;
std::uint32_t enumerationOf(const Item& item) noexcept;
std::string_view textOf(const Item& item) noexcept;

}  // namespace engine::kms
