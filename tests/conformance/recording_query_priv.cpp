// SPDX-License-Identifier: Apache-2.0
//
// Q7QueryPriv and the guard of the rule table as the engine implements them, with insert() recorded.
#include "kezu/query_priv.h"

#include <gtest/gtest.h>

#include <shared_mutex>
#include <utility>

#include "kezu/engine.h"
#include "recording_engine.h"

namespace {

constinit std::shared_mutex rule_table;
constinit thread_local int readers = 0;  // how often this thread holds the table for reading
constinit thread_local int writers = 0;  // how often this thread holds the table for writing

bool matches(bool compiled, const regex_t& pattern, const std::string& text) {
  return compiled && regexec(&pattern, text.c_str(), 0, nullptr, 0) == 0;
}

bool compile(regex_t& pattern, const std::string& source) {
  return regcomp(&pattern, source.c_str(), REG_EXTENDED | REG_NOSUB) == 0;
}

}  // namespace

extern "C" {

void Q7_LockQueryPriv(Q7QueryPrivUse use) noexcept {
  EXPECT_EQ(readers, 0) << "a thread that reads the rule table may wait for itself";
  if (readers > 0) {
    ++readers;
  } else if (writers > 0) {
    ++writers;
  } else if (use == Q7_QUERY_PRIV_READ) {
    rule_table.lock_shared();
    readers = 1;
  } else {
    rule_table.lock();
    writers = 1;
  }
}

void Q7_UnlockQueryPriv(Q7QueryPrivUse /*use*/) noexcept {
  if (readers > 0) {
    if (--readers == 0) {
      rule_table.unlock_shared();
    }
  } else if (--writers == 0) {
    rule_table.unlock();
  }
}

}  // extern "C"

bool conformance::holdsRuleTable() {
  return readers > 0 || writers > 0;
}

Q7QueryPriv::Q7QueryPriv() : regPtn{}, p_regPtn{} {}

Q7QueryPriv::Q7QueryPriv(const Q7QueryPriv& other) : Q7QueryPriv() {
  *this = other;
}

Q7QueryPriv::Q7QueryPriv(Q7QueryPriv&& other) noexcept : Q7QueryPriv() {
  *this = std::move(other);
}

Q7QueryPriv& Q7QueryPriv::operator=(const Q7QueryPriv& other) {
  if (this == &other) {
    return *this;
  }
  release();
  queryType = other.queryType;
  p_queryType = other.p_queryType;
  queryPattern = other.queryPattern;
  p_queryPattern = other.p_queryPattern;
  decAction = other.decAction;
  encAction = other.encAction;
  if (other.compiled_ || other.p_compiled_) {
    compileRegex();
  }
  return *this;
}

Q7QueryPriv& Q7QueryPriv::operator=(Q7QueryPriv&& other) noexcept {
  if (this == &other) {
    return *this;
  }
  release();
  queryType = other.queryType;
  p_queryType = other.p_queryType;
  queryPattern = std::move(other.queryPattern);
  p_queryPattern = std::move(other.p_queryPattern);
  decAction = other.decAction;
  encAction = other.encAction;
  regPtn = other.regPtn;
  p_regPtn = other.p_regPtn;
  compiled_ = std::exchange(other.compiled_, false);
  p_compiled_ = std::exchange(other.p_compiled_, false);
  return *this;
}

Q7QueryPriv::~Q7QueryPriv() {
  release();
}

void Q7QueryPriv::release() noexcept {
  if (std::exchange(compiled_, false)) {
    regfree(&regPtn);
  }
  if (std::exchange(p_compiled_, false)) {
    regfree(&p_regPtn);
  }
}

bool Q7QueryPriv::compileRegex() {
  release();
  compiled_ = compile(regPtn, queryPattern);
  p_compiled_ = compile(p_regPtn, p_queryPattern);
  return compiled_ && p_compiled_;
}

bool Q7QueryPriv::checkPattern(const std::string& statement, const std::string& parentStatement) const {
  return matches(compiled_, regPtn, statement) && matches(p_compiled_, p_regPtn, parentStatement);
}

bool Q7QueryPriv::check(int type, const std::string& statement, int parentType,
                        const std::string& parentStatement) const {
  return (queryType == -1 || queryType == type) && (p_queryType == -1 || p_queryType == parentType) &&
         checkPattern(statement, parentStatement);
}

int Q7QueryPriv::insert(Q7QueryPriv& rule) {
  auto& engine = conformance::RecordingEngine::get();
  engine.enter("Q7QueryPriv::insert", std::to_string(rule.queryType) + ", " + conformance::inQuotes(rule.queryPattern) +
                                          ", " + std::to_string(rule.p_queryType) + ", " +
                                          conformance::inQuotes(rule.p_queryPattern) + ", " +
                                          std::to_string(rule.decAction) + ", " + std::to_string(rule.encAction));
  const int result = engine.resultOf("Q7QueryPriv::insert");
  const Q7QueryPrivWriter writer;
  if (result != 0 || g_numberOfQueryPriv >= kMaxQueryPrivs) {
    return result != 0 ? result : 1;
  }
  Q7QueryPrivData& entry = g_queryPriv[g_numberOfQueryPriv];
  entry.sqlType = rule.queryType + rule.p_queryType * 150 + 150;
  entry.queryPriv = rule;
  entry.queryPriv.compileRegex();
  ++g_numberOfQueryPriv;
  return 0;
}
