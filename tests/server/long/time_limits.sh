# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# The limits that only time shows: a session ends 300 seconds after its last refresh, a lock 600 seconds after the last
# failure. Takes a quarter of an hour.
# shellcheck source=../common.bash
. "$(dirname "$0")/../common.bash"

locked=$run/locked live=$run/live
for server in "$locked" "$live"; do
  make_home "$server-home"
  private_server_create "$server"
  private_server_start "$server" "$server-home" "$plugins"
  install_functions "$server"
done
check() { value_of "$live" "SELECT kezu_conf_check_session_auth('$1')"; }
wait_until() { sleep $(($1 - SECONDS)); }

SECONDS=0
sid=$(login "$live")
other=$(login "$locked")
for _ in 1 2 3 4 5; do
  expect_equal 'wrong answer' -2 "$(value_of "$locked" "SELECT kezu_conf_get_auth('$other', 'wrong')")"
done
wait_until 290
expect_equal 'session after 290 s' 0 "$(check "$sid")"
wait_until 580
expect_equal 'session 290 s after a refresh' 0 "$(check "$sid")"
wait_until 590
expect_equal 'lock after 590 s' -3 "$(value_of "$locked" "SELECT kezu_conf_get_auth('$other', 'wrong')")"
wait_until 605
login "$locked" >/dev/null
wait_until 885
expect_equal 'use of a session after 305 s' 0 \
  "$(value_of "$live" "SELECT kezu_conf_set_policy('$sid', 'p', 2, 1, 0, 0, 5, 0, 'NULL')")"
expect_equal 'session after 305 s' 1 "$(check "$sid")"
login "$live" >/dev/null
