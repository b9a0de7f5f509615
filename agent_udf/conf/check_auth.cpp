// SPDX-License-Identifier: Apache-2.0
#include "conf/check_auth.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <array>

#include "kezu/change.h"
#include "kezu/shared.h"

namespace {

// A session id as it stands in its field, everything behind its end zeroed, so that ids compare at one length.
using SessionField = std::array<char, sizeof Q7UserInfo::sessionId>;

SessionField storedSession(const Q7UserInfo& user) {
  SessionField field;
  kezu::loadRecord(field, reinterpret_cast<const SessionField&>(user.sessionId));
  std::fill(std::find(field.begin(), field.end(), '\0'), field.end(), '\0');
  return field;
}

template <typename Predicate>
Q7UserInfo* findUser(Predicate matches) {
  const int count = std::min(kezu::observe(g_numberOfUserInfo), kMaxUsers);
  for (int i = 0; i < count; ++i) {
    if (matches(g_userInfo[i])) {
      return &g_userInfo[i];
    }
  }
  return nullptr;
}

bool hasEveryArgument(const frame::Args& args) {
  for (unsigned int i = 0; i < args.count(); ++i) {
    if (args.isNull(i)) {
      return false;
    }
    if (args.isString(i) && (args.text(i).empty() || args.text(i).front() == '\0')) {
      return false;
    }
  }
  return args.count() != 0;
}

}  // namespace

bool isFresh(const Q7UserInfo& user, time_t now) {
  return kezu::observe(user.authTime) + kSessionSeconds > now;
}

Q7UserInfo* findSession(std::string_view sessionId) {
  SessionField wanted = {};
  if (sessionId.size() >= wanted.size() || sessionId.find('\0') != std::string_view::npos) {
    return nullptr;
  }
  std::copy(sessionId.begin(), sessionId.end(), wanted.begin());
  return findUser([&wanted](const Q7UserInfo& user) {
    return CRYPTO_memcmp(storedSession(user).data(), wanted.data(), wanted.size()) == 0;
  });
}

Q7UserInfo* findSessionOfText(std::string_view sessionId) {
  return findSession(sessionId.substr(0, sessionId.find('\0')));
}

Q7UserInfo* findAdministrator(std::string_view id) {
  return findUser([id](const Q7UserInfo& user) { return kezu::fieldEquals(user.id, id); });
}

bool checkAuth(const frame::Args& args) {
  if (!hasEveryArgument(args) || Q7_ReloadAllInfoIfChanged() != 0) {
    return false;
  }
  const kezu::ConfigurationChange change;
  Q7UserInfo* user = findSessionOfText(args.text(0));
  if (user == nullptr) {
    return false;
  }
  if (!isFresh(*user, time(nullptr))) {
    kezu::publish(user->authTime, time_t{-1});
    return false;
  }
  return true;
}

bool checkAuth(UDF_ARGS* args) {
  return checkAuth(frame::Args(args));
}
