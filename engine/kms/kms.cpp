// SPDX-License-Identifier: Apache-2.0
#include "engine/kms/kms.h"

#include <algorithm>

#include "engine/policy/policy_slots.h"
#include "engine/store/codec.h"

namespace engine::kms {
namespace {

// Each policy's stored form, in an order that depends on nothing else.
std::vector<cipher::SecretBytes> contentsOf(const Policies& policies) {
  std::vector<cipher::SecretBytes> contents;
  contents.reserve(policies.size());
  for (const Q7EncPolicyInfo& policy : policies) {
    contents.push_back(store::encode(store::PolicyData{{}, {policy}}));
  }
  std::sort(contents.begin(), contents.end());
  return contents;
}

}  // namespace

store::Status fetchPolicies(const store::Home& home) {
  return store::Error{store::Error::Kind::invalid,
                      "No policies were fetched: " + store::shownPath(home.file(store::kSettingsFile)) +
                          " names no key management server."};
}

store::Result<Comparison> compareWithFile(const store::Store& store) {
  constexpr auto kTable = store::TableId::policy;
  const auto image =
      store::openTableFile(store.files(), store.path(kTable), store::tableOf(kTable), store.keys(kTable));
  if (!image.ok()) {
    return image.error();
  }
  const auto local = store::decode<store::PolicyData>(image.value().payload);
  if (!local.ok()) {
    return store::Error{local.error().kind, store::shownPath(store.path(kTable)) + ": " + local.error().text};
  }
  if (local.value().records.empty()) {
    return Comparison::noLocalPolicies;
  }
  return contentsOf(local.value().records) == contentsOf(activePolicies()) ? Comparison::equal : Comparison::different;
}

}  // namespace engine::kms
