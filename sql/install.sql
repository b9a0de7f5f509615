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

DROP FUNCTION IF EXISTS kezu_conf_get_session_id;
CREATE FUNCTION kezu_conf_get_session_id RETURNS STRING SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS kezu_conf_get_auth;
CREATE FUNCTION kezu_conf_get_auth RETURNS INTEGER SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS kezu_conf_check_session_auth;
CREATE FUNCTION kezu_conf_check_session_auth RETURNS INTEGER SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS kezu_conf_set_policy;
CREATE FUNCTION kezu_conf_set_policy RETURNS INTEGER SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS kezu_conf_set_column;
CREATE FUNCTION kezu_conf_set_column RETURNS INTEGER SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS data_process_po_ed;
CREATE FUNCTION data_process_po_ed RETURNS STRING SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS data_process_ed_check_str;
CREATE FUNCTION data_process_ed_check_str RETURNS STRING SONAME 'kezu_agent_udf.so';

DROP FUNCTION IF EXISTS data_process_ed_check_int;
CREATE FUNCTION data_process_ed_check_int RETURNS INTEGER SONAME 'kezu_agent_udf.so';
