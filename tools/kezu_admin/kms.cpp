// SPDX-License-Identifier: Apache-2.0
#include "kms.h"

#include <fmt/format.h>

#include <utility>

namespace admin {

namespace kms = engine::kms;
namespace store = engine::store;

Result<store::KmsSettings> serverOf(const store::Home& home) {
  if (!home.kms) {
    return Error{Error::Kind::invalid,
                 store::shownPath(home.file(store::kSettingsFile)) +
                     ": names no key management server; add a table [kms] with host, ca, certificate and key"};
  }
  return *home.kms;
}

Result<store::KmsSettings> openServer(const std::string& home) {
  if (Status status = becomeOwner(home); !status.ok()) {
    return status.error();
  }
  const auto opened = store::openHome(store::machineFiles(), home);
  return opened.ok() ? serverOf(opened.value()) : opened.error();
}

Result<ServerPolicies> readServer(kms::Client& client) {
  auto identifiers = client.locate(kMaxPolicies + 1);
  if (!identifiers.ok()) {
    return identifiers.error();
  }
  if (identifiers.value().size() > kMaxPolicies) {
    return Error{Error::Kind::invalid, fmt::format("the server has more than {} active keys, and a database server "
                                                   "takes {} policies; set object_group in [kms] of kezu.toml where "
                                                   "other programs keep keys there too",
                                                   kMaxPolicies, kMaxPolicies)};
  }
  auto policies = client.readPolicies(identifiers.value(), kms::WithKeys::no);
  if (!policies.ok()) {
    return policies.error();
  }
  return ServerPolicies{std::move(identifiers.value()), std::move(policies.value())};
}

}  // namespace admin
