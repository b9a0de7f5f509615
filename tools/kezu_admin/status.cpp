// SPDX-License-Identifier: Apache-2.0
//
// kezu-admin status
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <array>
#include <ctime>
#include <string>

#include "access.h"
#include "commands.h"
#include "kezu/engine.h"

namespace admin {
namespace {

namespace store = engine::store;

std::string localTime(std::int64_t nanoseconds) {
  const auto seconds = static_cast<std::time_t>(nanoseconds / 1'000'000'000);
  std::tm parts = {};
  localtime_r(&seconds, &parts);
  return fmt::format("{:%Y-%m-%d %H:%M:%S}", parts);
}

std::string size(std::int64_t bytes) {
  return fmt::format("{} bytes", bytes);
}

void printTables(const Store& opened) {
  const std::array<int, store::kTableCount> counts = {g_numberOfEncPolicy[g_encPolicyArray_flag],
                                                      g_numberOfEncColumn,
                                                      g_numberOfAccessPriv,
                                                      g_numberOfEncPriv,
                                                      g_numberOfQueryPriv,
                                                      g_numberOftableInfo,
                                                      g_numberOfUserInfo};
  fmt::print("{:<10}  {:>7}  {:<19}  {:>14}  {}\n", "table", "records", "saved", "size", "file-check string");
  for (std::size_t i = 0; i < store::kTableCount; ++i) {
    const store::Table& table = *store::allTables()[i];
    const auto file = store::statFile(opened.files(), opened.path(static_cast<store::TableId>(i)));
    const auto identity = file.ok() ? store::identityOf(file.value()) : store::FileIdentity{};
    fmt::print("{:<10}  {:>7}  {:<19}  {:>14}  {}\n", table.name(), counts[i], localTime(identity.modified),
               size(identity.size), table.checkString() == nullptr ? "-" : *table.checkString());
  }
}

std::string denyModeName() {
  return Q7DecryptDenyModeStr[g_decryptDenyMode];
}

void printSettings() {
  constexpr const char* kSources[] = {"made locally", "from the key management server, in memory only",
                                      "from the key management server, with a local copy"};
  fmt::print("\nPolicies:            {}\n", kSources[g_kmsMode]);
  fmt::print("Access control:      {} rules win\n", g_accessControlMode == Q7_ACCESS_ALLOW_PRIOR ? "ALLOW" : "DENY");
  fmt::print("Refused decryption:  {}\n", denyModeName());
  fmt::print("Double encryption:   {}\n", g_doubleEncryptMode == kDoubleEncryptError ? "ERROR" : "PASS");
  fmt::print("Audited use:         encryption {}, decryption {}, refusals {}, access {}, queries {}\n",
             g_logInfo.encLogFlag, g_logInfo.decLogFlag, g_logInfo.denyLog, g_logInfo.accessLog, g_logInfo.queryLog);
}

}  // namespace

int showStatus(const std::string& home) {
  const auto opened = loadStore(home);
  if (!opened.ok()) {
    return fail(opened.error());
  }
  fmt::print("Configuration home:  {}\nMaster key:          {}\nLogs:                {}\n\n", home,
             opened.value()->home().masterKey, opened.value()->home().log);
  printTables(*opened.value());
  printSettings();
  return kSuccess;
}

}  // namespace admin
