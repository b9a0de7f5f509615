// SPDX-License-Identifier: Apache-2.0
//
// Tables as payloads of their files: CBOR (RFC 8949) with the settings that travel with the table and its records. The
// same table always gives the same bytes.
//
//   {"records": [{name: value, ...}, ...], "settings": {name: number, ...}}
//
// Lengths are known ones in the fewest bytes, fields in the order of their names. Texts are byte strings, since they
// need not be UTF-8. Reading is strict: every field must be there once, of its type, in its range, and nothing else.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "cipher/secret.h"
#include "engine/store/result.h"
#include "kezu/engine.h"

namespace engine::store {

// A query-privilege rule as it is stored. The table's combined key and the compiled patterns follow from it.
struct Rule {
  int queryType = -1;
  int parentQueryType = -1;
  std::string queryPattern;
  std::string parentQueryPattern;
  int decAction = 0;
  int encAction = 0;
};

// What travels with a table.
struct NoSettings {};
struct PolicySettings {
  Q7LogInfo log = {};
  int kmsMode = Q7_NO_KMS_MODE;
};
struct AccessSettings {
  int accessControlMode = Q7_ACCESS_ALLOW_PRIOR;
};
struct PrivilegeSettings {
  int decryptDenyMode = Q7_DECRYPT_DENY_ERROR;
};
struct QueryPrivSettings {
  int doubleEncryptMode = kDoubleEncryptError;
};

// A table outside the engine's globals.
template <typename RecordType, typename SettingsType, int Limit>
struct TableData {
  using Record = RecordType;
  using Settings = SettingsType;
  static constexpr int kCapacity = Limit;

  Settings settings;
  std::vector<Record, cipher::CleansingAllocator<Record>> records;
};

using PolicyData = TableData<Q7EncPolicyInfo, PolicySettings, kMaxPolicies>;
using ColumnData = TableData<Q7EncColumnInfo, NoSettings, kMaxColumns>;
using AccessData = TableData<Q7AccessPriv, AccessSettings, kMaxAccessPrivs>;
using PrivilegeData = TableData<Q7EncPriv, PrivilegeSettings, kMaxEncPrivs>;
using QueryPrivData = TableData<Rule, QueryPrivSettings, kMaxQueryPrivs>;
using TableInfoData = TableData<Q7TableInfo, NoSettings, kMaxTableInfos>;
using UserData = TableData<Q7UserInfo, NoSettings, kMaxUsers>;

// The payload of a table. Records are expected to hold what decode() accepts.
template <typename Data>
cipher::SecretBytes encode(const Data& data);

// The table of a payload. Every record is zero where it holds nothing, so equal records have equal bytes. The error's
// text is the reason alone, to follow the file's name.
template <typename Data>
Result<Data> decode(const cipher::SecretBytes& payload);

// Whether decode() would take a payload, with the error it would give, and no table in memory.
template <typename Data>
Status check(const cipher::SecretBytes& payload);

// The fields of each record and of each table's settings, with their names in the file, their types and their ranges. A
// visitor has
//   text(name, field)               zero-terminated text
//   password(name, field)           text that may fill its field without a terminating zero, not empty, a secret
//   pattern(name, string)           text without a limit of its own
//   number(name, value, low, high)  integer
//   flag(name, value)               char that is zero or not
//   bytes(name, field, length)      byte string and its length
//   key(name, field, length)        the same, a secret
inline constexpr int kMinInt = -2147483647 - 1;
inline constexpr int kMaxInt = 2147483647;

template <typename Visitor>
void fields(Visitor& v, Q7EncPolicyInfo& r) {
  v.text("name", r.policyID);
  v.number("algorithm", r.algID, 0, kAlgorithmCount - 1);
  v.number("iv", r.ivMode, 0, kIvTypeCount - 1);
  v.key("key", r.columnKey, r.keyLength);
  v.number("position", r.encPos, 0, kMaxInt);
  v.number("length", r.encLen, 0, kMaxInt);
  v.number("block", r.blockMode, 0, kBlockModeCount - 1);
  v.number("encoding", r.strMode, 0, kStrModeCount - 1);
  v.bytes("flag", r.encFlag, r.encFlagLen);
}

template <typename Visitor>
void fields(Visitor& v, Q7EncColumnInfo& r) {
  v.text("owner", r.owner);
  v.text("table", r.table);
  v.text("column", r.column);
  v.text("policy", r.policyID);
}

template <typename Visitor>
void fields(Visitor& v, Q7AccessPriv& r) {
  v.text("ip", r.ip);
  v.text("user", r.user);
  v.text("owner", r.owner);
  v.text("table", r.table);
  v.text("column", r.column);
  v.flag("allow", r.priv);
}

template <typename Visitor>
void fields(Visitor& v, Q7EncPriv& r) {
  v.text("user", r.user);
  v.text("owner", r.owner);
  v.text("table", r.table);
  v.text("column", r.column);
  v.flag("encrypt", r.enc_priv);
  v.flag("decrypt", r.dec_priv);
}

template <typename Visitor>
void fields(Visitor& v, Rule& r) {
  v.number("type", r.queryType, -1, kSqlTypeCount - 1);
  v.number("parent_type", r.parentQueryType, -1, kSqlTypeCount - 1);
  v.pattern("pattern", r.queryPattern);
  v.pattern("parent_pattern", r.parentQueryPattern);
  v.number("decrypt", r.decAction, kMinInt, kMaxInt);
  v.number("encrypt", r.encAction, kMinInt, kMaxInt);
}

template <typename Visitor>
void fields(Visitor& v, Q7TableInfo& r) {
  v.text("owner", r.owner);
  v.text("table", r.table);
  v.text("command", r.demigrationCmd);
  v.number("time", r.migrationTime, time_t{0}, time_t{253402300799});  // to the end of the year 9999
}

// The session fields are no part of the file.
template <typename Visitor>
void fields(Visitor& v, Q7UserInfo& r) {
  v.text("id", r.id);
  v.password("password", r.passwd);
}

template <typename Visitor>
void fields(Visitor& /*v*/, NoSettings& /*s*/) {}

template <typename Visitor>
void fields(Visitor& v, PolicySettings& s) {
  v.number("log_encrypt", s.log.encLogFlag, kMinInt, kMaxInt);
  v.number("log_decrypt", s.log.decLogFlag, kMinInt, kMaxInt);
  v.number("log_deny", s.log.denyLog, kMinInt, kMaxInt);
  v.number("log_access", s.log.accessLog, kMinInt, kMaxInt);
  v.number("log_query", s.log.queryLog, kMinInt, kMaxInt);
  v.number("kms_mode", s.kmsMode, int{Q7_NO_KMS_MODE}, int{Q7_CACHED_KMS_MODE});
}

template <typename Visitor>
void fields(Visitor& v, AccessSettings& s) {
  v.number("access_control_mode", s.accessControlMode, kMinInt, kMaxInt);
}

template <typename Visitor>
void fields(Visitor& v, PrivilegeSettings& s) {
  v.number("decrypt_deny_mode", s.decryptDenyMode, 0, kDecryptDenyModeCount - 1);
}

template <typename Visitor>
void fields(Visitor& v, QueryPrivSettings& s) {
  v.number("double_encrypt_mode", s.doubleEncryptMode, kMinInt, kMaxInt);
}

}  // namespace engine::store
