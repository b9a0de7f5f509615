// SPDX-License-Identifier: Apache-2.0
//
// What the commands for the key management server share.
#pragma once

#include <string>
#include <vector>

#include "access.h"
#include "engine/kms/client.h"

namespace admin {

// The server that a home's settings name. A home without one is an error.
Result<engine::store::KmsSettings> serverOf(const engine::store::Home& home);

// The same for a home that is not open: goes on as its owner, and reads the settings alone.
Result<engine::store::KmsSettings> openServer(const std::string& home);

// The policies on a server, and the identifiers of their keys, in the same order.
struct ServerPolicies {
  std::vector<std::string> identifiers;
  engine::Policies policies;
};

// Reads every policy, without its key. A key on the server that can't be a policy is an error, as it is to a database
// server that fetches.
Result<ServerPolicies> readServer(engine::kms::Client& client);

}  // namespace admin
