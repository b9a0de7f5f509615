// SPDX-License-Identifier: Apache-2.0
//
// Replacing the password value of the administrator.
#include "conf/passwd.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <cstdio>

#include "conf/audit_event.h"
#include "conf/check_auth.h"
#include "frame/function.h"
#include "kezu/change.h"
#include "kezu/shared.h"
#include "logw/logw.h"

namespace {

constexpr int kLastIndex = 14;  // the sixteenth record is not used here
constexpr std::size_t kMaxPasswd = sizeof Q7UserInfo::passwd;
constexpr long long kStored = 2;

// A password on its way from the server into its record, wiped when it goes.
struct Password {
  std::string text;

  explicit Password(std::string_view value) : text(value) {}
  Password(const Password&) = delete;
  Password& operator=(const Password&) = delete;
  ~Password() { OPENSSL_cleanse(text.data(), text.size()); }
};

// The record of the administrator, or the one behind the last.
int indexOf(const std::string& id) {
  const Q7UserInfo* user = findAdministrator(id);
  return user == nullptr ? std::max(kezu::observe(g_numberOfUserInfo), 0) : static_cast<int>(user - g_userInfo);
}

void store(Q7UserInfo& user, const std::string& id, const std::string& passwd) {
  kezu::storeField(user.id, id);
  kezu::storeField(user.passwd, passwd);
  if (passwd.size() == kMaxPasswd) {
    kezu::publish(user.sessionId[0], '\0');
  }
}

}  // namespace

int setPasswd(const std::string& id, const std::string& passwd) {
  const int changeIdx = indexOf(id);
  if (changeIdx > kLastIndex) {
    std::puts("Too many users.");
    return -1;
  }
  if (passwd.size() > kMaxPasswd || passwd.find('\0') != std::string::npos || !kezu::fieldHolds(Q7UserInfo{}.id, id)) {
    return -1;
  }
  store(g_userInfo[changeIdx], id, passwd);
  writeAuditEvent(kLogChange, {{"group", "policy"}, {"SET", "user admin"}, {"result", "success"}});
  if (changeIdx == kezu::observe(g_numberOfUserInfo)) {
    kezu::publish(g_numberOfUserInfo, changeIdx + 1);
  }
  return changeIdx;
}

// kezu_conf_set_passwd(session, password) -> INTEGER: replaces the password value of "admin". 2 stored; -1 the value is
// longer than 128 bytes, or there are too many administrators; NULL without a valid session or without a value.
KEZU_INTEGER_FUNCTION(kezu_conf_set_passwd, {.forms = {"", "S", "SS"},
                                             .usage = "kezu_conf_get_querypriv_init('string data')",
                                             .max_length = 64,
                                             .order = frame::CheckOrder::kTypesThenCount})
(const frame::Args& args, frame::Flags& flags) {
  if (!checkAuth(args) || args.count() < 2) {
    flags.setNull();
    return 0;
  }
  const Password password(args.text(1));
  const kezu::ConfigurationChange change;
  const int index = setPasswd("admin", password.text);
  if (index < 0) {
    return index;
  }
  Q7_SaveUserInfo();
  return kStored;
}
