# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# The functions are removed and registered again while connections use them. A statement either works or is refused as a
# whole; the server goes on, and the configuration with it.
# shellcheck source=../common.bash
. "$(dirname "$0")/../common.bash"

start_with_functions
sid=$(login "$server")
expect_equal 'policy' 1 "$(value_of "$server" "SELECT kezu_conf_set_policy('$sid', 'p', 2, 1, 0, 0, 5, 0, 'NULL')")"
value_of "$server" "CREATE DATABASE d"
private_server_client "$server" d <<'SQL'
CREATE TABLE t (id INT PRIMARY KEY, v VARBINARY(1100));
INSERT INTO t SELECT seq, data_process_po_ed('p', 0, REPEAT('v', seq)) FROM seq_1_to_500;
SQL
before=${private_server_pid[$server]}

# Each line of the output is the number of right values of one statement: 500. Errors go to a file of their own.
query="SELECT COUNT(*) FROM d.t WHERE data_process_po_ed('p', 1, v) = REPEAT('v', id) AND data_process_ed_check_int('p', v) = 1;"
clients=()
for who in 1 2 3 4; do
  while [ ! -e "$run/done" ]; do
    for _ in {1..50}; do echo "$query"; done
  done | private_server_client "$server" --skip-column-names --batch --force >"$run/values-$who" 2>"$run/errors-$who" &
  clients+=($!)
done
for _ in {1..15}; do
  private_server_client "$server" <"$root/sql/uninstall.sql"
  private_server_client "$server" <"$root/sql/install.sql"
  private_server_client "$server" <"$root/sql/install.sql"
  sleep 0.2
done
touch "$run/done"
for client in "${clients[@]}"; do
  wait "$client" || true
done

kill -0 "$before" || fail 'the server has ended'
expect_equal 'the process' "$before" "${private_server_pid[$server]}"
for who in 1 2 3 4; do
  right=$(grep -c '^500$' "$run/values-$who" || true)
  wrong=$(grep -vc '^500$' "$run/values-$who" || true)
  # 1305: no such function. 1122: removed after the statement was parsed. 1123 with the name *, which is what the server
  # calls functions that are removed while statements use them: the same, and it found another one under that name.
  strange=$(grep '^ERROR' "$run/errors-$who" | grep -vE "^ERROR (1305|1122) |^ERROR 1123 .* function '[*]'" || true)
  echo "connection $who: $right statements right, $wrong wrong, $(grep -c '^ERROR' "$run/errors-$who" || true) without the functions"
  [ "$right" -gt 0 ] || fail "connection $who never got a value"
  expect_equal "wrong results of connection $who" 0 "$wrong"
  [ -z "$strange" ] || fail "connection $who: $strange"
done
expect_equal 'afterwards' 500 "$(value_of "$server" "$query")"
login "$server" >/dev/null
