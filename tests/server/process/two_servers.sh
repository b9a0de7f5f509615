# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# Two servers on one configuration home: each sees what the other saved, neither accepts the other's sessions, and neither
# loses a change of the other.
# shellcheck source=../common.bash
. "$(dirname "$0")/../common.bash"

one=$run/one two=$run/two home=$run/home
make_home "$home"
for server in "$one" "$two"; do
  private_server_create "$server"
  private_server_start "$server" "$home" "$plugins"
  install_functions "$server"
done
sid_one=$(login "$one")
sid_two=$(login "$two")

expect_equal 'session of the other server' 2 "$(value_of "$two" "SELECT kezu_conf_check_session_auth('$sid_one')")"
expect_equal 'login with it' -4 "$(value_of "$two" "SELECT kezu_conf_get_auth('$sid_one', 'x')")"
expect_equal 'policy with it' 0 "$(value_of "$two" "SELECT kezu_conf_set_policy('$sid_one', 'p', 2, 1, 0, 0, 5, 0, 'NULL')")"
expect_equal 'column with it' NULL "$(value_of "$two" "SELECT kezu_conf_set_column('$sid_one', 'd', 't', 'v', 'p')")"
expect_equal 'it is still good at home' 0 "$(value_of "$one" "SELECT kezu_conf_check_session_auth('$sid_one')")"

for i in 1 2 3 4 5 6; do
  expect_equal "policy $i of one" 1 "$(value_of "$one" "SELECT kezu_conf_set_policy('$sid_one', 'one$i', 2, 1, 0, 0, 5, 1, 'NULL')")"
  expect_equal "policy $i of two" 1 "$(value_of "$two" "SELECT kezu_conf_set_policy('$sid_two', 'two$i', 2, 1, 0, 0, 5, 1, 'NULL')")"
done
expect_equal 'session of one' 0 "$(value_of "$one" "SELECT kezu_conf_check_session_auth('$sid_one')")"
for i in 1 2 3 4 5 6; do
  encrypted=$(value_of "$one" "SELECT data_process_po_ed('two$i', 0, 'across')")
  expect_equal "value under two$i" across "$(value_of "$two" "SELECT data_process_po_ed('two$i', 1, '$encrypted')")"
  encrypted=$(value_of "$two" "SELECT data_process_po_ed('one$i', 0, 'across')")
  expect_equal "value under one$i" across "$(value_of "$one" "SELECT data_process_po_ed('one$i', 1, '$encrypted')")"
done
"$admin" verify --home "$home" >/dev/null || fail 'the home does not verify'
