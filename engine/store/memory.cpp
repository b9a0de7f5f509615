// SPDX-License-Identifier: Apache-2.0
#include "engine/store/memory.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "engine/policy/policy_slots.h"
#include "engine/store/codec.h"
#include "kezu/shared.h"

namespace engine::store {
namespace {

// Settings

NoSettings captureSettings(const NoSettings& /*type*/) {
  return {};
}
void publishSettings(const NoSettings& /*settings*/) noexcept {}

PolicySettings captureSettings(const PolicySettings& /*type*/) {
  PolicySettings settings;
  kezu::loadRecord(settings.log, g_logInfo);
  settings.kmsMode = kezu::observe(g_kmsMode);
  return settings;
}
void publishSettings(const PolicySettings& settings) noexcept {
  kezu::storeRecord(g_logInfo, settings.log);
  kezu::publish(g_kmsMode, static_cast<Q7KmsMode>(settings.kmsMode));
}

AccessSettings captureSettings(const AccessSettings& /*type*/) {
  return {kezu::observe(g_accessControlMode)};
}
void publishSettings(const AccessSettings& settings) noexcept {
  kezu::publish(g_accessControlMode, static_cast<Q7AccessControlMode>(settings.accessControlMode));
}

PrivilegeSettings captureSettings(const PrivilegeSettings& /*type*/) {
  return {kezu::observe(g_decryptDenyMode)};
}
void publishSettings(const PrivilegeSettings& settings) noexcept {
  kezu::publish(g_decryptDenyMode, static_cast<Q7DecryptDenyMode>(settings.decryptDenyMode));
}

QueryPrivSettings captureSettings(const QueryPrivSettings& /*type*/) {
  return {kezu::observe(g_doubleEncryptMode)};
}
void publishSettings(const QueryPrivSettings& settings) noexcept {
  kezu::publish(g_doubleEncryptMode, settings.doubleEncryptMode);
}

// Records

int countOf(const int& counter, int capacity) noexcept {
  return std::clamp(kezu::observe(counter), 0, capacity);
}

template <typename Data, std::size_t N>
void captureRecords(Data& data, const typename Data::Record (&array)[N], const int& counter) {
  data.records.resize(static_cast<std::size_t>(countOf(counter, int{N})));
  for (std::size_t i = 0; i < data.records.size(); ++i) {
    kezu::loadRecord(data.records[i], array[i]);
  }
}

template <typename Data, std::size_t N>
void publishRecords(const Data& data, typename Data::Record (&array)[N], int& counter) noexcept {
  const auto before = static_cast<std::size_t>(countOf(counter, int{N}));
  for (std::size_t i = 0; i < data.records.size(); ++i) {
    kezu::storeRecord(array[i], data.records[i]);
  }
  kezu::publish(counter, static_cast<int>(data.records.size()));
  for (std::size_t i = data.records.size(); i < before; ++i) {
    kezu::clearRecord(array[i]);
  }
}

// Records of a plain array. The tables below that are more than that have specializations of their own.
template <typename Data>
struct Records;

template <>
struct Records<ColumnData> {
  static void capture(ColumnData& data) { captureRecords(data, g_encColumnInfoArray, g_numberOfEncColumn); }
  static void publish(ColumnData& data) noexcept { publishRecords(data, g_encColumnInfoArray, g_numberOfEncColumn); }
};
template <>
struct Records<AccessData> {
  static void capture(AccessData& data) { captureRecords(data, g_accessPrivArray, g_numberOfAccessPriv); }
  static void publish(AccessData& data) noexcept { publishRecords(data, g_accessPrivArray, g_numberOfAccessPriv); }
};
template <>
struct Records<PrivilegeData> {
  static void capture(PrivilegeData& data) { captureRecords(data, g_encPrivArray, g_numberOfEncPriv); }
  static void publish(PrivilegeData& data) noexcept { publishRecords(data, g_encPrivArray, g_numberOfEncPriv); }
};
template <>
struct Records<TableInfoData> {
  static void capture(TableInfoData& data) { captureRecords(data, g_tableInfo, g_numberOftableInfo); }
  static void publish(TableInfoData& data) noexcept { publishRecords(data, g_tableInfo, g_numberOftableInfo); }
};

// Administrators: their sessions, failure counts and locks live in memory only, and go on for those who are still
// there.
template <>
struct Records<UserData> {
  static void capture(UserData& data) { captureRecords(data, g_userInfo, g_numberOfUserInfo); }

