// SPDX-License-Identifier: Apache-2.0
//
// The query-privilege rules in SQL.
#include <boost/lexical_cast.hpp>
#include <string>
#include <utility>

#include "conf/check_auth.h"
#include "conf/listing.h"
#include "frame/function.h"
#include "frame/text_ring.h"
#include "kezu/change.h"
#include "query_priv/query_priv.h"
#include "query_priv/text_form.h"

namespace {

constexpr long long kSaveFailed = -2;

thread_local frame::TextRing texts;

// A type or pattern of a rule. The text NULL stands for the empty one.
std::string ruleText(const frame::Args& args, unsigned int i) {
  std::string text(args.text(i));
  return text == "NULL" ? std::string() : text;
}

// The rule at a position as one line; the empty text where there is none.
std::string ruleLine(int index) {
  const Q7QueryPrivReader reader;
  const Q7QueryPriv* rule = query_priv::get(index);
  return rule == nullptr ? std::string() : boost::lexical_cast<std::string>(*rule);
}

// The error flag for the empty text.
frame::Answer answer(std::string text, frame::ServerBuffer buffer, frame::Flags& flags) {
  if (text.empty()) {
    flags.setError();
    return frame::Answer::null();
  }
  return texts.keep(std::move(text), buffer);
}

}  // namespace

// kezu_conf_set_querypriv(session, type1, pattern1, type2, pattern2, action) -> INTEGER:
//   adds a rule (1) or changes its action (2).
// kezu_conf_set_querypriv(session, type1, pattern1, type2, pattern2) -> INTEGER:
//   deletes a rule (3); 0 when there is none.
// The text 'NULL' is an empty type or pattern. -2 when the save fails, with the change in memory, and when the table is
// full. NULL without a valid session.
KEZU_INTEGER_FUNCTION(kezu_conf_set_querypriv, {.forms = {"SSSSS", "SSSSSI"},
                                                .usage = "kezu_conf_set_querypriv_init('string data')",
                                                .max_length = 64,
                                                .order = frame::CheckOrder::kTypesThenCount})
(const frame::Args& args, frame::Flags& flags) {
  if (!checkAuth(args)) {
    flags.setNull();
    return 0;
  }
  const std::string type1 = ruleText(args, 1);
  const std::string ptn1 = ruleText(args, 2);
  const std::string type2 = ruleText(args, 3);
  const std::string ptn2 = ruleText(args, 4);
  const kezu::ConfigurationChange change;
  int result = 0;
  switch (args.count()) {
    case 5:
      result = query_priv::remove(type1, ptn1, type2, ptn2);
      break;
    case 6:
      result = query_priv::set(type1, ptn1, type2, ptn2, args.int32(5));
      break;
    default:
      flags.setError();
      return 0;
  }
  if (result > 0 && Q7_SaveQueryPrivInfo() == 1) {
    return kSaveFailed;
  }
  return result;
}

// kezu_conf_get_querypriv() -> STRING: the file-check string of the rules. Needs no session.
// kezu_conf_get_querypriv(session) -> STRING: number of registered columns.
// kezu_conf_get_querypriv(session, index) -> STRING: a rule as one line.
// kezu_conf_get_querypriv(session, index, field) -> STRING: a field of a rule:
//   0 first type, 1 first pattern, 2 second type, 3 second pattern, 4 action.
// NULL without a valid session; the error flag for a rule or field that is not there, and for an empty field.
KEZU_STRING_FUNCTION(kezu_conf_get_querypriv, {.forms = {"", "S", "SI", "SII"},
                                               .usage = "kezu_conf_get_querypriv_init('string data')",
                                               .max_length = 64,
                                               .order = frame::CheckOrder::kTypesThenCount})
(const frame::Args& args, frame::Flags& flags, frame::ServerBuffer buffer) {
  if (args.count() == 0) {
    return fileCheckString(g_last_queryPriv_KezuFileChkStr);
  }
  if (!checkAuth(args)) {
    flags.setNull();
    return frame::Answer::null();
  }
  switch (args.count()) {
    case 1:
      return answer(boost::lexical_cast<std::string>(query_priv::size()), buffer, flags);
    case 2:
      return answer(ruleLine(args.int32(1)), buffer, flags);
    case 3:
      return answer(query_priv::get(args.int32(1), args.int32(2)), buffer, flags);
    default:
      return answer("", buffer, flags);
  }
}
