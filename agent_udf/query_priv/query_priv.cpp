// SPDX-License-Identifier: Apache-2.0
#include "query_priv/query_priv.h"

#include <boost/lexical_cast.hpp>
#include <utility>

#include "conf/audit_event.h"
#include "kezu/shared.h"
#include "logw/logw.h"

namespace {

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

void report(const char* action, const std::string& type1, const std::string& ptn1, const std::string& type2,
            const std::string& ptn2, const std::string& priv) {
  writeAuditEvent(kLogChange,
                  {{"group", "policy"},
                   {"desc", std::string(action) + " QUERY PRIVILEGE: type1[" + type1 + "] ptn1[" + ptn1 + "] type2[" +
                                type2 + "] ptn2[" + ptn2 + "]" + priv + " query priv setted"}});
}

std::string privText(int priv) {
  return " priv[" + std::to_string(priv) + "]";
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
  constexpr int kAdded = 1;
  constexpr int kChanged = 2;
  constexpr int kFull = -2;

  const RuleKey key(type1, ptn1, type2, ptn2);
  if (Q7QueryPrivData* found = find(key)) {
    found->queryPriv.decAction = priv;
    report("CHANGE", type1, ptn1, type2, ptn2, privText(priv));
    return kChanged;
  }
  Q7QueryPriv rule;
  rule.queryType = key.type1;
  rule.p_queryType = key.type2;
  rule.queryPattern = ptn1;
  rule.p_queryPattern = ptn2;
  rule.decAction = priv;
  if (Q7QueryPriv::insert(rule) != 0) {
    return kFull;
  }
  report("ADD", type1, ptn1, type2, ptn2, privText(priv));
  return kAdded;
}

int remove(const std::string& type1, const std::string& ptn1, const std::string& type2, const std::string& ptn2) {
  constexpr int kDeleted = 3;

  Q7QueryPrivData* found = find(RuleKey(type1, ptn1, type2, ptn2));
  if (found == nullptr) {
    return 0;
  }
  Q7QueryPrivData* last = &g_queryPriv[count() - 1];
  if (found != last) {
    found->sqlType = last->sqlType;
    found->queryPriv = std::move(last->queryPriv);
  }
  last->queryPriv = Q7QueryPriv();
  kezu::publish(g_numberOfQueryPriv, count() - 1);
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