  static void publish(UserData& data) noexcept {
    Q7UserInfo before[kMaxUsers] = {};
    const int count = countOf(g_numberOfUserInfo, kMaxUsers);
    for (int i = 0; i < count; ++i) {
      kezu::loadRecord(before[i], g_userInfo[i]);
    }
    for (std::size_t i = 0; i < data.records.size(); ++i) {
      publishUser(data.records[i], g_userInfo[i], before, count);
    }
    kezu::publish(g_numberOfUserInfo, static_cast<int>(data.records.size()));
    for (int i = static_cast<int>(data.records.size()); i < count; ++i) {
      kezu::clearRecord(g_userInfo[i]);
    }
    OPENSSL_cleanse(before, sizeof before);
  }

 private:
  static void publishUser(Q7UserInfo& user, Q7UserInfo& place, const Q7UserInfo* before, int count) noexcept {
    const Q7UserInfo* old = std::find_if(before, before + count, [&user](const Q7UserInfo& other) {
      return strncmp(user.id, other.id, sizeof user.id) == 0;
    });
    if (old == before + count) {
      user.authTime = -1;
      kezu::storeRecord(place, user);
      return;
    }
    if (old - before == &place - g_userInfo) {
      // In its old place: a login that is under way there loses nothing.
      for (std::size_t i = 0; i < sizeof place.passwd; ++i) {
        std::atomic_ref(place.passwd[i]).store(user.passwd[i], std::memory_order_relaxed);
      }
      return;
    }
    std::copy(std::begin(old->sessionId), std::end(old->sessionId), user.sessionId);
    user.authTime = old->authTime;
    user.authFailCount = old->authFailCount;
    user.authLockTime = old->authLockTime;
    kezu::storeRecord(place, user);
  }
};

// Query-privilege rules: publishing moves rules that are compiled already.
template <>
struct Records<QueryPrivData> {
  static void capture(QueryPrivData& data) {
    const Q7QueryPrivReader reader;
    const int count = countOf(g_numberOfQueryPriv, kMaxQueryPrivs);
    for (int i = 0; i < count; ++i) {
      const Q7QueryPriv& rule = g_queryPriv[i].queryPriv;
      data.records.push_back(
          {rule.queryType, rule.p_queryType, rule.queryPattern, rule.p_queryPattern, rule.decAction, rule.encAction});
    }
  }

  static std::vector<Q7QueryPrivData> compile(const QueryPrivData& data) {
    std::vector<Q7QueryPrivData> rules(data.records.size());
    for (std::size_t i = 0; i < rules.size(); ++i) {
      const Rule& stored = data.records[i];
      Q7QueryPriv& rule = rules[i].queryPriv;
      rule.queryType = stored.queryType;
      rule.p_queryType = stored.parentQueryType;
      rule.queryPattern = stored.queryPattern;
      rule.p_queryPattern = stored.parentQueryPattern;
      rule.decAction = stored.decAction;
      rule.encAction = stored.encAction;
      rule.compileRegex();  // a pattern that doesn't compile is kept, and matches nothing
      rules[i].sqlType = stored.queryType + stored.parentQueryType * kSqlTypeCount + kSqlTypeCount;
    }
    return rules;
  }

  static void publish(std::vector<Q7QueryPrivData>& rules) noexcept {
    const Q7QueryPrivWriter writer;
    const int before = countOf(g_numberOfQueryPriv, kMaxQueryPrivs);
    for (std::size_t i = 0; i < rules.size(); ++i) {
      g_queryPriv[i].sqlType = rules[i].sqlType;
      g_queryPriv[i].queryPriv = std::move(rules[i].queryPriv);
    }
    kezu::publish(g_numberOfQueryPriv, static_cast<int>(rules.size()));
    for (int i = static_cast<int>(rules.size()); i < before; ++i) {
      g_queryPriv[i].sqlType = 0;
      g_queryPriv[i].queryPriv = Q7QueryPriv();
    }
  }
};

template <>
struct Records<PolicyData> {
  // With policies that are kept in memory only, none goes into the file.
  static void capture(PolicyData& data) {
    if (data.settings.kmsMode != Q7_ONLY_KMS_MODE) {
      data.records = activePolicies();
    }
  }
};

// What is staged

template <typename Data>
class StagedRecords final : public StagedTable {
 public:
  explicit StagedRecords(Data data) : data_(std::move(data)) {}
  void publish() noexcept override {
    publishSettings(data_.settings);
    Records<Data>::publish(data_);
  }

