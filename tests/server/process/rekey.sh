# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# The master key is changed while a server runs: it works on with what it has loaded, and refuses what needs the files until it
# is started again.
# shellcheck source=../common.bash
. "$(dirname "$0")/../common.bash"

start_with_functions
sid=$(login "$server")
expect_equal 'policy' 1 "$(value_of "$server" "SELECT kezu_conf_set_policy('$sid', 'p', 2, 1, 0, 0, 5, 1, 'NULL')")"
encrypted=$(value_of "$server" "SELECT data_process_po_ed('p', 0, 'before')")

"$admin" rekey --home "$home" >"$run/rekey" || fail 'rekey'
grep -q 'Restart every database server' "$run/rekey" || fail 'rekey does not ask for a restart'
expect_equal 'a value of before' before "$(value_of "$server" "SELECT data_process_po_ed('p', 1, '$encrypted')")"
expect_equal 'a policy now' 0 "$(value_of "$server" "SELECT kezu_conf_set_policy('$sid', 'q', 2, 1, 0, 0, 5, 1, 'NULL')")"
expect_equal 'the session now' -1 "$(value_of "$server" "SELECT kezu_conf_check_session_auth('$sid')")"
grep -q 'sealed with another master key' "$home"/log/audit-*.log || fail 'the reason is not in the audit log'
"$admin" verify --home "$home" >/dev/null || fail 'the home does not verify'

private_server_stop "$server"
private_server_start "$server" "$home" "$plugins"
expect_equal 'the value after the restart' before "$(value_of "$server" "SELECT data_process_po_ed('p', 1, '$encrypted')")"
sid=$(login "$server")
expect_equal 'a policy after it' 1 "$(value_of "$server" "SELECT kezu_conf_set_policy('$sid', 'q', 2, 1, 0, 0, 5, 1, 'NULL')")"
