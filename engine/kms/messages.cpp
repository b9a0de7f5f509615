// SPDX-License-Identifier: Apache-2.0
#include "engine/kms/messages.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>

#include "engine/kms/policy_fields.h"

namespace engine::kms {
namespace {

// Values of enumerations: OASIS KMIP 1.2, section 9.1.3.2.
constexpr std::uint32_t kSymmetricKey = 2;       // Object Type
constexpr std::uint32_t kActive = 2;             // State
constexpr std::uint32_t kUninterpretedText = 1;  // Name Type
constexpr std::uint32_t kRaw = 1;                // Key Format Type
constexpr std::uint32_t kHmacSha256 = 9;         // Cryptographic Algorithm
constexpr std::uint32_t kSuperseded = 5;         // Revocation Reason Code
constexpr std::uint32_t kSuccess = 0;            // Result Status
constexpr std::uint32_t kFailed = 1;
constexpr std::uint32_t kPending = 2;
constexpr std::int32_t kDeriveKey = 0x200;  // Cryptographic Usage Mask

// Result Reason: those that a smaller request may not meet.
constexpr std::uint32_t kResponseTooLarge = 0x02;
constexpr std::uint32_t kInvalidMessage = 0x04;
constexpr std::uint32_t kNotSupported = 0x05;
constexpr std::uint32_t kFeatureNotSupported = 0x08;

constexpr std::string_view kReasons[] = {"",
                                         "Item Not Found",
                                         "Response Too Large",
                                         "Authentication Not Successful",
                                         "Invalid Message",
                                         "Operation Not Supported",
                                         "Missing Data",
                                         "Invalid Field",
                                         "Feature Not Supported",
                                         "Operation Canceled By Requester",
                                         "Cryptographic Failure",
                                         "Illegal Operation",
                                         "Permission Denied",
                                         "Object Archived",
                                         "Index Out Of Bounds",
                                         "Application Namespace Not Supported",
                                         "Key Format Type Not Supported",
                                         "Key Compression Type Not Supported",
                                         "Encoding Option Error",
                                         "Key Value Not Present",
                                         "Attestation Required",
                                         "Attestation Failed",
                                         "Sensitive",
                                         "Not Extractable",
                                         "Object Already Exists"};
constexpr std::uint32_t kGeneralFailure = 0x100;

// Attributes are named by texts in this version of the protocol.
constexpr std::string_view kName = "Name";
constexpr std::string_view kState = "State";
constexpr std::string_view kObjectType = "Object Type";
constexpr std::string_view kObjectGroup = "Object Group";
constexpr std::string_view kUsageMask = "Cryptographic Usage Mask";
constexpr std::string_view kAlgorithm = "Cryptographic Algorithm";
constexpr std::string_view kLength = "Cryptographic Length";
constexpr std::string_view kSpecific = "Application Specific Information";

store::Error invalid(std::string reason) {
  return {store::Error::Kind::invalid, std::move(reason)};
}

std::string_view operationName(Operation operation) noexcept {
  switch (operation) {
    case Operation::registerObject:
      return "Register";
    case Operation::locate:
      return "Locate";
    case Operation::get:
      return "Get";
    case Operation::getAttributes:
      return "Get Attributes";
    case Operation::activate:
      return "Activate";
    case Operation::revoke:
      return "Revoke";
    case Operation::destroy:
      return "Destroy";
    case Operation::discoverVersions:
      return "Discover Versions";
  }
  return "an operation";
}

// Whether request or answer hold a key, so that the server's own words could repeat it.
bool carriesKey(Operation operation) noexcept {
  return operation == Operation::get || operation == Operation::registerObject;
}

// Requests

// Writes an attribute whose value `write` writes under the tag that it is given.
template <typename Write>
void attribute(Writer& out, std::string_view name, const Write& write) {
  out.begin(Tag::attribute);
  out.text(Tag::attributeName, name);
  write(Tag::attributeValue);
  out.end();
}

void nameAttribute(Writer& out, std::string_view name) {
  attribute(out, kName, [&](Tag tag) {
    out.begin(tag);
    out.text(Tag::nameValue, name);
    out.enumeration(Tag::nameType, kUninterpretedText);
    out.end();
  });
}

void enumerationAttribute(Writer& out, std::string_view name, std::uint32_t value) {
  attribute(out, name, [&](Tag tag) { out.enumeration(tag, value); });
}

void groupAttribute(Writer& out, const std::string& group) {
  if (!group.empty()) {
    attribute(out, kObjectGroup, [&](Tag tag) { out.text(tag, group); });
  }
}

Call identified(Operation operation, const std::string& identifier) {
  Writer out;
  out.text(Tag::uniqueIdentifier, identifier);
  return {operation, out.take()};
}

// Everything that registering a policy tells of the key.
void policyAttributes(Writer& out, const Q7EncPolicyInfo& policy, const std::string& objectGroup) {
  out.begin(Tag::templateAttribute);
  nameAttribute(out, {policy.policyID, strnlen(policy.policyID, sizeof policy.policyID)});
  enumerationAttribute(out, kAlgorithm, kHmacSha256);
  attribute(out, kLength, [&](Tag tag) { out.integer(tag, policy.keyLength * 8); });
  attribute(out, kUsageMask, [&](Tag tag) { out.integer(tag, kDeriveKey); });
  attribute(out, kSpecific, [&](Tag tag) {
    out.begin(tag);
    out.text(Tag::applicationNamespace, kPolicyNamespace);
    out.text(Tag::applicationData, policyText(policy));
    out.end();
  });
  groupAttribute(out, objectGroup);
  out.end();
}

void protocolVersion(Writer& out, Version version) {
  out.begin(Tag::protocolVersion);
  out.integer(Tag::protocolVersionMajor, version.major);
  out.integer(Tag::protocolVersionMinor, version.minor);
  out.end();
}

// Identifies an operation in its batch: its number in the request.
std::array<unsigned char, 4> batchId(std::size_t index) noexcept {
  return {static_cast<unsigned char>(index >> 24), static_cast<unsigned char>(index >> 16),
          static_cast<unsigned char>(index >> 8), static_cast<unsigned char>(index)};
}

// Answers

// The reason of a failed item, in the server's words where they can't hold a key.
std::string reasonOf(const Fields& item, bool withMessage) {
  std::string text = "no reason given";
  if (item.has(Tag::resultReason)) {
    const std::uint32_t reason = item.enumeration(Tag::resultReason);
    text = reason > 0 && reason < std::size(kReasons) ? std::string(kReasons[reason])
           : reason == kGeneralFailure                ? "General Failure"
                                                      : fmt::format("reason {:#x}", reason);
  }
  if (withMessage && item.has(Tag::resultMessage)) {
    text += ": " + shownText(item.text(Tag::resultMessage));
  }
  return text;
}

bool asksForLess(const Fields& item) {
  if (!item.has(Tag::resultReason)) {
    return false;
  }
  const std::uint32_t reason = item.enumeration(Tag::resultReason);
  return reason == kResponseTooLarge || reason == kInvalidMessage || reason == kNotSupported ||
         reason == kFeatureNotSupported;
}

bool sensitive(std::span<const Call> calls) {
  return std::any_of(calls.begin(), calls.end(), [](const Call& call) { return carriesKey(call.operation); });
}

// The answers to one request, item by item.
class AnswerReader {
 public:
  explicit AnswerReader(std::span<const Call> calls) : calls_(calls) { answer_.payloads.resize(calls.size()); }

