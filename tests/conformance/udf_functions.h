// SPDX-License-Identifier: Apache-2.0
//
// The library's SQL functions as the server finds them. No function here has a deinit.
#pragma once

#include "frame/mysql_headers.h"

using InitFunction = frame::ServerBool (*)(UDF_INIT*, UDF_ARGS*, char*);
using IntegerFunction = long long (*)(UDF_INIT*, UDF_ARGS*, char*, char*);
using StringFunction = char* (*)(UDF_INIT*, UDF_ARGS*, char*, unsigned long*, char*, char*);

// The deinit is declared weak: its address is null where the library defines none.
#define DECLARE_UDF(name)                                             \
  frame::ServerBool name##_init(UDF_INIT*, UDF_ARGS*, char* message); \
  __attribute__((weak)) void name##_deinit(UDF_INIT*)
#define DECLARE_INTEGER_UDF(name) \
  DECLARE_UDF(name);              \
  long long name(UDF_INIT*, UDF_ARGS*, char* is_null, char* error)
#define DECLARE_STRING_UDF(name) \
  DECLARE_UDF(name);             \
  char* name(UDF_INIT*, UDF_ARGS*, char* result, unsigned long* length, char* is_null, char* error)

extern "C" {

DECLARE_INTEGER_UDF(kezu_conf_check_session_auth);
DECLARE_INTEGER_UDF(kezu_conf_get_auth);
DECLARE_STRING_UDF(kezu_conf_get_session_id);
DECLARE_INTEGER_UDF(kezu_conf_set_policy);
DECLARE_INTEGER_UDF(kezu_conf_set_column);
DECLARE_STRING_UDF(data_process_ed_check_str);
DECLARE_INTEGER_UDF(data_process_ed_check_int);
DECLARE_STRING_UDF(data_process_po_ed);

extern const char* kezu_agent_udf_major_version;
extern const char* kezu_agent_udf_minor_version;

}  // extern "C"

namespace kezu_tags_Orvanta_2_3_2_0_agent_udf {
void version_2_3_2_0_21735();
}
