// SPDX-License-Identifier: Apache-2.0
#include "query_priv/text_form.h"

#include "kezu/engine.h"

namespace {

const char* typeName(int type) {
  const bool known = type >= 0 && type < kSqlTypeCount && sqlType[type] != nullptr;
  return known ? sqlType[type] : "NULL";
}

std::string quoted(const std::string& pattern) {
  return '"' + pattern + '"';
}

}  // namespace

std::ostream& operator<<(std::ostream& os, const Q7QueryPriv& rule) {
  csv_ostream csv(os);
  csv << typeName(rule.queryType) << quoted(rule.queryPattern) << typeName(rule.p_queryType)
      << quoted(rule.p_queryPattern) << rule.decAction;
  return os;
}