  void read(const Item& item) {
    const Fields fields(item, fault_);
    const std::size_t index = indexOf(fields);
    const std::uint32_t status = fields.enumeration(Tag::resultStatus);
    if (!fault_.empty() || !answer_.refusal.empty()) {
      return;
    }
    if (status != kSuccess) {
      refuse(fields, index, status);
    } else if (index == kWhole) {
      fault_ = "answers an operation that was not asked for";
    } else {
      accept(fields, index);
    }
  }

  store::Result<Answer> finish() {
    if (!fault_.empty()) {
      return invalid(fault_);
    }
    if (!answer_.refusal.empty()) {
      answer_.payloads.clear();
    } else if (std::count(answer_.payloads.begin(), answer_.payloads.end(), nullptr) != 0) {
      return invalid("does not answer every operation that was asked for");
    }
    return std::move(answer_);
  }

  std::string& fault() noexcept { return fault_; }

 private:
  static constexpr std::size_t kWhole = SIZE_MAX;  // an item about the whole request

  // Which operation an item answers. One that is asked for alone needs no identification.
  std::size_t indexOf(const Fields& item) {
    if (!item.has(Tag::uniqueBatchItemId)) {
      return calls_.size() == 1 ? 0 : kWhole;
    }
    const Bytes id = item.bytes(Tag::uniqueBatchItemId);
    for (std::size_t i = 0; i < calls_.size(); ++i) {
      if (std::ranges::equal(id, batchId(i))) {
        return i;
      }
    }
    return kWhole;
  }

