// SPDX-License-Identifier: Apache-2.0
#include "kezu/query_priv.h"

#include <climits>
#include <utility>

#include "engine/tables/pattern_limits.h"
#include "kezu/engine.h"
#include "kezu/shared.h"

namespace {

constexpr int kAnyType = -1;

bool compile(regex_t& compiled, const std::string& pattern) noexcept {
  return engine::patternIsBounded(pattern) && regcomp(&compiled, pattern.c_str(), REG_EXTENDED | REG_NOSUB) == 0;
}

// Searches the whole text, zero bytes included. A text past 2^31 - 1 bytes can't be searched and matches nothing.
bool matches(const regex_t& compiled, const std::string& text) noexcept {
  if (text.size() > INT_MAX) {
    return false;
  }
  regmatch_t range = {0, static_cast<regoff_t>(text.size())};
  return regexec(&compiled, text.c_str(), 1, &range, REG_STARTEND) == 0;
}

void freeCompiled(regex_t& regex, bool& compiled) noexcept {
  if (compiled) {
    regfree(&regex);
    compiled = false;
  }
}

// The key of a rule's two types, in arithmetic that wraps at 32 bits.
int typeKey(int type, int parentType) noexcept {
  return static_cast<int>(static_cast<unsigned int>(type) + static_cast<unsigned int>(parentType) * 150U + 150U);
}

}  // namespace

Q7QueryPriv::Q7QueryPriv() : regPtn{}, p_regPtn{} {}

Q7QueryPriv::Q7QueryPriv(const Q7QueryPriv& other)
    : queryType(other.queryType),
      p_queryType(other.p_queryType),
      queryPattern(other.queryPattern),
      p_queryPattern(other.p_queryPattern),
      decAction(other.decAction),
      encAction(other.encAction),
      regPtn{},
      p_regPtn{},
      compiled_(other.compiled_ && compile(regPtn, queryPattern)),
      p_compiled_(other.p_compiled_ && compile(p_regPtn, p_queryPattern)) {}

Q7QueryPriv::Q7QueryPriv(Q7QueryPriv&& other) noexcept
    : queryType(other.queryType),
      p_queryType(other.p_queryType),
      queryPattern(std::move(other.queryPattern)),
      p_queryPattern(std::move(other.p_queryPattern)),
      decAction(other.decAction),
      encAction(other.encAction),
      regPtn(other.regPtn),
      p_regPtn(other.p_regPtn),
      compiled_(std::exchange(other.compiled_, false)),
      p_compiled_(std::exchange(other.p_compiled_, false)) {}

Q7QueryPriv& Q7QueryPriv::operator=(const Q7QueryPriv& other) {
  if (this != &other) {
    *this = Q7QueryPriv(other);
  }
  return *this;
}

Q7QueryPriv& Q7QueryPriv::operator=(Q7QueryPriv&& other) noexcept {
  if (this != &other) {
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
  }
  return *this;
}

Q7QueryPriv::~Q7QueryPriv() {
  release();
}

void Q7QueryPriv::release() noexcept {
  freeCompiled(regPtn, compiled_);
  freeCompiled(p_regPtn, p_compiled_);
}

bool Q7QueryPriv::compileRegex() {
  release();
  compiled_ = compile(regPtn, queryPattern);
  p_compiled_ = compile(p_regPtn, p_queryPattern);
  return compiled_ && p_compiled_;
}

bool Q7QueryPriv::checkPattern(const std::string& statement, const std::string& parentStatement) const {
  return compiled_ && p_compiled_ && matches(regPtn, statement) && matches(p_regPtn, parentStatement);
}

bool Q7QueryPriv::check(int type, const std::string& statement, int parentType,
                        const std::string& parentStatement) const {
  return (queryType == kAnyType || queryType == type) && (p_queryType == kAnyType || p_queryType == parentType) &&
         checkPattern(statement, parentStatement);
}

int Q7QueryPriv::insert(Q7QueryPriv& rule) {
  try {
    Q7QueryPriv copy;
    copy.queryType = rule.queryType;
    copy.p_queryType = rule.p_queryType;
    copy.queryPattern = rule.queryPattern;
    copy.p_queryPattern = rule.p_queryPattern;
    copy.decAction = rule.decAction;
    copy.encAction = rule.encAction;
    copy.compileRegex();
    const Q7QueryPrivWriter writer;
    const int count = kezu::observe(g_numberOfQueryPriv);
    if (count < 0 || count >= kMaxQueryPrivs) {
      return -1;
    }
    g_queryPriv[count].sqlType = typeKey(copy.queryType, copy.p_queryType);
    g_queryPriv[count].queryPriv = std::move(copy);
    kezu::publish(g_numberOfQueryPriv, count + 1);
    return 0;
  } catch (...) {
    return -1;
  }
}
