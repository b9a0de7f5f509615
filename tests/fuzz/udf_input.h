// SPDX-License-Identifier: Apache-2.0
//
// How statements stand in an input: what the fuzz program reads, and the corpus maker writes.
//
//   start      1 byte: bits of Start
//   statement  1 byte function, 1 byte number of arguments, 1 byte rows; the kind and the value of each argument; then,
//              for each further row, a value for each argument that is no constant
//   kind       bits 0 to 2: 0 to 3 text, 4 and 5 integer, 6 real, 7 decimal; bit 3: constant
//   text       1 byte: 0 NULL, 1 to 127 one of kTexts, 128 to 254 that many bytes less 128 follow, 255 the text that
//              the last string function gave
//   number     1 byte: 0 NULL, 1 to 254 that many less kZero, 255: 8 bytes follow
//
// Behind the start, statements follow one another to the end. Every number is taken modulo what there is of it.
#pragma once

#include <iterator>
#include <string_view>

namespace fuzz {

inline constexpr unsigned kMaxArguments = 12;
inline constexpr unsigned kMaxRows = 3;
inline constexpr int kZero = 16;  // stands for the integer 0

enum Kind : unsigned { kText = 0, kInteger = 4, kReal = 6, kDecimal = 7, kConstant = 8 };

// How the tables stand at the start.
enum Start : unsigned {
  kNoColumns = 1,
  kNoPolicies = 2,
  kFromKeyServer = 4,  // Q7_CACHED_KMS_MODE
  kExpired = 8,        // the session has run out
  kPassOn = 16,        // encrypted values are passed on
  kAudited = 32,       // every kind of use is audited
};

// The session, and what the tables of the home hold.
inline constexpr std::string_view kSession = "00112233445566778899aabbccddeeff0123456789abcdef0123456789abcdef";
inline constexpr std::string_view kPassword = "the value";

inline constexpr std::string_view kTexts[] = {
    kSession,
    "",
    "NULL",
    "admin",
    "cbcdet",  // policies
    "gcmpart",
    "ecb",
    "siv",
    "hmac",
    "shop",  // columns
    "customer",
    "name",
    "phone",
    "root",
    "127.0.0.1",
    "ALL",
    "SELECT",
    "INSERT",
    "SHA1",
    "SHA512",
    "HAS160",
    "nonsense",
    "%",
    "(a|b)*c+[^d]{2,3}$",
    "((((((((((a*)*)*)*)*)*)*)*)*)*",
    "2026-01-01",
    "../../etc/passwd",
    "a text of some length that has to be encrypted, and to be found again when it is decrypted",
};

// The position of a text in kTexts.
constexpr unsigned textNumber(std::string_view text) {
  unsigned number = 0;
  while (number < std::size(kTexts) && kTexts[number] != text) ++number;
  return number;
}

}  // namespace fuzz

// Every SQL function: integer(name) or string(name), in the order of their numbers in an input.
#define KEZU_EVERY_FUNCTION(integer, string)                                                                          \
  integer(kezu_conf_check_session_auth) integer(kezu_conf_get_auth) string(kezu_conf_get_session_id)                  \
      integer(kezu_conf_set_passwd) integer(kezu_conf_set_env) string(kezu_conf_get_env)                              \
          integer(kezu_conf_set_log_flag) string(kezu_conf_get_log_flag) string(kezu_conf_get_log)                    \
              integer(kezu_conf_set_policy) string(kezu_conf_get_policy) integer(kezu_conf_set_kms_mode)              \
                  integer(kezu_conf_get_kms_mode) integer(kezu_conf_get_policy_for_kms) integer(kezu_conf_set_column) \
                      string(kezu_conf_get_column) integer(kezu_conf_set_accepriv) string(kezu_conf_get_accepriv)     \
                          integer(kezu_conf_set_encpriv) string(kezu_conf_get_encpriv)                                \
                              integer(kezu_conf_set_querypriv) string(kezu_conf_get_querypriv)                        \
                                  integer(kezu_conf_set_tableinfo) string(kezu_conf_get_tableinfo)                    \
                                      string(hash_raw_data) string(hash_b64_data) string(hmac_b64_data)               \
                                          string(data_process_ed_check_str) integer(data_process_ed_check_int)        \
                                              string(data_process_po_ed) integer(getcolumnsizebyotc_kezu)             \
                                                  integer(reload_kezu)
