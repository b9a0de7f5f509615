-- SPDX-License-Identifier: Apache-2.0
--
-- Registers every function of kezu_agent_udf.so with a MySQL or MariaDB server. Run it as a user who may write to the
-- mysql schema:
--
--     mariadb -u root < install.sql
--
-- It can be run again at any time, also while the functions are in use: each function is dropped and created on its own, so
-- the library stays loaded, with the sessions of those who are logged in. To switch to a new version of the library, run
-- uninstall.sql before the files are replaced, and this file after it.

-- Login and sessions

DROP FUNCTION IF EXISTS kezu_conf_get_session_id;
CREATE FUNCTION kezu_conf_get_session_id RETURNS STRING SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS kezu_conf_get_auth;
CREATE FUNCTION kezu_conf_get_auth RETURNS INTEGER SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS kezu_conf_check_session_auth;
CREATE FUNCTION kezu_conf_check_session_auth RETURNS INTEGER SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS kezu_conf_set_passwd;
CREATE FUNCTION kezu_conf_set_passwd RETURNS INTEGER SONAME 'kezu_agent_udf.so';

-- Settings and logs

DROP FUNCTION IF EXISTS kezu_conf_set_env;
CREATE FUNCTION kezu_conf_set_env RETURNS INTEGER SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS kezu_conf_get_env;
CREATE FUNCTION kezu_conf_get_env RETURNS STRING SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS kezu_conf_set_log_flag;
CREATE FUNCTION kezu_conf_set_log_flag RETURNS INTEGER SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS kezu_conf_get_log_flag;
CREATE FUNCTION kezu_conf_get_log_flag RETURNS STRING SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS kezu_conf_get_log;
CREATE FUNCTION kezu_conf_get_log RETURNS STRING SONAME 'kezu_agent_udf.so';

-- Policies

DROP FUNCTION IF EXISTS kezu_conf_set_policy;
CREATE FUNCTION kezu_conf_set_policy RETURNS INTEGER SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS kezu_conf_get_policy;
CREATE FUNCTION kezu_conf_get_policy RETURNS STRING SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS kezu_conf_set_kms_mode;
CREATE FUNCTION kezu_conf_set_kms_mode RETURNS INTEGER SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS kezu_conf_get_kms_mode;
CREATE FUNCTION kezu_conf_get_kms_mode RETURNS INTEGER SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS kezu_conf_get_policy_for_kms;
CREATE FUNCTION kezu_conf_get_policy_for_kms RETURNS INTEGER SONAME 'kezu_agent_udf.so';

-- Columns and privileges

DROP FUNCTION IF EXISTS kezu_conf_set_column;
CREATE FUNCTION kezu_conf_set_column RETURNS INTEGER SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS kezu_conf_get_column;
CREATE FUNCTION kezu_conf_get_column RETURNS STRING SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS kezu_conf_set_accepriv;
CREATE FUNCTION kezu_conf_set_accepriv RETURNS INTEGER SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS kezu_conf_get_accepriv;
CREATE FUNCTION kezu_conf_get_accepriv RETURNS STRING SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS kezu_conf_set_encpriv;
CREATE FUNCTION kezu_conf_set_encpriv RETURNS INTEGER SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS kezu_conf_get_encpriv;
CREATE FUNCTION kezu_conf_get_encpriv RETURNS STRING SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS kezu_conf_set_querypriv;
CREATE FUNCTION kezu_conf_set_querypriv RETURNS INTEGER SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS kezu_conf_get_querypriv;
CREATE FUNCTION kezu_conf_get_querypriv RETURNS STRING SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS kezu_conf_set_tableinfo;
CREATE FUNCTION kezu_conf_set_tableinfo RETURNS INTEGER SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS kezu_conf_get_tableinfo;
CREATE FUNCTION kezu_conf_get_tableinfo RETURNS STRING SONAME 'kezu_agent_udf.so';

-- Values

DROP FUNCTION IF EXISTS data_process_po_ed;
CREATE FUNCTION data_process_po_ed RETURNS STRING SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS data_process_ed_check_str;
CREATE FUNCTION data_process_ed_check_str RETURNS STRING SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS data_process_ed_check_int;
CREATE FUNCTION data_process_ed_check_int RETURNS INTEGER SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS hash_raw_data;
CREATE FUNCTION hash_raw_data RETURNS STRING SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS hash_b64_data;
CREATE FUNCTION hash_b64_data RETURNS STRING SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS hmac_b64_data;
CREATE FUNCTION hmac_b64_data RETURNS STRING SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS getcolumnsizebyotc_kezu;
CREATE FUNCTION getcolumnsizebyotc_kezu RETURNS INTEGER SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS reload_kezu;
CREATE FUNCTION reload_kezu RETURNS INTEGER SONAME 'kezu_agent_udf.so';
