// SPDX-License-Identifier: Apache-2.0
//
// The interface's numbers: sizes of fields and tables, codes and their names. Programs that were compiled against the
// interface, and files that were written, depend on them.
#include <gtest/gtest.h>

#include <cstddef>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include "kezu/engine.h"

namespace {

// A field's place is held by its type; a field that is added or taken away changes the record's size.
template <typename Field, typename Expected>
constexpr bool kIs = std::is_same_v<Field, Expected>;

static_assert(kIs<decltype(Q7EncPolicyInfo::policyID), char[17]>);
static_assert(kIs<decltype(Q7EncPolicyInfo::algID), int>);
static_assert(kIs<decltype(Q7EncPolicyInfo::ivMode), int>);
static_assert(kIs<decltype(Q7EncPolicyInfo::columnKey), char[64]>);
static_assert(kIs<decltype(Q7EncPolicyInfo::keyLength), int>);
static_assert(kIs<decltype(Q7EncPolicyInfo::encPos), int>);
static_assert(kIs<decltype(Q7EncPolicyInfo::encLen), int>);
static_assert(kIs<decltype(Q7EncPolicyInfo::blockMode), int>);
static_assert(kIs<decltype(Q7EncPolicyInfo::strMode), int>);
static_assert(kIs<decltype(Q7EncPolicyInfo::encFlag), char[16]>);
static_assert(kIs<decltype(Q7EncPolicyInfo::encFlagLen), int>);
static_assert(sizeof(Q7EncPolicyInfo) == 132);
static_assert(offsetof(Q7EncPolicyInfo, algID) == 20 && offsetof(Q7EncPolicyInfo, ivMode) == 24 &&
              offsetof(Q7EncPolicyInfo, columnKey) == 28 && offsetof(Q7EncPolicyInfo, keyLength) == 92 &&
              offsetof(Q7EncPolicyInfo, encPos) == 96 && offsetof(Q7EncPolicyInfo, encLen) == 100 &&
              offsetof(Q7EncPolicyInfo, blockMode) == 104 && offsetof(Q7EncPolicyInfo, strMode) == 108 &&
              offsetof(Q7EncPolicyInfo, encFlag) == 112 && offsetof(Q7EncPolicyInfo, encFlagLen) == 128);

static_assert(kIs<decltype(Q7EncColumnInfo::owner), char[65]>);
static_assert(kIs<decltype(Q7EncColumnInfo::table), char[65]>);
static_assert(kIs<decltype(Q7EncColumnInfo::column), char[65]>);
static_assert(kIs<decltype(Q7EncColumnInfo::policyID), char[65]>);
static_assert(sizeof(Q7EncColumnInfo) == 4 * 65);
static_assert(offsetof(Q7EncColumnInfo, table) == 65 && offsetof(Q7EncColumnInfo, column) == 130 &&
              offsetof(Q7EncColumnInfo, policyID) == 195);

static_assert(kIs<decltype(Q7AccessPriv::ip), char[41]>);
static_assert(kIs<decltype(Q7AccessPriv::user), char[65]>);
static_assert(kIs<decltype(Q7AccessPriv::owner), char[65]>);
static_assert(kIs<decltype(Q7AccessPriv::table), char[65]>);
static_assert(kIs<decltype(Q7AccessPriv::column), char[65]>);
static_assert(kIs<decltype(Q7AccessPriv::priv), char>);
static_assert(sizeof(Q7AccessPriv) == 41 + 4 * 65 + 1);
static_assert(offsetof(Q7AccessPriv, user) == 41 && offsetof(Q7AccessPriv, owner) == 106 &&
              offsetof(Q7AccessPriv, table) == 171 && offsetof(Q7AccessPriv, column) == 236 &&
              offsetof(Q7AccessPriv, priv) == 301);

static_assert(kIs<decltype(Q7EncPriv::user), char[65]>);
static_assert(kIs<decltype(Q7EncPriv::owner), char[65]>);
static_assert(kIs<decltype(Q7EncPriv::table), char[65]>);
static_assert(kIs<decltype(Q7EncPriv::column), char[65]>);
static_assert(kIs<decltype(Q7EncPriv::enc_priv), char>);
static_assert(kIs<decltype(Q7EncPriv::dec_priv), char>);
static_assert(sizeof(Q7EncPriv) == 4 * 65 + 2);
static_assert(offsetof(Q7EncPriv, owner) == 65 && offsetof(Q7EncPriv, table) == 130 &&
              offsetof(Q7EncPriv, column) == 195 && offsetof(Q7EncPriv, enc_priv) == 260 &&
              offsetof(Q7EncPriv, dec_priv) == 261);

static_assert(kIs<decltype(Q7QueryPrivData::sqlType), int>);
static_assert(kIs<decltype(Q7QueryPrivData::queryPriv), Q7QueryPriv>);

static_assert(kIs<decltype(Q7TableInfo::owner), char[65]>);
static_assert(kIs<decltype(Q7TableInfo::table), char[65]>);
static_assert(kIs<decltype(Q7TableInfo::demigrationCmd), char[3072]>);
static_assert(kIs<decltype(Q7TableInfo::migrationTime), time_t>);
static_assert(offsetof(Q7TableInfo, table) == 65 && offsetof(Q7TableInfo, demigrationCmd) == 130 &&
              offsetof(Q7TableInfo, migrationTime) == 3208);

static_assert(kIs<decltype(Q7UserInfo::id), char[65]>);
static_assert(kIs<decltype(Q7UserInfo::passwd), char[128]>);
static_assert(kIs<decltype(Q7UserInfo::sessionId), char[128]>);
static_assert(kIs<decltype(Q7UserInfo::authTime), time_t>);
static_assert(kIs<decltype(Q7UserInfo::authFailCount), int>);
static_assert(kIs<decltype(Q7UserInfo::authLockTime), time_t>);
static_assert(offsetof(Q7UserInfo, passwd) == 65 && offsetof(Q7UserInfo, sessionId) == 193 &&
              offsetof(Q7UserInfo, authTime) == 328 && offsetof(Q7UserInfo, authFailCount) == 336 &&
              offsetof(Q7UserInfo, authLockTime) == 344);

static_assert(kIs<decltype(Q7LogInfo::encLogFlag), int>);
static_assert(sizeof(Q7LogInfo) == 5 * sizeof(int));
static_assert(offsetof(Q7LogInfo, encLogFlag) == 0 && offsetof(Q7LogInfo, decLogFlag) == 4 &&
              offsetof(Q7LogInfo, denyLog) == 8 && offsetof(Q7LogInfo, accessLog) == 12 &&
              offsetof(Q7LogInfo, queryLog) == 16);

static_assert(kIs<decltype(g_encPolicyArray), Q7EncPolicyInfo[5][2000]>);
static_assert(kIs<decltype(g_makeKeyArray), BCipherKey[5][2000]>);
static_assert(kIs<decltype(g_numberOfEncPolicy), int[5]>);
static_assert(kIs<decltype(g_encPolicyArray_flag), int>);
static_assert(kIs<decltype(g_encColumnInfoArray), Q7EncColumnInfo[2000]>);
static_assert(kIs<decltype(g_accessPrivArray), Q7AccessPriv[2000]>);
static_assert(kIs<decltype(g_encPrivArray), Q7EncPriv[2000]>);
static_assert(kIs<decltype(g_queryPriv), Q7QueryPrivData[2000]>);
static_assert(kIs<decltype(g_tableInfo), Q7TableInfo[2000]>);
static_assert(kIs<decltype(g_userInfo), Q7UserInfo[16]>);
static_assert(kIs<decltype(g_doubleEncryptMode), int>);
static_assert(kIs<decltype(g_last_policy_KezuFileChkStr), char[32]>);
static_assert(kIs<decltype(g_last_column_KezuFileChkStr), char[32]>);
static_assert(kIs<decltype(g_last_access_KezuFileChkStr), char[32]>);
static_assert(kIs<decltype(g_last_privilege_KezuFileChkStr), char[32]>);
static_assert(kIs<decltype(g_last_queryPriv_KezuFileChkStr), char[32]>);

static_assert(Q7_ACCESS_ALLOW_PRIOR == 0 && Q7_ACCESS_DENY_PRIOR == 1);
static_assert(Q7_DECRYPT_DENY_ERROR == 0 && Q7_DECRYPT_DENY_RAW_DATA == 1 && Q7_DECRYPT_DENY_EMPTY_DATA == 2 &&
              Q7_DECRYPT_DENY_MASKING == 3);
static_assert(Q7_NO_KMS_MODE == 0 && Q7_ONLY_KMS_MODE == 1 && Q7_CACHED_KMS_MODE == 2);
static_assert(sizeof g_accessControlMode == 4 && sizeof g_decryptDenyMode == 4 && sizeof g_kmsMode == 4);
static_assert(kHashSha1 == 1 && kHashSha256 == 2 && kHashSha512 == 3 && kHashHas160 == 4);
static_assert(kInitScratchSize == 136);

template <std::size_t N>
std::vector<std::string> namesOf(const char* const (&table)[N]) {
  return {table, table + N};
}

using Names = std::vector<std::string>;

// The names stand at the codes that policies are stored with.
TEST(Interface, CodesHaveTheirNames) {
  EXPECT_EQ(namesOf(Q7EncryptionAlgorithmStr),
            (Names{"AES128",      "AES192",      "AES256",      "ARIA128",    "ARIA192",    "ARIA256",   "SEED128",
                   "CAMELLIA128", "CAMELLIA192", "CAMELLIA256", "SM4",        "TDES168",    "CHACHA20",  "HMAC-SHA256",
                   "HMAC-SHA512", "HMAC-HAS160", "RESERVED16",  "RESERVED17", "RESERVED18", "AES128-NI", "AES256-NI"}));
  EXPECT_EQ(namesOf(Q7EncryptionIVTypeStr), (Names{"DETERMINISTIC", "RANDOM"}));
  EXPECT_EQ(namesOf(Q7EncryptionBlockModeTypeStr),
            (Names{"ECB", "CBC", "CFB", "OFB", "CTR", "GCM", "CCM", "SIV", "CBC-HMAC", "CFB8", "CTR-HMAC", "OCB"}));
  EXPECT_EQ(namesOf(Q7EncryptionStrModeStr), (Names{"RAW", "BASE64", "HEX"}));
  EXPECT_EQ(namesOf(Q7DecryptDenyModeStr), (Names{"ERROR", "RAW DATA", "EMPTY DATA", "MASKING", "RESERVED"}));
}

// Rules are stored with a statement type's index: names may be added at the end, and none may move.
TEST(Interface, StatementTypesEndAtANullEntryAndDiffer) {
  ASSERT_EQ(std::size(sqlType), 150U);
  std::size_t count = 0;
  std::set<std::string> names;
  while (count < std::size(sqlType) && sqlType[count] != nullptr) {
    names.insert(sqlType[count]);
    ++count;
  }
  ASSERT_LT(count, std::size(sqlType)) << "no null entry";
  EXPECT_EQ(names.size(), count) << "a name is there twice";
  EXPECT_EQ(names.count(""), 0U);
  for (std::size_t i = count; i < std::size(sqlType); ++i) {
    EXPECT_EQ(sqlType[i], nullptr) << i;
  }
  EXPECT_STREQ(sqlType[0], "SELECT");
  EXPECT_STREQ(sqlType[1], "INSERT");
  EXPECT_STREQ(sqlType[2], "INSERT SELECT");
  EXPECT_STREQ(sqlType[3], "UPDATE");
  EXPECT_STREQ(sqlType[5], "DELETE");
  EXPECT_STREQ(sqlType[17], "CALL PROCEDURE");
  EXPECT_STREQ(sqlType[count - 1], "SHOW BINLOG EVENTS");
  EXPECT_EQ(count, 116U);
}

}  // namespace
