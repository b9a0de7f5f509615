// SPDX-License-Identifier: Apache-2.0
//
// The engine's interface: configuration records, the global tables that hold them, and the operations on them.
//
// libkezu.so defines every global and every operation declared here. Callers read and rewrite the tables in place and
// then call the save operation of the table that they changed; the engine loads the tables at start and reloads them
// when their files were changed by another process, never in the middle of a change.
//
// Conventions that hold for the whole header:
//  - Every text field is a zero-terminated character array whose size includes the terminating zero. Texts are byte
//    strings, compared exactly and case-sensitively.
//  - The tables, counters and modes are shared by every thread of the process. Changes of them take place one at a
//    time: kezu/change.h. Readers take no lock: what one thread reads while another publishes it goes through the
//    operations of kezu/shared.h. Only the rules, which are no plain records, have a guard for readers too:
//    kezu/query_priv.h.
//  - No operation throws. All operations may be called from any thread, from several at once. Nothing is owned by the
//    caller unless the operation says so, and every out-parameter is the caller's memory.
//  - Operations that return int return 0 for success unless their comment says otherwise.
#pragma once

#include <cstddef>
#include <ctime>

#include "bcipher/bcipher.h"
#include "kezu/query_priv.h"

#pragma GCC visibility push(default)

// ---------------------------------------------------------------------------------------------------------------------
// Capacities

inline constexpr int kPolicySlots = 5;           // slots of the policy table; one is active at a time
inline constexpr int kMaxPolicies = 2000;        // records of one slot
inline constexpr int kMaxColumns = 2000;         // records of g_encColumnInfoArray
inline constexpr int kMaxAccessPrivs = 2000;     // records of g_accessPrivArray
inline constexpr int kMaxEncPrivs = 2000;        // records of g_encPrivArray
inline constexpr int kMaxQueryPrivs = 2000;      // records of g_queryPriv
inline constexpr int kMaxTableInfos = 2000;      // records of g_tableInfo
inline constexpr int kMaxUsers = 16;             // records of g_userInfo
inline constexpr int kFileChkStrSize = 32;       // bytes of a file-check string, terminating zero included
inline constexpr int kAlgorithmCount = 21;       // entries of Q7EncryptionAlgorithmStr
inline constexpr int kIvTypeCount = 2;           // entries of Q7EncryptionIVTypeStr
inline constexpr int kBlockModeCount = 12;       // entries of Q7EncryptionBlockModeTypeStr
inline constexpr int kStrModeCount = 3;          // entries of Q7EncryptionStrModeStr
inline constexpr int kDecryptDenyModeCount = 5;  // entries of Q7DecryptDenyModeStr
inline constexpr int kSqlTypeCount = 150;        // entries of sqlType, the terminating null entry included
inline constexpr int kInitScratchSize = 136;     // bytes that kezuInitialize may write into its scratch buffer
inline constexpr int kInitMessageSize = 512;     // bytes that kezuInitialize may write into its message buffer

// ---------------------------------------------------------------------------------------------------------------------
// Records

// One encryption policy: how values are encrypted, and the key material they are encrypted with.
struct Q7EncPolicyInfo {
  char policyID[17];   // name: at most 16 letters or digits
  int algID;           // index into Q7EncryptionAlgorithmStr
  int ivMode;          // index into Q7EncryptionIVTypeStr
  char columnKey[64];  // key material; the keys in use are derived from it
  int keyLength;       // bytes used in columnKey
  int encPos;          // first byte to encrypt, 0 or more; 0 with encLen 0 is the whole value
  int encLen;          // bytes to encrypt, 0 for all from encPos to the end
  int blockMode;       // index into Q7EncryptionBlockModeTypeStr
  int strMode;         // index into Q7EncryptionStrModeStr
  char encFlag[16];    // bytes in front of every encrypted value; not zero-terminated when all 16 are used
  int encFlagLen;      // bytes used in encFlag, 0 to 16
};

