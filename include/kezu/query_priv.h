// SPDX-License-Identifier: Apache-2.0
//
// A query-privilege rule: an action for statements of certain types whose text matches certain patterns.
#pragma once

#include <regex.h>

#include <string>

#pragma GCC visibility push(default)

// A pattern is a POSIX extended regular expression (IEEE Std 1003.1, regcomp with REG_EXTENDED | REG_NOSUB), searched
// anywhere in the text, zero bytes included. An empty pattern matches every text. A pattern that does not compile
// matches none.
//
// So that no pattern can take a server's memory or stack, these don't compile either: patterns past the limits of
// engine/tables/pattern_limits.h (8192 bytes, parentheses 64 deep, a cost of 8192 for what repetitions expand to),
// patterns with a zero byte, and back-references (\1 to \9), which extended expressions don't have.
//
// Each object owns the compiled forms of its own patterns: a copy compiles them anew, a move takes them over. Not safe
// for use by several threads while one of them changes it: those of g_queryPriv have the guard below.
class Q7QueryPriv {
 public:
  Q7QueryPriv();
  Q7QueryPriv(const Q7QueryPriv& other);
  Q7QueryPriv(Q7QueryPriv&& other) noexcept;
  Q7QueryPriv& operator=(const Q7QueryPriv& other);
  Q7QueryPriv& operator=(Q7QueryPriv&& other) noexcept;
  ~Q7QueryPriv();

  // Compiles both patterns, releasing what was compiled before. Returns true when both compile; a pattern that does not
  // is kept and never matches.
  bool compileRegex();

  // Whether `statement` matches queryPattern and `parentStatement` matches p_queryPattern. Time and memory are
  // regexec's and have no bound of their own: an unlucky pattern, such as (a|b)*a(a|b){20}c, takes seconds on 10 KB of
  // text, and the compiled form grows with what it has matched until it is compiled anew. Not for a per-row path.
  bool checkPattern(const std::string& statement, const std::string& parentStatement) const;

  // Appends a copy of `rule`, compiled, to g_queryPriv. The entry's key is queryType + p_queryType * 150 + 150. Returns
  // 0; non-zero when the table is full (2000 rules) or memory runs out, with nothing changed. Several threads may
  // insert at once: it takes the guard as the writer, which the caller may hold as the writer, but not as a reader.
  static int insert(Q7QueryPriv& rule);

  // Whether the rule applies to a statement of type `type` with text `statement` that runs inside a statement of type
  // `parentType` with text `parentStatement` (-1 and "" when there is none). A rule's type of -1 matches every type.
  bool check(int type, const std::string& statement, int parentType, const std::string& parentStatement) const;

  int queryType = -1;          // index into sqlType, -1 for none
  int p_queryType = -1;        // the same, of the enclosing statement
  std::string queryPattern;    // pattern of the statement's text
  std::string p_queryPattern;  // pattern of the enclosing statement's text
  int decAction = 0;           // action code for decryption
  int encAction = 0;           // action code for encryption
  regex_t regPtn;              // compiled form of queryPattern; valid only while compiled
  regex_t p_regPtn;            // compiled form of p_queryPattern; valid only while compiled

 private:
  void release() noexcept;

  bool compiled_ = false;    // regPtn is valid
  bool p_compiled_ = false;  // p_regPtn is valid
};

// How a thread uses the rule table: many read it at once, or one changes it.
enum Q7QueryPrivUse : int { Q7_QUERY_PRIV_READ = 0, Q7_QUERY_PRIV_WRITE = 1 };

extern "C" {

// The guard of the rule table (g_queryPriv and g_numberOfQueryPriv). The other tables are plain words, which
// kezu/shared.h makes safe to share; a rule owns memory that a change of the table frees, so whoever reads the table
// holds the guard for reading, and whoever changes it for writing. The engine holds it inside Q7QueryPriv::insert, and
// in a reload and a save while it replaces and copies the rules.
//
// Lock waits until the table can be used so; Unlock, on the same thread and with the same use, ends that. They don't
// fail. A thread that holds the guard for writing may lock it again, for either use. One that holds it for reading may
// not, and no thread may call an operation of kezu/engine.h (start, load, reload, save) or begin a change
// (kezu/change.h) while it holds the guard, or it may wait for ever. Hold it only while touching the table: not across
// a log line either.
void Q7_LockQueryPriv(Q7QueryPrivUse use) noexcept;
void Q7_UnlockQueryPriv(Q7QueryPrivUse use) noexcept;

}  // extern "C"

// Holds the guard of the rule table as long as it lives.
template <Q7QueryPrivUse Use>
class Q7QueryPrivGuard {
 public:
  Q7QueryPrivGuard() noexcept { Q7_LockQueryPriv(Use); }
  Q7QueryPrivGuard(const Q7QueryPrivGuard&) = delete;
  Q7QueryPrivGuard& operator=(const Q7QueryPrivGuard&) = delete;
  ~Q7QueryPrivGuard() { Q7_UnlockQueryPriv(Use); }
};
using Q7QueryPrivReader = Q7QueryPrivGuard<Q7_QUERY_PRIV_READ>;
using Q7QueryPrivWriter = Q7QueryPrivGuard<Q7_QUERY_PRIV_WRITE>;

#pragma GCC visibility pop
