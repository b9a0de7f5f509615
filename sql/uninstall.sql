-- SPDX-License-Identifier: Apache-2.0
--
-- Removes every function of kezu_agent_udf.so from a MySQL or MariaDB server. The configuration home is not touched, and
-- encrypted data stays as it is: install.sql brings the functions back. Statements that are running end normally; the server
-- unloads the library when the last of them has ended. Sessions end with it.
--
--     mariadb -u root < uninstall.sql

DROP FUNCTION IF EXISTS kezu_conf_get_session_id;
DROP FUNCTION IF EXISTS kezu_conf_get_auth;
DROP FUNCTION IF EXISTS kezu_conf_check_session_auth;
DROP FUNCTION IF EXISTS kezu_conf_set_passwd;
DROP FUNCTION IF EXISTS kezu_conf_set_env;
DROP FUNCTION IF EXISTS kezu_conf_get_env;
DROP FUNCTION IF EXISTS kezu_conf_set_log_flag;
DROP FUNCTION IF EXISTS kezu_conf_get_log_flag;
DROP FUNCTION IF EXISTS kezu_conf_get_log;
DROP FUNCTION IF EXISTS kezu_conf_set_policy;
DROP FUNCTION IF EXISTS kezu_conf_get_policy;
DROP FUNCTION IF EXISTS kezu_conf_set_kms_mode;
DROP FUNCTION IF EXISTS kezu_conf_get_kms_mode;
DROP FUNCTION IF EXISTS kezu_conf_get_policy_for_kms;
DROP FUNCTION IF EXISTS kezu_conf_set_column;
DROP FUNCTION IF EXISTS kezu_conf_get_column;
DROP FUNCTION IF EXISTS kezu_conf_set_accepriv;
DROP FUNCTION IF EXISTS kezu_conf_get_accepriv;
DROP FUNCTION IF EXISTS kezu_conf_set_encpriv;
DROP FUNCTION IF EXISTS kezu_conf_get_encpriv;
DROP FUNCTION IF EXISTS kezu_conf_set_querypriv;
DROP FUNCTION IF EXISTS kezu_conf_get_querypriv;
DROP FUNCTION IF EXISTS kezu_conf_set_tableinfo;
DROP FUNCTION IF EXISTS kezu_conf_get_tableinfo;
DROP FUNCTION IF EXISTS data_process_po_ed;
DROP FUNCTION IF EXISTS data_process_ed_check_str;
DROP FUNCTION IF EXISTS data_process_ed_check_int;
DROP FUNCTION IF EXISTS hash_raw_data;
DROP FUNCTION IF EXISTS hash_b64_data;
DROP FUNCTION IF EXISTS hmac_b64_data;
DROP FUNCTION IF EXISTS getcolumnsizebyotc_kezu;
DROP FUNCTION IF EXISTS reload_kezu;
