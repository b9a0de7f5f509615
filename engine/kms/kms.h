// SPDX-License-Identifier: Apache-2.0
//
// Policies of the key management server.
#pragma once

#include "engine/store/store.h"

namespace engine::kms {

// Fetches the policies of the key management server that the home configures into the next slot and publishes them, all
// or none. A home without a server is an error.
store::Status fetchPolicies(const store::Home& home);

// How the policies in use compare with those of the local file; the numbers are those of compareLocalAndKMSPolicy().
enum class Comparison : int { equal = 0, different = 1, noLocalPolicies = -1 };

// Compares by content, keys included, whatever the order. The file is read anew, and no table changes.
store::Result<Comparison> compareWithFile(const store::Store& store);

}  // namespace engine::kms
