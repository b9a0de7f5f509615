// SPDX-License-Identifier: Apache-2.0
//
// The tables themselves. Those that hold keys or passwords start on pages of their own, so that they can be kept out of
// core dumps without taking anything else with them.
#include "cipher/hidden_memory.h"
#include "kezu/engine.h"

using cipher::kPageSize;

extern "C" {

alignas(kPageSize) Q7EncPolicyInfo g_encPolicyArray[kPolicySlots][kMaxPolicies];
alignas(kPageSize) Q7UserInfo g_userInfo[kMaxUsers];
alignas(kPageSize) BCipherKey g_makeKeyArray[kPolicySlots][kMaxPolicies];
int g_numberOfEncPolicy[kPolicySlots];
int g_encPolicyArray_flag;

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
    "AES128",      "AES192",      "AES256",      "ARIA128",    "ARIA192",    "ARIA256",   "SEED128",
    "CAMELLIA128", "CAMELLIA192", "CAMELLIA256", "SM4",        "TDES168",    "CHACHA20",  "HMAC-SHA256",
    "HMAC-SHA512", "HMAC-HAS160", "RESERVED16",  "RESERVED17", "RESERVED18", "AES128-NI", "AES256-NI",
};
const char* const Q7EncryptionIVTypeStr[kIvTypeCount] = {"DETERMINISTIC", "RANDOM"};
const char* const Q7EncryptionBlockModeTypeStr[kBlockModeCount] = {
    "ECB", "CBC", "CFB", "OFB", "CTR", "GCM", "CCM", "SIV", "CBC-HMAC", "CFB8", "CTR-HMAC", "OCB",
};
const char* const Q7EncryptionStrModeStr[kStrModeCount] = {"RAW", "BASE64", "HEX"};
const char* const Q7DecryptDenyModeStr[kDecryptDenyModeCount] = {"ERROR", "RAW DATA", "EMPTY DATA", "MASKING",
                                                                 "RESERVED"};

}  // extern "C"