  void refuse(const Fields& item, std::size_t index, std::uint32_t status) {
    if (status == kPending) {
      fault_ = "puts the request off, and only immediate answers are taken";
    } else if (index == kWhole) {
      answer_.refusal = "the request was refused: " + reasonOf(item, !sensitive(calls_));
      answer_.tooLarge = calls_.size() > 1 && status == kFailed && asksForLess(item);
    } else {
      answer_.refusal = fmt::format("{} was refused: {}", operationName(calls_[index].operation),
                                    reasonOf(item, !carriesKey(calls_[index].operation)));
      answer_.tooLarge =
          calls_.size() > 1 && item.has(Tag::resultReason) && item.enumeration(Tag::resultReason) == kResponseTooLarge;
    }
  }

  void accept(const Fields& item, std::size_t index) {
    if (item.enumeration(Tag::operation) != static_cast<std::uint32_t>(calls_[index].operation)) {
      fault_ = fault_.empty() ? "answers another operation than the one that was asked for" : fault_;
      return;
    }
    if (answer_.payloads[index] != nullptr) {
      fault_ = "answers an operation twice";
      return;
    }
    const Item& payload = item.item(Tag::responsePayload);
    if (fault_.empty() && payload.type != Type::structure) {
      fault_ = "Response Payload is of the wrong type";
    }
    answer_.payloads[index] = &payload;
  }

