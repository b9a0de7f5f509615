// SPDX-License-Identifier: Apache-2.0
//
// kezu-admin kms push
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "engine/kms/policy_fields.h"
#include "engine/store/codec.h"
#include "kms.h"

namespace admin {
namespace {

namespace kms = engine::kms;
namespace store = engine::store;
using engine::Policies;

// A policy to be pushed, and the keys of its name that are on the server.
struct Push {
  const Q7EncPolicyInfo* policy;
  std::vector<std::string> there;
};

Error refused(const std::string& reason, const std::vector<std::string>& names, const std::string& advice) {
  return {Error::Kind::invalid,
          fmt::format("nothing was pushed: {}: '{}'; {}", reason, fmt::join(names, "', '"), advice)};
}

// The policies of the home that are to be pushed: all of them where no names are given.
Result<std::vector<Push>> choose(const Policies& policies, const std::vector<std::string>& names) {
  std::vector<Push> chosen;
  std::set<std::string> missing(names.begin(), names.end());
  for (const Q7EncPolicyInfo& policy : policies) {
    if (names.empty() || missing.erase(policy.policyID) == 1) {
      if (Status status = kms::checkPolicy(policy); !status.ok()) {
        return refused("can't be used", {policy.policyID}, status.error().text);
      }
      chosen.push_back({&policy, {}});
    }
  }
  if (!missing.empty()) {
    return refused("no policy of this home", {missing.begin(), missing.end()}, "kezu-admin dump shows those there are");
  }
  if (chosen.empty()) {
    return Error{Error::Kind::invalid, "nothing was pushed: the home has no policies of its own"};
  }
  return chosen;
}

// Looks for the names on the server. Those that are there are refused, unless they are to be replaced.
Status compare(std::vector<Push>& pushes, const ServerPolicies& server, bool replace) {
  std::map<std::string, std::vector<std::string>> there;
  for (std::size_t i = 0; i < server.policies.size(); ++i) {
    there[server.policies[i].policyID].push_back(server.identifiers[i]);
  }
  std::vector<std::string> taken;
  std::size_t after = there.size();
  for (Push& push : pushes) {
    const auto found = there.find(push.policy->policyID);
    if (found == there.end()) {
      ++after;
    } else {
      push.there = found->second;
      taken.emplace_back(push.policy->policyID);
    }
  }
  if (!taken.empty() && !replace) {
    return refused("on the server already", taken,
                   "--replace puts the policies of this home in their place; where their keys differ, what was "
                   "encrypted with the server's can then be decrypted no more");
  }
  if (after > kMaxPolicies) {
    return Error{Error::Kind::invalid,
                 fmt::format("nothing was pushed: the server would have {} policies, and a database server takes {}",
                             after, kMaxPolicies)};
  }
  return {};
}

bool sameContent(const Q7EncPolicyInfo& one, const Q7EncPolicyInfo& other) {
  return store::encode(store::PolicyData{{}, {one}}) == store::encode(store::PolicyData{{}, {other}});
}

// Whether the server has just this policy, with this key.
Result<bool> unchanged(kms::Client& client, const Push& push) {
  if (push.there.size() != 1) {
    return false;
  }
  const auto found = client.readPolicies(push.there, kms::WithKeys::yes);
  if (!found.ok()) {
    return found.error();
  }
  return sameContent(found.value().front(), *push.policy);
}

// The new key is active before the old one is out of use: between the two, and after a failure there, a database server
// refuses to fetch a name that is there twice, where it would otherwise fetch a table without the policy.
Status put(kms::Client& client, const Push& push) {
  const auto made = client.registerPolicy(*push.policy);
  if (!made.ok()) {
    return made.error();
  }
  if (Status status = client.activate(made.value()); !status.ok()) {
    return Error{status.error().kind,
                 fmt::format("{}; its key {} is on the server and not active", status.error().text, made.value())};
  }
  for (const std::string& old : push.there) {
    Status status = client.revoke(old);
    if (status.ok()) {
      status = client.destroy(old);
    }
    if (!status.ok()) {
      return Error{status.error().kind,
                   fmt::format("{}; the old key {} is still on the server", status.error().text, old)};
    }
  }
  return {};
}

// Pushes one policy; `done` says what happened.
Status pushOne(kms::Client& client, const Push& push, const char*& done) {
  const auto same = unchanged(client, push);
  if (!same.ok()) {
    return same.error();
  }
  done = same.value() ? "unchanged" : push.there.empty() ? "pushed" : "replaced";
  return same.value() ? Status() : put(client, push);
}

int pushAll(kms::Client& client, const std::vector<Push>& pushes) {
  for (const Push& push : pushes) {
    const char* done = "";
    if (Status status = pushOne(client, push, done); !status.ok()) {
      std::fflush(stdout);
      return fail(
          {status.error().kind,
           fmt::format("'{}': {}. What is listed was done before; to go on, run the command again with --replace",
                       push.policy->policyID, status.error().text)});
    }
    fmt::print("'{}': {}\n", push.policy->policyID, done);
  }
  return kSuccess;
}

}  // namespace

int pushPolicies(const std::string& home, const std::vector<std::string>& names, bool replace) {
  const auto opened = loadStore(home);
  if (!opened.ok()) {
    return fail(opened.error());
  }
  const auto settings = serverOf(opened.value()->home());
  if (!settings.ok()) {
    return fail(settings.error());
  }
  const Policies policies = engine::activePolicies();
  auto pushes = choose(policies, names);
  if (!pushes.ok()) {
    return fail(pushes.error());
  }
  auto client = kms::Client::connect(settings.value());
  if (!client.ok()) {
    return fail(client.error());
  }
  const auto server = readServer(client.value());
  if (!server.ok()) {
    return fail(server.error());
  }
  if (Status status = compare(pushes.value(), server.value(), replace); !status.ok()) {
    return fail(status.error());
  }
  return pushAll(client.value(), pushes.value());
}

}  // namespace admin
