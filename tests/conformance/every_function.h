// SPDX-License-Identifier: Apache-2.0
//
// The rest of the library's SQL functions, beside those of udf_functions.h.
#pragma once

#include "udf_functions.h"

extern "C" {

DECLARE_INTEGER_UDF(kezu_conf_set_passwd);
DECLARE_INTEGER_UDF(kezu_conf_set_env);
DECLARE_STRING_UDF(kezu_conf_get_env);
DECLARE_INTEGER_UDF(kezu_conf_set_log_flag);
DECLARE_STRING_UDF(kezu_conf_get_log_flag);
DECLARE_STRING_UDF(kezu_conf_get_log);
DECLARE_STRING_UDF(kezu_conf_get_policy);
DECLARE_INTEGER_UDF(kezu_conf_set_kms_mode);
DECLARE_INTEGER_UDF(kezu_conf_get_kms_mode);
DECLARE_INTEGER_UDF(kezu_conf_get_policy_for_kms);
DECLARE_STRING_UDF(kezu_conf_get_column);
DECLARE_INTEGER_UDF(kezu_conf_set_accepriv);
DECLARE_STRING_UDF(kezu_conf_get_accepriv);
DECLARE_INTEGER_UDF(kezu_conf_set_encpriv);
DECLARE_STRING_UDF(kezu_conf_get_encpriv);
DECLARE_INTEGER_UDF(kezu_conf_set_querypriv);
DECLARE_STRING_UDF(kezu_conf_get_querypriv);
DECLARE_INTEGER_UDF(kezu_conf_set_tableinfo);
DECLARE_STRING_UDF(kezu_conf_get_tableinfo);
DECLARE_STRING_UDF(hash_raw_data);
DECLARE_STRING_UDF(hash_b64_data);
DECLARE_STRING_UDF(hmac_b64_data);
DECLARE_INTEGER_UDF(getcolumnsizebyotc_kezu);
DECLARE_INTEGER_UDF(reload_kezu);

}  // extern "C"
