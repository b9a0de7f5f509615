# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# The server is killed in the middle of saves, again and again. The home opens every time, and every change that was reported
# as saved is there.
# shellcheck source=../common.bash
. "$(dirname "$0")/../common.bash"

start_with_functions
# The registration of the functions is the server's own data; keep the kill from taking it.
private_server_stop "$server"
private_server_start "$server" "$home" "$plugins"

# One statement a line, and the client hands on each result as it comes: what stands in the file was reported.
change_until_killed() {
  local i
  for ((i = 1; ; ++i)); do
    echo "SELECT kezu_conf_set_policy('$1', 'r$2x$i', 2, 1, 0, 0, 5, 1, 'NULL'), 'r$2x$i';"
    echo "SELECT kezu_conf_set_column('$1', 'db', 't', 'r$2x$i', 'r$2x$i'), 'column';"
  done | private_server_client "$server" --skip-column-names --batch --unbuffered >"$3" 2>/dev/null || true
}

total=0
for round in 1 2 3 4 5 6 7 8 9 10; do
  sid=$(login "$server")
  reported=$run/reported-$round
  change_until_killed "$sid" "$round" "$reported" &
  client=$!
  sleep "0.$((RANDOM % 4))$((RANDOM % 10))"
  private_server_kill "$server"
  wait "$client" || true
  "$admin" verify --home "$home" >"$run/verify.log" 2>&1 || fail "round $round: $(cat "$run/verify.log")"
  private_server_start "$server" "$home" "$plugins"

  # Under a policy that exists the empty value has an encrypted form; under none there is nothing.
  policies=$(awk '$2 != "column" { print $2 }' "$reported")
  grep -vE '^1\s' "$reported" >&2 && fail "round $round: a change was refused"
  lost=0 count=0
  if [ -n "$policies" ]; then
    query=$(printf "%s\n" $policies | sed "s/.*/SELECT LENGTH(data_process_po_ed('&', 0, '')) = 0;/")
    lost=$(private_server_client "$server" --skip-column-names --batch <<<"$query" | grep -c '^1$' || true)
    count=$(wc -w <<<"$policies")
  fi
  sid=$(login "$server")
  for column in $(awk '$2 == "column" { print name } { name = $2 }' "$reported" | tail -n 3); do
    expect_equal "round $round: column $column" NULL \
      "$(value_of "$server" "SELECT kezu_conf_set_column('$sid', 'db', 't', '$column', 'p')")"
  done
  expect_equal "round $round: policies lost" 0 "$lost"
  echo "round $round: $count policies reported, all there"
  total=$((total + count))
done
[ "$total" -ge 10 ] || fail "only $total policies were made in all rounds"
