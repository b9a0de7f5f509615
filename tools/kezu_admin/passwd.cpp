// SPDX-License-Identifier: Apache-2.0
//
// kezu-admin passwd
#include <fmt/format.h>

#include <algorithm>
#include <string>

#include "access.h"
#include "commands.h"
#include "kezu/engine.h"
#include "kezu/shared.h"

namespace admin {
namespace {

namespace store = engine::store;

// A server saves its administrators now and then: what it saved in between is loaded, and the change made again.
constexpr int kTries = 20;

Status change(Store& opened, const cipher::SecretBytes& password) {
  Q7UserInfo* const end = g_userInfo + g_numberOfUserInfo;
  Q7UserInfo* const user = std::find_if(
      g_userInfo, end, [](const Q7UserInfo& other) { return kezu::fieldEquals(other.id, kAdministrator); });
  if (user == end) {
    return Error{Error::Kind::invalid, fmt::format("the home has no administrator \"{}\"", kAdministrator)};
  }
  storePassword(*user, password);
  return opened.save(store::TableId::user);
}

}  // namespace

int changePassword(const std::string& home, const std::string& passwordFile) {
  const auto password = readPassword(passwordFile);
  if (!password.ok()) {
    return fail(password.error());
  }
  const auto opened = openStore(home);
  if (!opened.ok()) {
    return fail(opened.error());
  }
  Status status;
  for (int i = 0; i < kTries; ++i) {
    status = opened.value()->load(store::TableId::user, "");
    if (status.ok()) {
      status = change(*opened.value(), password.value());
    }
    if (status.ok() || status.error().kind != Error::Kind::conflict) {
      break;
    }
  }
  if (!status.ok()) {
    return fail(status.error());
  }
  fmt::print("The password value of \"{}\" is changed. Running servers take it over with their next statement.\n",
             kAdministrator);
  return kSuccess;
}

}  // namespace admin
