// SPDX-License-Identifier: Apache-2.0
//
// kezu-admin rekey
#include <fmt/format.h>

#include <string>

#include "access.h"
#include "commands.h"
#include "engine/store/master_key.h"

namespace admin {

namespace store = engine::store;

int changeMasterKey(const std::string& home) {
  if (Status status = becomeOwner(home); !status.ok()) {
    return fail(status.error());
  }
  const auto opened = store::openHome(store::machineFiles(), home);
  if (!opened.ok()) {
    return fail(opened.error());
  }
  const auto change = store::changeMasterKey(store::machineFiles(), opened.value());
  if (!change.ok()) {
    return fail(change.error());
  }
  fmt::print("{}\n\nNext:\n",
             change.value() == store::KeyChange::made
                 ? "There is a new master key, and every table is sealed under it."
                 : "The change of the master key that was cut short before is finished: every table is sealed under "
                   "the new key.");
  fmt::print(
      "  1. Restart every database server that uses the home. Until then it works with what it has loaded, and "
      "refuses changes.\n");
  fmt::print("  2. Back up the home and {} now. An older backup needs the master key that is in it.\n",
             opened.value().masterKey);
  return kSuccess;
}

}  // namespace admin