 private:
  Data data_;
};

class StagedRules final : public StagedTable {
 public:
  explicit StagedRules(const QueryPrivData& data)
      : settings_(data.settings), rules_(Records<QueryPrivData>::compile(data)) {}
  void publish() noexcept override {
    publishSettings(settings_);
    Records<QueryPrivData>::publish(rules_);
  }

 private:
  QueryPrivSettings settings_;
  std::vector<Q7QueryPrivData> rules_;
};

// Policies, or none when those in use stay: the slots then needn't move on.
class StagedPolicies final : public StagedTable {
 public:
  StagedPolicies(const PolicySettings& settings, std::optional<PreparedPolicies> policies)
      : settings_(settings), policies_(std::move(policies)) {}
  void publish() noexcept override {
    if (policies_) {
      policies_->publish();
    }
    publishSettings(settings_);
  }

 private:
  PolicySettings settings_;
  std::optional<PreparedPolicies> policies_;
};

bool activePoliciesStay(const PolicyData& data) {
  if (data.settings.kmsMode == Q7_ONLY_KMS_MODE && kezu::observe(g_kmsMode) == Q7_ONLY_KMS_MODE) {
    return true;
  }
  return activeKeysComplete() && encode(PolicyData{{}, activePolicies()}) == encode(PolicyData{{}, data.records});
}

template <typename Data>
Result<std::unique_ptr<StagedTable>> stageData(Data& data) {
  return std::unique_ptr<StagedTable>(std::make_unique<StagedRecords<Data>>(std::move(data)));
}
Result<std::unique_ptr<StagedTable>> stageData(QueryPrivData& data) {
  return std::unique_ptr<StagedTable>(std::make_unique<StagedRules>(data));
}
Result<std::unique_ptr<StagedTable>> stageData(PolicyData& data) {
  if (data.settings.kmsMode == Q7_ONLY_KMS_MODE && !data.records.empty()) {
    return Error{Error::Kind::invalid, "holds policies, which are kept in memory only in this key-server mode"};
  }
  if (activePoliciesStay(data)) {
    return std::unique_ptr<StagedTable>(std::make_unique<StagedPolicies>(data.settings, std::nullopt));
  }
  auto prepared = PreparedPolicies::prepare(std::move(data.records));
  if (!prepared) {
    return Error{Error::Kind::invalid, "the key of a policy can't be created"};
  }
  return std::unique_ptr<StagedTable>(std::make_unique<StagedPolicies>(data.settings, std::move(prepared)));
}

template <typename Data>
class TableOf final : public Table {
 public:
  explicit TableOf(std::string_view name, CheckString* checkString = nullptr)
      : name_(name), checkString_(checkString) {}

  std::string_view name() const noexcept override { return name_; }
  CheckString* checkString() const noexcept override { return checkString_; }

  cipher::SecretBytes capture() const override {
    Data data;
    data.settings = captureSettings(data.settings);
    Records<Data>::capture(data);
    return encode(data);
  }

  Status check(const cipher::SecretBytes& payload) const override { return store::check<Data>(payload); }

  Result<std::unique_ptr<StagedTable>> stage(const cipher::SecretBytes& payload) const override {
    auto data = decode<Data>(payload);
    if (!data.ok()) {
      return data.error();
    }
    return stageData(data.value());
  }

 private:
  std::string_view name_;
  CheckString* checkString_;
};

}  // namespace

const std::array<const Table*, kTableCount>& allTables() noexcept {
  static const TableOf<PolicyData> policy("policy", &g_last_policy_KezuFileChkStr);
  static const TableOf<ColumnData> column("column", &g_last_column_KezuFileChkStr);
  static const TableOf<AccessData> access("access", &g_last_access_KezuFileChkStr);
  static const TableOf<PrivilegeData> privilege("privilege", &g_last_privilege_KezuFileChkStr);
  static const TableOf<QueryPrivData> queryPriv("querypriv", &g_last_queryPriv_KezuFileChkStr);
  static const TableOf<TableInfoData> tableInfo("tableinfo");
  static const TableOf<UserData> user("user");
  static const std::array<const Table*, kTableCount> tables = {&policy,    &column,    &access, &privilege,
                                                               &queryPriv, &tableInfo, &user};
  return tables;
}

}  // namespace engine::store