  std::span<const Call> calls_;
  Answer answer_;
  std::string fault_;
};

bool isFailure(const Item& item) {
  std::string fault;
  const Fields fields(item, fault);
  const std::uint32_t status = fields.enumeration(Tag::resultStatus);
  return fault.empty() && status == kFailed;
}

// A policy's attributes, those that count.
struct KeyAttributes {
  std::optional<std::string_view> name;
  std::optional<std::string_view> text;
  std::optional<std::uint32_t> state;
};

template <typename Value>
void once(std::optional<Value>& place, Value value, std::string_view what, std::string& fault) {
  if (place.has_value() && fault.empty()) {
    fault = fmt::format("it has more than one {}", what);
  }
  place = value;
}

void readAttribute(const Fields& attribute, KeyAttributes& found, std::string& fault) {
  const std::string_view name = attribute.text(Tag::attributeName);
  if (name == kName) {
    once(found.name, attribute.structure(Tag::attributeValue).text(Tag::nameValue), "Name", fault);
  } else if (name == kState) {
    once(found.state, attribute.enumeration(Tag::attributeValue), "State", fault);
  } else if (name == kSpecific) {
    const Fields value = attribute.structure(Tag::attributeValue);
    if (value.text(Tag::applicationNamespace) == kPolicyNamespace) {
      once(found.text, value.text(Tag::applicationData), "text of policy fields", fault);
    }
  }
}

// Why attributes are not those of a policy, empty when they are.
std::string attributesFault(const KeyAttributes& found) {
  if (!found.state) return "it has no State";
  if (*found.state != kActive) return "it is not active";
  if (!found.name) return "it has no Name";
  if (!found.text) {
    return fmt::format("it has no Application Specific Information in namespace '{}'", kPolicyNamespace);
  }
  return {};
}

store::Error aboutKey(const std::string& identifier, const std::optional<std::string_view>& name,
                      const std::string& reason) {
  const std::string named = name ? fmt::format(" named '{}'", shownText(*name)) : std::string();
  return invalid(fmt::format("key '{}'{}: {}", shownText(identifier), named, reason));
}

}  // namespace

std::string shownText(std::string_view text) {
  constexpr std::size_t kShown = 100;
  std::string shown(text.substr(0, kShown));
  std::replace_if(
      shown.begin(), shown.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
  return text.size() > kShown ? shown + "..." : shown;
}

Call discoverVersions() {
  return {Operation::discoverVersions, {}};
}

Call locate(const std::string& objectGroup, int limit) {
  Writer out;
  out.integer(Tag::maximumItems, limit);
  enumerationAttribute(out, kObjectType, kSymmetricKey);
  enumerationAttribute(out, kState, kActive);
  groupAttribute(out, objectGroup);
  return {Operation::locate, out.take()};
}

Call getAttributes(const std::string& identifier) {
  Writer out;
  out.text(Tag::uniqueIdentifier, identifier);
  for (const std::string_view name : {kName, kState, kSpecific}) {
    out.text(Tag::attributeName, name);
  }
  return {Operation::getAttributes, out.take()};
}

Call getKey(const std::string& identifier) {
  Writer out;
  out.text(Tag::uniqueIdentifier, identifier);
  out.enumeration(Tag::keyFormatType, kRaw);
  return {Operation::get, out.take()};
}

Call registerKey(const Q7EncPolicyInfo& policy, const std::string& objectGroup) {
  Writer out;
  out.enumeration(Tag::objectType, kSymmetricKey);
  policyAttributes(out, policy, objectGroup);
  out.begin(Tag::symmetricKey);
  out.begin(Tag::keyBlock);
  out.enumeration(Tag::keyFormatType, kRaw);
  out.begin(Tag::keyValue);
  out.bytes(Tag::keyMaterial,
            {reinterpret_cast<const unsigned char*>(policy.columnKey), static_cast<std::size_t>(policy.keyLength)});
  out.end();
  out.enumeration(Tag::cryptographicAlgorithm, kHmacSha256);
  out.integer(Tag::cryptographicLength, policy.keyLength * 8);
  out.end();
  out.end();
  return {Operation::registerObject, out.take()};
}

Call activateKey(const std::string& identifier) {
  return identified(Operation::activate, identifier);
}

Call revokeKey(const std::string& identifier) {
  Writer out;
  out.text(Tag::uniqueIdentifier, identifier);
  out.begin(Tag::revocationReason);
  out.enumeration(Tag::revocationReasonCode, kSuperseded);
  out.end();
  return {Operation::revoke, out.take()};
}

Call destroyKey(const std::string& identifier) {
  return identified(Operation::destroy, identifier);
}

cipher::SecretBytes encodeRequest(std::span<const Call> calls) {
  Writer out;
  out.begin(Tag::requestMessage);
  out.begin(Tag::requestHeader);
  protocolVersion(out, kProtocol);
  out.integer(Tag::maximumResponseSize, static_cast<std::int32_t>(kMaxMessage));
  out.integer(Tag::batchCount, static_cast<std::int32_t>(calls.size()));
  out.end();
  for (std::size_t i = 0; i < calls.size(); ++i) {
    out.begin(Tag::batchItem);
    out.enumeration(Tag::operation, static_cast<std::uint32_t>(calls[i].operation));
    out.bytes(Tag::uniqueBatchItemId, batchId(i));
    out.begin(Tag::requestPayload);
    out.items(calls[i].payload);
    out.end();
    out.end();
  }
  out.end();
  return out.take();
}

store::Result<Answer> readAnswer(const Item& message, std::span<const Call> calls) {
  AnswerReader reader(calls);
  const Fields fields(message, reader.fault());
  const Fields header = fields.structure(Tag::responseHeader);
  const Fields protocol = header.structure(Tag::protocolVersion);
  const Version version{protocol.integer(Tag::protocolVersionMajor), protocol.integer(Tag::protocolVersionMinor)};
  const std::int32_t count = header.integer(Tag::batchCount);
  const std::vector<const Item*> items = fields.all(Tag::batchItem, Type::structure);
  if (!reader.fault().empty()) {
    return reader.finish();
  }
  // A server that can't make sense of a request says so in its oldest version.
  if (version != kProtocol && !(items.size() == 1 && isFailure(*items[0]))) {
    return invalid(fmt::format("is in KMIP {}.{}, and KMIP {}.{} was asked for", version.major, version.minor,
                               kProtocol.major, kProtocol.minor));
  }
  if (count < 0 || items.size() != static_cast<std::size_t>(count) || items.size() > calls.size()) {
    return invalid("does not hold as many items as it says, or as were asked for");
  }
  for (const Item* item : items) {
    reader.read(*item);
  }
  return reader.finish();
}

store::Result<std::vector<Version>> readVersions(const Item& payload) {
  std::string fault;
  std::vector<Version> versions;
  for (const Item* item : Fields(payload, fault).all(Tag::protocolVersion, Type::structure)) {
    const Fields version(*item, fault);
    versions.push_back({version.integer(Tag::protocolVersionMajor), version.integer(Tag::protocolVersionMinor)});
  }
  return fault.empty() ? store::Result<std::vector<Version>>(std::move(versions)) : invalid(fault);
}

store::Result<std::vector<std::string>> readIdentifiers(const Item& payload, int limit) {
  std::string fault;
  std::vector<std::string> identifiers;
  for (const Item* item : Fields(payload, fault).all(Tag::uniqueIdentifier, Type::text)) {
    if (item->value.empty() || item->value.size() > kMaxIdentifier) {
      return invalid(
          fmt::format("Unique Identifier has {} bytes, and 1 to {} are taken", item->value.size(), kMaxIdentifier));
    }
    identifiers.emplace_back(textOf(*item));
  }
  if (!fault.empty()) {
    return invalid(fault);
  }
  if (identifiers.size() > static_cast<std::size_t>(limit)) {
    return invalid(fmt::format("lists {} keys, and {} at most were asked for", identifiers.size(), limit));
  }
  return identifiers;
}

store::Result<std::string> readIdentifier(const Item& payload) {
  const auto identifiers = readIdentifiers(payload, 1);
  if (!identifiers.ok()) {
    return identifiers.error();
  }
  return identifiers.value().empty() ? store::Result<std::string>(invalid("Unique Identifier is missing"))
                                     : identifiers.value().front();
}

store::Status readAttributes(const Item& payload, const std::string& identifier, Q7EncPolicyInfo& policy) {
  std::string fault;
  KeyAttributes found;
  const Fields fields(payload, fault);
  if (fields.text(Tag::uniqueIdentifier) != identifier && fault.empty()) {
    fault = "the answer is about another key";
  }
  for (const Item* item : fields.all(Tag::attribute, Type::structure)) {
    readAttribute(Fields(*item, fault), found, fault);
  }
  fault = fault.empty() ? attributesFault(found) : fault;
  if (!fault.empty()) {
    return aboutKey(identifier, found.name, fault);
  }
  if (const store::Status status = setPolicyName(*found.name, policy); !status.ok()) {
    return aboutKey(identifier, found.name, status.error().text);
  }
  if (const store::Status status = readPolicyText(*found.text, policy); !status.ok()) {
    return aboutKey(identifier, found.name, status.error().text);
  }
  return {};
}

store::Status readKey(const Item& payload, const std::string& identifier, Q7EncPolicyInfo& policy) {
  std::string fault;
  const Fields fields(payload, fault);
  const bool same = fields.text(Tag::uniqueIdentifier) == identifier;
  const bool symmetric = fields.enumeration(Tag::objectType) == kSymmetricKey;
  const Fields block = fields.structure(Tag::symmetricKey).structure(Tag::keyBlock);
  const bool raw = block.enumeration(Tag::keyFormatType) == kRaw;
  const bool plain = !block.has(Tag::keyWrappingData) && !block.has(Tag::keyCompressionType);
  const Bytes material = block.structure(Tag::keyValue).bytes(Tag::keyMaterial);
  const bool whole = !block.has(Tag::cryptographicLength) ||
                     block.integer(Tag::cryptographicLength) == static_cast<std::int64_t>(material.size() * 8);
  if (fault.empty()) {
    fault = !same        ? "the answer is about another key"
            : !symmetric ? "it is no symmetric key"
            : !raw       ? "its key is not given in raw form"
            : !plain     ? "its key is wrapped or compressed"
            : !whole     ? "its key is not as long as its Cryptographic Length"
                         : "";
  }
  const std::string_view name(policy.policyID, strnlen(policy.policyID, sizeof policy.policyID));
  if (!fault.empty()) {
    return aboutKey(identifier, name, fault);
  }
  const store::Status status = setPolicyKey(material, policy);
  return status.ok() ? status : aboutKey(identifier, name, status.error().text);
}

}  // namespace engine::kms
