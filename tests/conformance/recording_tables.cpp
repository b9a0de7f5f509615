// SPDX-License-Identifier: Apache-2.0
//
// The engine's globals. The policy counts and the active-slot flag stand on memory pages of their own, so that a test
// can watch the order in which they are written. The name tables hold texts of these tests' own, so that a test that
// sees one knows that it was read from the table.
#include "recording_tables.h"

#include <cstring>

#include "kezu/engine.h"

#define OWN_PAGE(name) __attribute__((section(name), aligned(4096)))

Q7EncPolicyInfo g_encPolicyArray[kPolicySlots][kMaxPolicies];
BCipherKey g_makeKeyArray[kPolicySlots][kMaxPolicies];
// A page on both sides: the compiler may lay the variables of a section out in either order.
OWN_PAGE("watched") char g_watchedStart[4096] = {};
OWN_PAGE("watched") int g_numberOfEncPolicy[kPolicySlots] = {};
OWN_PAGE("watched") int g_encPolicyArray_flag = 0;
OWN_PAGE("watched") char g_watchedEnd[4096] = {};

Q7EncColumnInfo g_encColumnInfoArray[kMaxColumns];
int g_numberOfEncColumn;
Q7AccessPriv g_accessPrivArray[kMaxAccessPrivs];
int g_numberOfAccessPriv;
Q7EncPriv g_encPrivArray[kMaxEncPrivs];
int g_numberOfEncPriv;
Q7QueryPrivData g_queryPriv[kMaxQueryPrivs];
int g_numberOfQueryPriv;
Q7TableInfo g_tableInfo[kMaxTableInfos];
int g_numberOftableInfo;
Q7UserInfo g_userInfo[kMaxUsers];
int g_numberOfUserInfo;

Q7LogInfo g_logInfo;
Q7AccessControlMode g_accessControlMode;
Q7DecryptDenyMode g_decryptDenyMode;
int g_doubleEncryptMode;
Q7KmsMode g_kmsMode;

char g_last_policy_KezuFileChkStr[kFileChkStrSize];
char g_last_column_KezuFileChkStr[kFileChkStrSize];
char g_last_access_KezuFileChkStr[kFileChkStrSize];
char g_last_privilege_KezuFileChkStr[kFileChkStrSize];
char g_last_queryPriv_KezuFileChkStr[kFileChkStrSize];

const char* const Q7EncryptionAlgorithmStr[kAlgorithmCount] = {
    "alg zero",     "alg one",     "alg two",     "alg three",     "alg four",     "alg five",     "alg six",
    "alg seven",    "alg eight",   "alg nine",    "alg ten",       "alg eleven",   "alg twelve",   "alg thirteen",
    "alg fourteen", "alg fifteen", "alg sixteen", "alg seventeen", "alg eighteen", "alg nineteen", "alg twenty"};
const char* const Q7EncryptionIVTypeStr[kIvTypeCount] = {"iv zero", "iv one"};
const char* const Q7EncryptionBlockModeTypeStr[kBlockModeCount] = {
    "block zero", "block one",   "block two",   "block three", "block four", "block five",
    "block six",  "block seven", "block eight", "block nine",  "block ten",  "block eleven"};
const char* const Q7EncryptionStrModeStr[kStrModeCount] = {"str zero", "str one", "str two"};
const char* const Q7DecryptDenyModeStr[kDecryptDenyModeCount] = {"deny zero", "deny one", "deny two", "deny three",
                                                                 "deny four"};
const char* const sqlType[kSqlTypeCount] = {"type_zero",  "type_one", "type_two",
                                            "type_three", nullptr,    "behind_the_end"};

namespace conformance {
namespace {

template <typename T>
void zero(T& plain) {
  std::memset(static_cast<void*>(&plain), 0, sizeof plain);
}

void clearFileCheckStrings() {
  zero(g_last_policy_KezuFileChkStr);
  zero(g_last_column_KezuFileChkStr);
  zero(g_last_access_KezuFileChkStr);
  zero(g_last_privilege_KezuFileChkStr);
  zero(g_last_queryPriv_KezuFileChkStr);
}

}  // namespace

void clearTables() {
  zero(g_encPolicyArray);
  zero(g_makeKeyArray);
  zero(g_numberOfEncPolicy);
  g_encPolicyArray_flag = 0;
  zero(g_encColumnInfoArray);
  g_numberOfEncColumn = 0;
  zero(g_accessPrivArray);
  g_numberOfAccessPriv = 0;
  zero(g_encPrivArray);
  g_numberOfEncPriv = 0;
  for (Q7QueryPrivData& entry : g_queryPriv) {
    entry = Q7QueryPrivData{};
  }
  g_numberOfQueryPriv = 0;
  zero(g_tableInfo);
  g_numberOftableInfo = 0;
  zero(g_userInfo);
  g_numberOfUserInfo = 0;
  zero(g_logInfo);
  g_accessControlMode = Q7_ACCESS_ALLOW_PRIOR;
  g_decryptDenyMode = Q7_DECRYPT_DENY_ERROR;
  g_doubleEncryptMode = 0;
  g_kmsMode = Q7_NO_KMS_MODE;
  clearFileCheckStrings();
}

}  // namespace conformance
