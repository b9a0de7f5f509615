# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# Thousands of connections that open, use every function that keeps something for its thread, and close again leave the
# server's memory as it was.
# shellcheck source=../common.bash
. "$(dirname "$0")/../common.bash"

# Without the cache every connection is a thread of its own.
start_with_functions --thread-cache-size=0 --performance-schema=off
sid=$(login "$server")
expect_equal 'policies' $'1\t1' "$(value_of "$server" "SELECT kezu_conf_set_policy('$sid', 'rnd', 2, 1, 0, 0, 5, 0, 'NULL'),
  kezu_conf_set_policy('$sid', 'det', 2, 0, 0, 0, 1, 2, 'NULL')")"

# Opens and closes $1 connections, one after the other. Results longer than the server's buffer use the functions' own.
connections() {
  local i
  for ((i = 0; i < $1; ++i)); do
    echo 'connect mysql;'
    echo "SELECT data_process_po_ed('det', 1, data_process_po_ed('det', 0, REPEAT('x', 3000))) = REPEAT('x', 3000)
      AND data_process_po_ed('rnd', 1, data_process_po_ed('rnd', 0, REPEAT('x', 3000))) = REPEAT('x', 3000)
      AND data_process_ed_check_str('rnd', data_process_po_ed('rnd', 0, REPEAT('x', 3000))) = REPEAT('x', 3000)
      AND data_process_ed_check_int('rnd', data_process_po_ed('rnd', 0, REPEAT('x', 3000))) = 1
      AND LENGTH(hash_raw_data('x')) = 32 AND LENGTH(hash_b64_data('x', 'HAS160')) = 28 AND LENGTH(hmac_b64_data('x', 'det', 'HAS160')) = 28
      AND kezu_conf_get_policy('$sid', 0, 0) = 'rnd' AND kezu_conf_get_log('$sid', 0, CURDATE(), 0) <> '' AS c$i;"
  done | private_server_client "$server" --skip-column-names --batch >"$run/results"
  expect_equal 'right results' "$1" "$(grep -c '^1$' "$run/results")"
}
memory() {
  awk '/^VmRSS/ { print $2 }' "/proc/${private_server_pid[$server]}/status"
}

connections 1000
before=$(memory)
connections 3000
after=$(memory)
echo "resident memory: $before KiB after 1000 connections, $after KiB after 3000 more"
# Each connection used some 50 KiB for its thread. The server's own allocator may need a little more than before; 250 bytes a
# connection are too much.
[ $((after - before)) -lt 700 ] || fail "the connections left $((after - before)) KiB behind"
