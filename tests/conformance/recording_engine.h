// SPDX-License-Identifier: Apache-2.0
//
// A stand-in for libkezu that the UDF library is linked with in these tests. It defines every global and operation of
// include/, writes each call with its arguments into one ordered journal, and answers with what the test has set.
// What the test has not set succeeds with plausible results.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <initializer_list>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "bcipher/bcipher.h"
#include "kezu/engine.h"
#include "logw/logw.h"

namespace conformance {

// One audit event as it reached lw_log.
struct Event {
  lw_category* category = nullptr;
  int level = 0;
  std::vector<std::string> texts;  // the entries before the first null pointer
  bool nulls_behind = false;       // whether every entry behind them, up to 1024 in all, is a null pointer
};

// What one encryption or decryption is to yield.
struct CipherAnswer {
  std::string bytes;
  unsigned int length = 0;  // what the operation says it wrote; may differ from the size of `bytes`
  int result = 0;

  static CipherAnswer text(std::string_view output) {
    return {std::string(output), static_cast<unsigned int>(output.size()), 0};
  }
};

// One encryption or decryption as it reached the engine.
struct CipherCall {
  std::string operation;
  std::string input;
  unsigned int capacity = 0;
  Q7EncPolicyInfo policy = {};
  BCipherKey key = nullptr;
  const unsigned char* output = nullptr;  // the caller's buffer
};

// A key handle and what became of it.
struct KeyState {
  std::string name;
  bool wiped = false;
  bool deleted = false;
};

// The one recorder of the process. Its operations may be called from any thread.
class RecordingEngine {
 public:
  static RecordingEngine& get();

  // Empties the journal, the script and all tables of the engine.
  void reset();

  // --- The script ---

  // Every call of the operation returns `result` from now on.
  void answer(const std::string& operation, int result);

  // The next calls return these results, one each, before what answer() says.
  void answerNext(const std::string& operation, std::initializer_list<int> results);

  // The text that an operation gives back beside its result (a message, a policy name).
  void answerText(const std::string& operation, const std::string& text);

  // Runs inside every call of the operation, after it was written down; may throw.
  void onCall(const std::string& operation, std::function<void()> hook);

  // What the next encryptions and decryptions yield, one each. Without them a reversible transformation runs.
  void answerCipher(std::initializer_list<CipherAnswer> answers);
  void answerCipher(std::vector<CipherAnswer> answers);

  // Runs inside Q7_AddPolicyInfo on the record that it has filled.
  void onPolicyFilled(std::function<void(Q7EncPolicyInfo&)> change);

  // A key handle of the test's own, found by its name in the journal.
  BCipherKey makeKey(const std::string& name);

  // --- The journal ---

  // All calls in order, as "operation(arguments)"; `operation` alone gives those of one operation.
  std::vector<std::string> calls() const;
  std::vector<std::string> calls(const std::string& operation) const;

  // All calls in order, without arguments.
  std::vector<std::string> operations() const;

  // How often the operation was called.
  std::size_t count(const std::string& operation) const;

  // Audit events, ciphers and handles in order.
  std::vector<Event> events() const;
  std::vector<CipherCall> cipherCalls() const;
  KeyState keyState(BCipherKey key) const;

  // Forgets the calls so far and keeps the script.
  void clearJournal();

  // --- For the operations themselves ---

  // Writes a call down, then runs its hook. The test fails when the caller holds the rule table, which no operation but
  // Q7QueryPriv::insert allows, and when it holds the guard of changes, or does not, where it is the other way round.
  void enter(const std::string& operation, const std::string& arguments);
  int resultOf(const std::string& operation, int fallback = 0);
  std::string textOf(const std::string& operation, const std::string& fallback = "") const;
  void addEvent(Event event);
  // The scripted answer to this call, or false.
  bool takeCipherAnswer(const CipherCall& call, CipherAnswer& answer);
  void fillPolicy(Q7EncPolicyInfo& policy);
  std::string keyName(BCipherKey key) const;
  void setKeyState(BCipherKey key, bool wiped, bool deleted);

 private:
  RecordingEngine() = default;

  struct Call {
    std::string operation;
    std::string arguments;
  };

  mutable std::mutex mutex_;
  std::vector<Call> journal_;
  std::vector<Event> events_;
  std::vector<CipherCall> cipher_calls_;
  std::map<std::string, int> answers_;
  std::map<std::string, std::deque<int>> next_answers_;
  std::map<std::string, std::string> texts_;
  std::map<std::string, std::function<void()>> hooks_;
  std::function<void(Q7EncPolicyInfo&)> fill_policy_;
  std::deque<CipherAnswer> cipher_answers_;
  std::deque<_BCipherKey> keys_;
  std::map<BCipherKey, KeyState> key_states_;
};

// Whether this thread holds the guard of the rule table, and the guard of changes.
bool holdsRuleTable();
bool holdsChange();

// From now on `first` runs whenever the thread of the test is about to begin a change, as another connection does whose
// change comes before: with 1 for the next change, 2 for the one behind it. An empty function ends that.
void beforeChanges(std::function<void(int number)> first);

// A byte string as the journal writes it: in quotes, bytes that are not printable ASCII as \xNN.
std::string inQuotes(std::string_view bytes);

// The transformation that encryptions run when nothing is scripted: a marker byte, then every byte with its high bit
// turned, so that no output is printable text.
std::string transformed(std::string_view clear, const Q7EncPolicyInfo& policy);

}  // namespace conformance
