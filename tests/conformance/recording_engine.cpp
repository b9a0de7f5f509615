// SPDX-License-Identifier: Apache-2.0
#include "recording_engine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

#include "recording_tables.h"

namespace conformance {
namespace {

// Operations that belong into a change: they save, or fill the next slot.
bool belongsIntoChange(std::string_view operation) {
  return operation.starts_with("Q7_Save") || operation == "Q7_AddPolicyInfo" || operation == "BCIPHER_DupKey";
}

// Operations that don't: they replace tables, wait for another machine, or stand on the path of a row.
bool hasNoPlaceInChange(std::string_view operation) {
  constexpr std::array<std::string_view, 4> kOfRows = {"Q7_EncryptBinaryExt", "Q7_DecryptBinaryExt", "kezuHashBinary",
                                                       "kezuHmacBinary"};
  return operation.starts_with("Q7_Reload") || operation.starts_with("Q7_Load") ||
         operation == "Q7_GetPolicyInfoFromKMS" || operation == "compareLocalAndKMSPolicy" ||
         operation == "kezuInitialize" || std::find(kOfRows.begin(), kOfRows.end(), operation) != kOfRows.end();
}

void checkChange(const std::string& operation) {
  EXPECT_TRUE(holdsChange() || !belongsIntoChange(operation)) << operation << " outside a change";
  EXPECT_FALSE(holdsChange() && hasNoPlaceInChange(operation)) << operation << " inside a change";
}

}  // namespace

RecordingEngine& RecordingEngine::get() {
  static RecordingEngine engine;
  return engine;
}

void RecordingEngine::reset() {
  clearTables();
  const std::scoped_lock lock(mutex_);
  journal_.clear();
  events_.clear();
  cipher_calls_.clear();
  answers_.clear();
  next_answers_.clear();
  texts_.clear();
  hooks_.clear();
  fill_policy_ = nullptr;
  cipher_answers_.clear();
  key_states_.clear();
  keys_.clear();
}

void RecordingEngine::answer(const std::string& operation, int result) {
  const std::scoped_lock lock(mutex_);
  answers_[operation] = result;
}

void RecordingEngine::answerNext(const std::string& operation, std::initializer_list<int> results) {
  const std::scoped_lock lock(mutex_);
  next_answers_[operation].assign(results);
}

void RecordingEngine::answerText(const std::string& operation, const std::string& text) {
  const std::scoped_lock lock(mutex_);
  texts_[operation] = text;
}

void RecordingEngine::onCall(const std::string& operation, std::function<void()> hook) {
  const std::scoped_lock lock(mutex_);
  hooks_[operation] = std::move(hook);
}

void RecordingEngine::answerCipher(std::initializer_list<CipherAnswer> answers) {
  answerCipher(std::vector<CipherAnswer>(answers));
}

void RecordingEngine::answerCipher(std::vector<CipherAnswer> answers) {
  const std::scoped_lock lock(mutex_);
  cipher_answers_.assign(answers.begin(), answers.end());
}

void RecordingEngine::onPolicyFilled(std::function<void(Q7EncPolicyInfo&)> change) {
  const std::scoped_lock lock(mutex_);
  fill_policy_ = std::move(change);
}

BCipherKey RecordingEngine::makeKey(const std::string& name) {
  const std::scoped_lock lock(mutex_);
  BCipherKey key = &keys_.emplace_back();
  key_states_[key].name = name;
  return key;
}

std::vector<std::string> RecordingEngine::calls() const {
  const std::scoped_lock lock(mutex_);
  std::vector<std::string> lines;
  for (const Call& call : journal_) {
    lines.push_back(call.operation + "(" + call.arguments + ")");
  }
  return lines;
}

std::vector<std::string> RecordingEngine::calls(const std::string& operation) const {
  std::vector<std::string> lines;
  for (std::string& line : calls()) {
    if (line.starts_with(operation + "(")) {
      lines.push_back(std::move(line));
    }
  }
  return lines;
}

std::vector<std::string> RecordingEngine::operations() const {
  const std::scoped_lock lock(mutex_);
  std::vector<std::string> names;
  for (const Call& call : journal_) {
    names.push_back(call.operation);
  }
  return names;
}

std::size_t RecordingEngine::count(const std::string& operation) const {
  return calls(operation).size();
}

std::vector<Event> RecordingEngine::events() const {
  const std::scoped_lock lock(mutex_);
  return events_;
}

std::vector<CipherCall> RecordingEngine::cipherCalls() const {
  const std::scoped_lock lock(mutex_);
  return cipher_calls_;
}

KeyState RecordingEngine::keyState(BCipherKey key) const {
  const std::scoped_lock lock(mutex_);
  auto found = key_states_.find(key);
  return found == key_states_.end() ? KeyState{} : found->second;
}

void RecordingEngine::clearJournal() {
  const std::scoped_lock lock(mutex_);
  journal_.clear();
  events_.clear();
  cipher_calls_.clear();
}

void RecordingEngine::enter(const std::string& operation, const std::string& arguments) {
  EXPECT_TRUE(operation == "Q7QueryPriv::insert" || !holdsRuleTable()) << operation;
  checkChange(operation);
  std::function<void()> hook;
  {
    const std::scoped_lock lock(mutex_);
    journal_.push_back({operation, arguments});
    if (auto found = hooks_.find(operation); found != hooks_.end()) {
      hook = found->second;
    }
  }
  if (hook) {
    hook();
  }
}

int RecordingEngine::resultOf(const std::string& operation, int fallback) {
  const std::scoped_lock lock(mutex_);
  if (auto next = next_answers_.find(operation); next != next_answers_.end() && !next->second.empty()) {
    const int result = next->second.front();
    next->second.pop_front();
    return result;
  }
  auto found = answers_.find(operation);
  return found == answers_.end() ? fallback : found->second;
}

std::string RecordingEngine::textOf(const std::string& operation, const std::string& fallback) const {
  const std::scoped_lock lock(mutex_);
  auto found = texts_.find(operation);
  return found == texts_.end() ? fallback : found->second;
}

void RecordingEngine::addEvent(Event event) {
  const std::scoped_lock lock(mutex_);
  events_.push_back(std::move(event));
}

bool RecordingEngine::takeCipherAnswer(const CipherCall& call, CipherAnswer& answer) {
  const std::scoped_lock lock(mutex_);
  cipher_calls_.push_back(call);
  if (cipher_answers_.empty()) {
    return false;
  }
  answer = std::move(cipher_answers_.front());
  cipher_answers_.pop_front();
  return true;
}

void RecordingEngine::fillPolicy(Q7EncPolicyInfo& policy) {
  std::function<void(Q7EncPolicyInfo&)> change;
  {
    const std::scoped_lock lock(mutex_);
    change = fill_policy_;
  }
  if (change) {
    change(policy);
  }
}

std::string RecordingEngine::keyName(BCipherKey key) const {
  if (key == nullptr) {
    return "null";
  }
  const KeyState state = keyState(key);
  return state.name.empty() ? "unknown" : state.name;
}

void RecordingEngine::setKeyState(BCipherKey key, bool wiped, bool deleted) {
  const std::scoped_lock lock(mutex_);
  if (auto found = key_states_.find(key); found != key_states_.end()) {
    found->second.wiped = found->second.wiped || wiped;
    found->second.deleted = found->second.deleted || deleted;
  }
}

std::string inQuotes(std::string_view bytes) {
  std::string text = "\"";
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte < 0x7F) {
      text += c;
      continue;
    }
    std::array<char, 5> escape = {};
    std::snprintf(escape.data(), escape.size(), "\\x%02x", byte);
    text += escape.data();
  }
  return text + "\"";
}

std::string transformed(std::string_view clear, const Q7EncPolicyInfo& policy) {
  const auto mask = static_cast<unsigned char>(0x80U | static_cast<unsigned char>(policy.columnKey[0]));
  std::string text = "\x81";
  for (const char c : clear) {
    text += static_cast<char>(static_cast<unsigned char>(c) ^ mask);
  }
  return text;
}

}  // namespace conformance
