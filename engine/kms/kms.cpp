// SPDX-License-Identifier: Apache-2.0
#include "engine/kms/kms.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "engine/kms/client.h"
#include "engine/kms/messages.h"
#include "engine/store/codec.h"

namespace engine::kms {
namespace {

// Each policy's stored form, in an order that depends on nothing else.
std::vector<cipher::SecretBytes> contentsOf(const Policies& policies) {
  std::vector<cipher::SecretBytes> contents;
  contents.reserve(policies.size());
  store::PolicyData one;
  one.records.resize(1);  // where its memory is wiped: a braced list would leave the key on the stack
  for (const Q7EncPolicyInfo& policy : policies) {
    one.records[0] = policy;
    contents.push_back(store::encode(one));
  }
  std::sort(contents.begin(), contents.end());
  return contents;
}

// Text of the record's name, for messages.
std::string nameOf(const Q7EncPolicyInfo& policy) {
  return {policy.policyID, strnlen(policy.policyID, sizeof policy.policyID)};
}

store::Error refused(const store::KmsSettings& settings, const std::string& reason) {
  return {store::Error::Kind::invalid, "key management server " + shownText(settings.host) + ": " + reason};
}

// Why keys can't be a policy table, empty when they can.
std::string identifiersFault(std::vector<std::string> identifiers) {
  if (identifiers.size() > static_cast<std::size_t>(kMaxPolicies)) {
    return fmt::format("it has more than {} policies", kMaxPolicies);
  }
  std::sort(identifiers.begin(), identifiers.end());
  const auto twice = std::adjacent_find(identifiers.begin(), identifiers.end());
  return twice == identifiers.end() ? std::string() : "it lists key '" + shownText(*twice) + "' twice";
}

// The same for the names of policies.
std::string namesFault(const Policies& policies) {
  std::vector<std::string> names;
  std::transform(policies.begin(), policies.end(), std::back_inserter(names), nameOf);
  std::sort(names.begin(), names.end());
  const auto twice = std::adjacent_find(names.begin(), names.end());
  return twice == names.end() ? std::string() : "it has two policies named '" + *twice + "'";
}

store::Result<Policies> readAll(const store::KmsSettings& settings) {
  auto client = Client::connect(settings);
  if (!client.ok()) {
    return client.error();
  }
  const auto identifiers = client.value().locate(kMaxPolicies + 1);
  if (!identifiers.ok()) {
    return identifiers.error();
  }
  if (const std::string fault = identifiersFault(identifiers.value()); !fault.empty()) {
    return refused(settings, fault);
  }
  auto policies = client.value().readPolicies(identifiers.value(), WithKeys::yes);
  if (!policies.ok()) {
    return policies.error();
  }
  if (const std::string fault = namesFault(policies.value()); !fault.empty()) {
    return refused(settings, fault);
  }
  return policies;
}

}  // namespace

store::Result<PreparedPolicies> fetchPolicies(store::FileSystem& files, const std::string& directory) {
  const auto home = store::readSettings(files, directory);
  if (!home.ok()) {
    return home.error();
  }
  if (!home.value().kms) {
    return store::Error{store::Error::Kind::invalid, store::shownPath(home.value().file(store::kSettingsFile)) +
                                                         " names no key management server; add [kms] to it"};
  }
  auto policies = readAll(*home.value().kms);
  if (!policies.ok()) {
    return policies.error();
  }
  auto prepared = PreparedPolicies::prepare(std::move(policies.value()));
  if (!prepared) {
    return refused(*home.value().kms, "the key of a policy can't be created");
  }
  return std::move(*prepared);
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