// One column registered for encryption. The owner is the database (schema).
struct Q7EncColumnInfo {
  char owner[65];
  char table[65];
  char column[65];
  char policyID[65];
};

// Whether a client address and database user may reach a column.
struct Q7AccessPriv {
  char ip[41];
  char user[65];
  char owner[65];
  char table[65];
  char column[65];
  char priv;  // zero or non-zero
};

// Whether a database user may encrypt and decrypt a column.
struct Q7EncPriv {
  char user[65];
  char owner[65];
  char table[65];
  char column[65];
  char enc_priv;  // zero or non-zero
  char dec_priv;  // zero or non-zero
};

// One entry of the query-privilege table.
struct Q7QueryPrivData {
  int sqlType;            // combined key of the rule's two statement types
  Q7QueryPriv queryPriv;  // the rule
};

// How the migration of a table to encrypted columns is undone.
struct Q7TableInfo {
  char owner[65];
  char table[65];
  char demigrationCmd[3072];  // SQL text, stored and returned, never run here
  time_t migrationTime;       // when demigrationCmd was stored, seconds since the epoch
};

// One administrator. The four session fields live in memory only.
struct Q7UserInfo {
  char id[65];
  char passwd[128];     // the stored password value: the secret half of the login response
  char sessionId[128];  // 64 hexadecimal digits, or empty
  time_t authTime;      // last login or refresh, seconds since the epoch; -1 when no session is valid
  int authFailCount;    // consecutive failed logins
  time_t authLockTime;  // end of the lock after repeated failures, seconds since the epoch; 0 for none
};

// Which kinds of use are audited: zero or non-zero each.
struct Q7LogInfo {
  int encLogFlag;
  int decLogFlag;
  int denyLog;
  int accessLog;
  int queryLog;
};

// Which rule wins when access rules conflict. Any int can be stored; every value but 0 acts as Q7_ACCESS_DENY_PRIOR.
enum Q7AccessControlMode : int { Q7_ACCESS_ALLOW_PRIOR = 0, Q7_ACCESS_DENY_PRIOR = 1 };

// What a refused decryption yields.
enum Q7DecryptDenyMode : int {
  Q7_DECRYPT_DENY_ERROR = 0,
  Q7_DECRYPT_DENY_RAW_DATA = 1,
  Q7_DECRYPT_DENY_EMPTY_DATA = 2,
  Q7_DECRYPT_DENY_MASKING = 3,
};

// Where policies come from.
enum Q7KmsMode : int {
  Q7_NO_KMS_MODE = 0,      // made locally
  Q7_ONLY_KMS_MODE = 1,    // fetched from the key management server, kept in memory only
  Q7_CACHED_KMS_MODE = 2,  // fetched from the key management server, kept in the local file as well
};

// Values of g_doubleEncryptMode: what encrypting an encrypted value does. Every value but 0 acts as 1.
inline constexpr int kDoubleEncryptError = 0;  // yields empty output
inline constexpr int kDoubleEncryptPass = 1;   // yields the value as it is

// Digest identifiers of Q7_HashBinary, kezuHashBinary and kezuHmacBinary.
inline constexpr int kHashSha1 = 1;    // FIPS 180-4, 20 bytes
inline constexpr int kHashSha256 = 2;  // FIPS 180-4, 32 bytes
inline constexpr int kHashSha512 = 3;  // FIPS 180-4, 64 bytes
inline constexpr int kHashHas160 = 4;  // TTAS.KO-12.0011/R2, 20 bytes

