# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# A server that stops and starts again keeps functions, policies, columns and encrypted data, and forgets sessions, failed
# logins and locks.
# shellcheck source=../common.bash
. "$(dirname "$0")/../common.bash"

start_with_functions
sid=$(login "$server")
expect_equal 'policy' 1 "$(value_of "$server" "SELECT kezu_conf_set_policy('$sid', 'p', 2, 1, 0, 0, 5, 0, 'NULL')")"
expect_equal 'column' 1 "$(value_of "$server" "SELECT kezu_conf_set_column('$sid', 'd', 't', 'v', 'p')")"
value_of "$server" "CREATE DATABASE d; CREATE TABLE d.t (v VARBINARY(100));
  INSERT INTO d.t VALUES (data_process_po_ed('p', 0, 'before the restart'))"

private_server_stop "$server"
private_server_start "$server" "$home" "$plugins"
expect_equal 'the value' 'before the restart' "$(value_of "$server" "SELECT data_process_po_ed('p', 1, v) FROM d.t")"
expect_equal 'the session' 2 "$(value_of "$server" "SELECT kezu_conf_check_session_auth('$sid')")"
expect_equal 'its use' 0 "$(value_of "$server" "SELECT kezu_conf_set_policy('$sid', 'q', 2, 1, 0, 0, 5, 0, 'NULL')")"
sid=$(login "$server")
expect_equal 'the column, once more' NULL "$(value_of "$server" "SELECT kezu_conf_set_column('$sid', 'd', 't', 'v', 'p')")"
expect_equal 'the policy in use' 0 "$(value_of "$server" "SELECT kezu_conf_set_policy('$sid', 'p')")"

for attempt in 1 2 3 4 5; do
  expect_equal "wrong answer $attempt" -2 "$(value_of "$server" "SELECT kezu_conf_get_auth('$sid', 'wrong')")"
done
expect_equal 'the lock' -3 "$(value_of "$server" "SELECT kezu_conf_get_auth('$sid', 'wrong')")"
private_server_stop "$server"
private_server_start "$server" "$home" "$plugins"
login "$server" >/dev/null
