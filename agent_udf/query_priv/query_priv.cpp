// SPDX-License-Identifier: Apache-2.0
#include "query_priv/query_priv.h"

#include <boost/lexical_cast.hpp>
#include <utility>

#include "conf/audit_event.h"
#include "kezu/shared.h"
#include "logw/logw.h"

namespace {

constexpr int kAdded = 1;
constexpr int kChanged = 2;
constexpr int kDeleted = 3;
constexpr int kFull = -2;

int count() {
  return kezu::observe(g_numberOfQueryPriv);
}

// What identifies a rule.
struct RuleKey {
  int type1;
  int type2;
  const std::string& ptn1;
  const std::string& ptn2;

  RuleKey(const std::string& name1, const std::string& pattern1, const std::string& name2, const std::string& pattern2)
      : type1(parseQueryType(name1)), type2(parseQueryType(name2)), ptn1(pattern1), ptn2(pattern2) {}

  int combinedType() const { return type1 + type2 * kSqlTypeCount + kSqlTypeCount; }
};

// The rule with this key, or null. The caller holds the guard of the table.
Q7QueryPrivData* find(const RuleKey& key) {
  for (int i = 0; i < count(); ++i) {
    Q7QueryPrivData& entry = g_queryPriv[i];
    if (entry.sqlType == key.combinedType() && entry.queryPriv.queryPattern == key.ptn1 &&
        entry.queryPriv.p_queryPattern == key.ptn2) {
      return &entry;
    }
  }
  return nullptr;
}

// Changes the action of the rule, or adds it.
int store(const RuleKey& key, int priv) {
  const Q7QueryPrivWriter writer;
  if (Q7QueryPrivData* found = find(key)) {
    found->queryPriv.decAction = priv;
    return kChanged;
  }
  Q7QueryPriv rule;
  rule.queryType = key.type1;
  rule.p_queryType = key.type2;
  rule.queryPattern = key.ptn1;
  rule.p_queryPattern = key.ptn2;
  rule.decAction = priv;
  return Q7QueryPriv::insert(rule) == 0 ? kAdded : kFull;
}

// Takes the rule out of the table, if it is there; the last one moves into its place.
bool take(const RuleKey& key) {
  const Q7QueryPrivWriter writer;
  Q7QueryPrivData* found = find(key);
  if (found == nullptr) {
    return false;
  }
  Q7QueryPrivData* last = &g_queryPriv[count() - 1];
  if (found != last) {
    found->sqlType = last->sqlType;
    found->queryPriv = std::move(last->queryPriv);
  }
  last->queryPriv = Q7QueryPriv();
  kezu::publish(g_numberOfQueryPriv, count() - 1);
  return true;
}

void report(const char* action, const std::string& type1, const std::string& ptn1, const std::string& type2,
            const std::string& ptn2, const std::string& priv) {
  writeAuditEvent(kLogChange,
                  {{"group", "policy"},
                   {"desc", std::string(action) + " QUERY PRIVILEGE: type1[" + type1 + "] ptn1[" + ptn1 + "] type2[" +
                                type2 + "] ptn2[" + ptn2 + "]" + priv + " query priv setted"}});
}

}  // namespace

int parseQueryType(const std::string& name) {
  for (int i = 0; i < kSqlTypeCount && sqlType[i] != nullptr; ++i) {
    if (name == sqlType[i]) {
      return i;
    }
  }
  return -1;
}

namespace query_priv {

int set(const std::string& type1, const std::string& ptn1, const std::string& type2, const std::string& ptn2,
        int priv) {
  const int result = store(RuleKey(type1, ptn1, type2, ptn2), priv);
  if (result > 0) {
    report(result == kAdded ? "ADD" : "CHANGE", type1, ptn1, type2, ptn2, " priv[" + std::to_string(priv) + "]");
  }
  return result;
}

int remove(const std::string& type1, const std::string& ptn1, const std::string& type2, const std::string& ptn2) {
  if (!take(RuleKey(type1, ptn1, type2, ptn2))) {
    return 0;
  }
  report("DELETE", type1, ptn1, type2, ptn2, "");
  return kDeleted;
}

int size() {
  return kezu::observe(g_numberOfEncColumn);
}

Q7QueryPriv* get(int index) {
  const bool has_record = index >= 0 && index < kMaxQueryPrivs && index <= count();
  return has_record ? &g_queryPriv[index].queryPriv : nullptr;
}

std::string get(int index, int field) {
  const Q7QueryPrivReader reader;
  const Q7QueryPriv* rule = get(index);
  if (rule == nullptr) {
    return "";
  }
  switch (field) {
    case 0:
      return boost::lexical_cast<std::string>(rule->queryType);
    case 1:
      return rule->queryPattern;
    case 2:
      return boost::lexical_cast<std::string>(rule->p_queryType);
    case 3:
      return rule->p_queryPattern;
    case 4:
      return boost::lexical_cast<std::string>(rule->decAction);
    default:
      return "";
  }
}

}  // namespace query_priv