extern "C" {

// ---------------------------------------------------------------------------------------------------------------------
// Tables, counters and modes

// The policy table: five slots, of which g_encPolicyArray_flag names the active one. A change builds the whole table in
// the next slot, stores its count and then the flag; the active slot is not edited in place (switching the key-server
// mode off is the exception). Handle [s][i] of g_makeKeyArray belongs to record [s][i] of g_encPolicyArray; it may be
// null.
extern Q7EncPolicyInfo g_encPolicyArray[kPolicySlots][kMaxPolicies];
extern BCipherKey g_makeKeyArray[kPolicySlots][kMaxPolicies];
extern int g_numberOfEncPolicy[kPolicySlots];
extern int g_encPolicyArray_flag;

extern Q7EncColumnInfo g_encColumnInfoArray[kMaxColumns];
extern int g_numberOfEncColumn;
extern Q7AccessPriv g_accessPrivArray[kMaxAccessPrivs];
extern int g_numberOfAccessPriv;
extern Q7EncPriv g_encPrivArray[kMaxEncPrivs];
extern int g_numberOfEncPriv;
extern Q7QueryPrivData g_queryPriv[kMaxQueryPrivs];
extern int g_numberOfQueryPriv;
extern Q7TableInfo g_tableInfo[kMaxTableInfos];
extern int g_numberOftableInfo;
extern Q7UserInfo g_userInfo[kMaxUsers];
extern int g_numberOfUserInfo;

extern Q7LogInfo g_logInfo;
extern Q7AccessControlMode g_accessControlMode;
extern Q7DecryptDenyMode g_decryptDenyMode;
extern int g_doubleEncryptMode;
extern Q7KmsMode g_kmsMode;

// Fingerprints of the configuration files as last loaded or saved: zero-terminated text of hexadecimal digits, empty
// for a file that was never loaded.
extern char g_last_policy_KezuFileChkStr[kFileChkStrSize];
extern char g_last_column_KezuFileChkStr[kFileChkStrSize];
extern char g_last_access_KezuFileChkStr[kFileChkStrSize];
extern char g_last_privilege_KezuFileChkStr[kFileChkStrSize];
extern char g_last_queryPriv_KezuFileChkStr[kFileChkStrSize];

// Names of the codes above, zero-terminated texts. The reserved algorithm codes 16 to 18 have names too.
extern const char* const Q7EncryptionAlgorithmStr[kAlgorithmCount];
extern const char* const Q7EncryptionIVTypeStr[kIvTypeCount];
extern const char* const Q7EncryptionBlockModeTypeStr[kBlockModeCount];
extern const char* const Q7EncryptionStrModeStr[kStrModeCount];
extern const char* const Q7DecryptDenyModeStr[kDecryptDenyModeCount];

// Names of the statement types of query-privilege rules, ended by a null entry. A type's number is its index.
extern const char* const sqlType[kSqlTypeCount];

// ---------------------------------------------------------------------------------------------------------------------
// Start and reload

// Starts the engine: opens the configuration home (KEZU_HOME, else /var/lib/kezu) and loads every table. In
// Q7_ONLY_KMS_MODE it then fetches the policies as Q7_GetPolicyInfoFromKMS() does; without them it starts too. Calling
// it again, also from several threads at once, does nothing once it has succeeded; after a failure the next call tries
// again.
//   mode     1; any other value is refused.
//   scratch  null, or kInitScratchSize bytes that receive the engine's version as zero-terminated text.
//   message  null, or kInitMessageSize bytes that receive, on failure only, a zero-terminated text that names the path
//            and the reason: a long path by its end, so that both show in what the server shows, the first 80 bytes.
//            The whole of it goes to standard error.
// Returns 0 when the engine runs; non-zero when it does not. Nothing is ever created in the file system.
int kezuInitialize(unsigned int mode, char* scratch, char* message);

// Reloads every table whose file another process changed. Without a change it costs one stat a file. A changed file is
// read and authenticated whole before a record changes; on failure every table stays as it was.
// Returns 0 for success, non-zero for failure (a file that cannot be read, fails authentication, or is missing).
int Q7_ReloadAllInfoIfChanged();

// The same, for callers without a session: before a file-check string is returned, and when a statement that reads
// policies is prepared.
int Q7_ReloadAllInfoIfChanged3();

// Loads the policy table from the file `source`; null or empty means the home's own policy file. The new table is built
// in the next slot and published whole. Returns 0, or non-zero with the table unchanged.
int Q7_LoadPolicyInfo(const char* source);

// Loads the table-migration table from its file if that changed. Returns 0, or non-zero with the table unchanged.
int Q7_LoadTableInfo();

// ---------------------------------------------------------------------------------------------------------------------
// Save
//
// Each writes one table, with the settings that travel with it, to its file: sealed, synced, and renamed into place, so
// that the file is always the old one or the new one, whole. When another process saved the file since it was last
// loaded here, nothing is written and the save fails. A failed save leaves file and tables as they were. The caller
// holds the guard of changes (kezu/change.h) since it began to change the table.

// Policies, the audit flags (g_logInfo) and g_kmsMode. Returns 0; -1 when the file cannot be written; -3 when another
// process changed it. In Q7_ONLY_KMS_MODE the policies themselves are not written.
int Q7_SavePolicyInfo();

// Encrypted columns. Returns 0; -1 when the file cannot be written; 1 when another process changed it.
int Q7_SaveColumnInfo();

// Access privileges and g_accessControlMode. Returns 0; -1 for any failure.
int Q7_SaveAccessPrivInfo();

// Encryption privileges and g_decryptDenyMode. Returns 0; -1 for any failure.
int Q7_SaveEncPrivInfo();

// Query-privilege rules and g_doubleEncryptMode. Returns 0; 1 for any failure, never -1.
int Q7_SaveQueryPrivInfo();

// Table-migration records. Returns 0; -1 for any failure.
int Q7_SaveTableInfo();

// Administrators' names and password values. Returns 0; -1 for any failure.
int Q7_SaveUserInfo();

// ---------------------------------------------------------------------------------------------------------------------
// Policies and keys

// Fills `policy` from the parameters and creates its key.
//   policy     record to fill, of a slot that is not active; untouched on failure.
//   key        receives the key handle, null on failure. The caller owns it (BCIPHER_WipeKey, then BCIPHER_DelKey).
//   name       zero-terminated, at most 16 bytes.
//   algorithm, ivMode, blockMode, strMode  indices into the name tables.
//   keyBytes   key material of `keyLength` bytes (1 to 64), or null to have 32 random bytes drawn; then keyLength is
//              0xFFFFFFFF.
//   encPos, encLen  partial encryption, both 0 or more.
//   encFlag    zero-terminated, at most 16 bytes; null means empty.
// Returns non-zero (true) for success. Returns 0 (false) for a code out of range, a combination that the ciphers do not
// offer (a reserved algorithm; ECB with a random IV; TDES168 with other block modes than ECB, CBC and CBC-HMAC; ...), a
// name or flag that is too long, a negative position or length, or an algorithm that this processor does not support.
int Q7_AddPolicyInfo(Q7EncPolicyInfo& policy, _BCipherKey** key, const char* name, int algorithm, int ivMode,
                     unsigned char* keyBytes, unsigned int keyLength, int encPos, int encLen, int blockMode,
                     int strMode, const char* encFlag);

// Fetches the policies of the key management server into the next slot and publishes them, all or none. The server is
// that of [kms] in kezu.toml, which is read anew. Returns 0, or non-zero with the table unchanged: no server
// configured, not reachable, an answer that is not valid, or g_kmsMode changed meanwhile; the audit log says why. Takes
// at most connect_timeout + 12 * read_timeout, the look-up of a host name aside; other operations and changes
// (kezu/change.h) go on meanwhile, and wait only while the policies are published.
int Q7_GetPolicyInfoFromKMS();

// Compares the policies in use with those of the local file, by content and independent of their order. Returns 0 when
// they are equal, 1 when they differ, -1 when the local file holds no policies.
int compareLocalAndKMSPolicy();

// Finds the policy of a registered column; owner, table and column compare exactly.
//   policy  at least 65 bytes, receives the policy's name, zero-terminated.
//   error   null, or at least 256 bytes that receive a zero-terminated reason on failure.
// Returns 0 when found.
int kezuGetEncPolicyId(char* owner, char* table, char* column, char* policy, char* error);

// Size in bytes of a value of `size` bytes encrypted under the named policy: exactly what Q7_EncryptBinaryExt writes.
//   size    0 or more.
//   out     receives the size.
//   error   null, or at least 256 bytes that receive a zero-terminated reason on failure.
// Returns 0; non-zero for an unknown policy, a negative size or a result past 2^31 - 1.
int kezuGetCipherSize(int size, char* policy, int* out, char* error);

// 1 when values of numeric columns can be stored under the named policy (it encrypts whole values); 0 when they cannot,
// or the policy is unknown.
int checkNumericEnc(char* policy);

// 1 when large objects can be stored under the named policy (it encrypts whole values, without a text encoding); 0 when
// they cannot, or the policy is unknown.
int checkBlobEnc(char* policy);

// ---------------------------------------------------------------------------------------------------------------------
// Values

// Encrypts and decrypts one value under a policy and its key. docs/ciphertext.md describes the encrypted text.
//   out     receives the result; must not overlap `in`.
//   outLen  in: capacity of out in bytes. out: bytes written; 0 when there is no result; when the result does not fit,
//           a number greater than the capacity (the size needed, for decryption an upper bound of it), with out's
//           contents unspecified.
//   in      inLen bytes, any contents; inLen 0 is a value too. The operations have no other limit on its length than
//           2^31 - 1.
//   policy  the policy's record, or a copy of it.
//   key     the handle that belongs to it. A handle that was wiped, deleted or made for another policy gives no result,
//           also when that happens while the operation runs.
// Return 0 when a result was written (it may be empty: the decryption of an encrypted empty value), non-zero otherwise.
int Q7_EncryptBinaryExt(unsigned char* out, unsigned int* outLen, const unsigned char* in, unsigned int inLen,
                        Q7EncPolicyInfo* policy, _BCipherKey* key);
int Q7_DecryptBinaryExt(unsigned char* out, unsigned int* outLen, const unsigned char* in, unsigned int inLen,
                        Q7EncPolicyInfo* policy, _BCipherKey* key);

// Digest of inLen bytes. out holds at least 64 bytes; outLen receives the digest's length.
// Returns 0; non-zero, with outLen 0, for an unknown algorithm identifier.
int Q7_HashBinary(unsigned char* out, unsigned int* outLen, const unsigned char* in, unsigned int inLen, int algorithm);
int kezuHashBinary(unsigned char* out, unsigned int* outLen, const unsigned char* in, unsigned int inLen,
                   int algorithm);

// HMAC (RFC 2104) of inLen bytes under the policy's HMAC key. out holds at least 64 bytes. `policy` is a record of
// g_encPolicyArray, or a copy of one; one of the table has no key when its handle in g_makeKeyArray is null, wiped or
// another policy's.
// Returns 0; non-zero, with outLen 0, for an unknown algorithm identifier or a policy without a key.
int kezuHmacBinary(unsigned char* out, unsigned int* outLen, const unsigned char* in, unsigned int inLen, int algorithm,
                   Q7EncPolicyInfo* policy);

// Standard Base64 (RFC 4648, section 4: with padding, no line breaks) of inLen bytes.
//   out       receives the text, followed by a zero when capacity leaves room for it.
//   capacity  bytes of out.
//   outLen    receives the text's length, the zero not counted; 0 on failure.
// Returns 0; non-zero when the text does not fit or inLen is negative.
int Q7_GetEncode64(char* out, unsigned int capacity, unsigned int* outLen, unsigned char* in, int inLen);

// Writes `length` bytes as 2 * length hexadecimal digits and a terminating zero; `flag` 0 gives lower case, any other
// value upper case. out holds at least 2 * length + 1 bytes. Returns the number of digits; 0 for a negative length.
int bin2hex(char* in, char* out, int length, int flag);

}  // extern "C"

#pragma GCC visibility pop
