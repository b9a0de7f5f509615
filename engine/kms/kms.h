// SPDX-License-Identifier: Apache-2.0
//
// Policies of the key management server.
#pragma once

#include "engine/policy/policy_slots.h"
#include "engine/store/store.h"

namespace engine::kms {

// Fetches the policies of the key management server that the home's kezu.toml names, which is read anew, and makes them
// ready for use: all or none. Nothing of this process changes until they are published. No policy is fetched when there
// are more than kMaxPolicies, when two have the same name, or when anything about one of them is not valid. A server
// that has none gives none: that is no error.
//
// Takes as long as kms/client.h says. No lock is to be held that other statements wait for.
store::Result<PreparedPolicies> fetchPolicies(store::FileSystem& files, const std::string& directory);

// How the policies in use compare with those of the local file; the numbers are those of compareLocalAndKMSPolicy().
enum class Comparison : int { equal = 0, different = 1, noLocalPolicies = -1 };

// Compares by content, keys included, whatever the order. The file is read anew, and no table changes.
store::Result<Comparison> compareWithFile(const store::Store& store);

}  // namespace engine::kms
