// SPDX-License-Identifier: Apache-2.0
#include "engine/kms/policy_fields.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "engine/policy/policy_key.h"
#include "engine/store/codec.h"

namespace engine::kms {
namespace {

constexpr std::string_view kTextVersion = "v1";
constexpr std::string_view kDigits = "0123456789abcdef";

store::Error invalid(std::string reason) {
  return {store::Error::Kind::invalid, std::move(reason)};
}

bool isLetterOrDigit(char c) noexcept {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
}

// Visitor that writes a policy's fields. The name and the key have places of their own on the server.
class TextWriter {
 public:
  template <std::size_t N>
  void text(const char* /*name*/, const char (&/*field*/)[N]) {}
  template <std::size_t N>
  void key(const char* /*name*/, const char (&/*field*/)[N], int /*length*/) {}
  void number(const char* name, int value, int /*low*/, int /*high*/) { text_ += fmt::format(" {}={}", name, value); }
  template <std::size_t N>
  void bytes(const char* name, const char (&field)[N], int length) {
    text_ += fmt::format(" {}=", name);
    for (int i = 0; i < length; ++i) {
      text_ += fmt::format("{:02x}", static_cast<unsigned char>(field[i]));
    }
  }

  std::string take() { return std::move(text_); }

 private:
  std::string text_{kTextVersion};
};

// Visitor that reads what TextWriter writes. The first field that can't be accepted is remembered.
class TextReader {
 public:
  explicit TextReader(std::string_view text) : rest_(text) {
    if (nextWord() != kTextVersion) {
      fault_ = fmt::format("its fields are not of version {}", kTextVersion);
    }
  }

  template <std::size_t N>
  void text(const char* /*name*/, const char (&/*field*/)[N]) {}
  template <std::size_t N>
  void key(const char* /*name*/, const char (&/*field*/)[N], int /*length*/) {}

  void number(const char* name, int& value, int low, int high) {
    const std::string_view word = valueOf(name);
    if (!fault_.empty()) {
      return;
    }
    int number = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    if (error != std::errc() || end != word.data() + word.size() || fmt::format("{}", number) != word || number < low ||
        number > high) {
      fail(name, "is out of range");
      return;
    }
    value = number;
  }

  template <std::size_t N>
  void bytes(const char* name, char (&field)[N], int& length) {
    const std::string_view word = valueOf(name);
    if (word.size() % 2 != 0 || word.size() / 2 > N || word.find_first_not_of(kDigits) != std::string_view::npos) {
      fail(name, "is out of range");
      return;
    }
    std::memset(field, 0, N);
    for (std::size_t i = 0; i < word.size() / 2; ++i) {
      field[i] = static_cast<char>(kDigits.find(word[2 * i]) << 4 | kDigits.find(word[2 * i + 1]));
    }
    length = static_cast<int>(word.size() / 2);
  }

  // Why the text can't be accepted, empty when it can. To be called last.
  std::string fault() const {
    return fault_.empty() && !ended_ ? "its fields are more than this release knows" : fault_;
  }

 private:
  // Up to the next space, which is taken too.
  std::string_view nextWord() {
    const std::size_t space = rest_.find(' ');
    const std::string_view word = rest_.substr(0, space);
    ended_ = space == std::string_view::npos;
    rest_ = ended_ ? std::string_view() : rest_.substr(space + 1);
    return word;
  }

  std::string_view valueOf(std::string_view name) {
    if (!fault_.empty()) {
      return {};
    }
    const std::string_view word = ended_ ? std::string_view() : nextWord();
    if (!word.starts_with(name) || !word.substr(name.size()).starts_with('=')) {
      fail(name, "is missing");
      return {};
    }
    return word.substr(name.size() + 1);
  }

  void fail(std::string_view name, const char* reason) {
    if (fault_.empty()) {
      fault_ = fmt::format("'{}' {}", name, reason);
    }
  }

  std::string_view rest_;
  bool ended_ = false;
  std::string fault_;
};

store::Status checkName(std::string_view name) {
  if (name.size() > kMaxPolicyName) {
    return invalid(fmt::format("its name is longer than {} bytes", kMaxPolicyName));
  }
  if (!std::all_of(name.begin(), name.end(), isLetterOrDigit)) {
    return invalid("its name has other characters than letters and digits");
  }
  return {};
}

// Everything but name and key.
void takeFields(const Q7EncPolicyInfo& from, Q7EncPolicyInfo& to) noexcept {
  to.algID = from.algID;
  to.ivMode = from.ivMode;
  to.encPos = from.encPos;
  to.encLen = from.encLen;
  to.blockMode = from.blockMode;
  to.strMode = from.strMode;
  std::memcpy(to.encFlag, from.encFlag, sizeof to.encFlag);
  to.encFlagLen = from.encFlagLen;
}

}  // namespace

std::string policyText(const Q7EncPolicyInfo& policy) {
  if (policy.encFlagLen < 0 || policy.encFlagLen > static_cast<int>(sizeof policy.encFlag)) {
    return {};
  }
  TextWriter writer;
  store::fields(writer, const_cast<Q7EncPolicyInfo&>(policy));  // the writer only reads
  return writer.take();
}

store::Status readPolicyText(std::string_view text, Q7EncPolicyInfo& policy) {
  if (text.size() > kMaxPolicyText) {
    return invalid(fmt::format("its fields are longer than {} bytes", kMaxPolicyText));
  }
  Q7EncPolicyInfo read{};
  TextReader reader(text);
  store::fields(reader, read);
  if (const std::string fault = reader.fault(); !fault.empty()) {
    return invalid(fault);
  }
  read.keyLength = 1;  // of any policy, for the check of how the fields go together
  if (store::Status status = checkPolicy(read); !status.ok()) {
    return status;
  }
  takeFields(read, policy);
  return {};
}

store::Status setPolicyName(std::string_view name, Q7EncPolicyInfo& policy) {
  if (store::Status status = checkName(name); !status.ok()) {
    return status;
  }
  std::memset(policy.policyID, 0, sizeof policy.policyID);
  std::copy(name.begin(), name.end(), policy.policyID);
  return {};
}

store::Status setPolicyKey(std::span<const unsigned char> key, Q7EncPolicyInfo& policy) {
  if (key.empty() || key.size() > kMaxPolicyKey) {
    return invalid(fmt::format("its key has {} bytes, and 1 to {} are allowed", key.size(), kMaxPolicyKey));
  }
  OPENSSL_cleanse(policy.columnKey, sizeof policy.columnKey);
  std::copy(key.begin(), key.end(), policy.columnKey);
  policy.keyLength = static_cast<int>(key.size());
  return {};
}

store::Status checkPolicy(const Q7EncPolicyInfo& policy) {
  const char* fault = policyFault(policy);
  return fault == nullptr ? checkName(policy.policyID) : store::Status(invalid(fault));
}

}  // namespace engine::kms
