# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# Every result of the functions for the key-server mode, with the audit event that belongs to it.
# shellcheck source=../kms.bash
. "$(dirname "$0")/../kms.bash"

server=$run/server home=$run/home
private_kms_start "$kms"
make_kms_home "$home"
private_server_create "$server"
private_server_start "$server" "$home" "$plugins"
install_functions "$server"
sid=$(login "$server")
make_policy "$server" "$sid" p
"$admin" kms push --home "$home" p >/dev/null

only='SET ENV KMS ONLY' cached='SET ENV KMS CACHED' disable='SET ENV KMS DISABLE'
in_the_way='You cannot use VX-KMS unless the number of local policies and columns is none.'
columns='You cannot change to KMS Disable mode unless the number of columns is none.'
failed='Failed to get Policies from VX-KMS.'
failed_local='Failed to get Policies from VX-KMS. Local policy info loaded.'
mismatch='Cached local Policy info and VX-KMS policy info mismatched.'
no_local='Local policy info does not exist. You should use Sync with KMS.'

# Lines of the audit log about policies, as LEVEL "TEXT".
events() {
  sed -nE 's/^[^ ]+ ([0-9]) group="policy" desc=("[^"]*")$/\1 \2/p' "$home"/log/audit-*.log
}

# expect_call WHAT RESULT EVENT STATEMENT
#
# The statement gives the result, and leaves this one event, or none where it is empty.
expect_call() {
  local before after
  before=$(events | wc -l)
  expect_value "$1" "$2" "$server" "SELECT $4"
  after=$(events | tail -n "+$((before + 1))")
  expect_equal "$1: event" "$3" "$after"
}
mode() {
  expect_call "mode $1 to $2" "$3" "$4" "kezu_conf_set_kms_mode('$sid', $2)"
}
mode_is() {
  expect_value "the mode" "$1" "$server" "SELECT kezu_conf_get_kms_mode('$sid')"
}
load() {
  expect_call "load: $1" "$2" "$3" "kezu_conf_get_policy_for_kms('$sid')"
}
column() {
  expect_value "column" "$1" "$server" "SELECT kezu_conf_set_column('$sid', 'd', 't', 'c'${2:-})"
}
save() {
  expect_value 'save' 1 "$server" "SELECT kezu_conf_set_policy('$sid')"
}

# Wrong calls, and no session.
for call in 'set_kms_mode()' "set_kms_mode('$sid')" "set_kms_mode('$sid', 1, 1)" 'get_kms_mode()' "get_kms_mode('$sid', 1)" \
  "get_policy_for_kms('$sid', 1)"; do
  case $call in get_policy*) usage=get_policy_kms_mode ;; *) usage=get_kms_mode ;; esac
  ! value_of "$server" "SELECT kezu_conf_$call" 2>"$run/stderr" || fail "$call is accepted"
  grep -qF "kezu_conf_${usage}_init('string data')" "$run/stderr" || fail "$call: $(cat "$run/stderr")"
done
for call in 'set_kms_mode("nobody", 1)' 'set_kms_mode(NULL, 1)' 'get_kms_mode("nobody")' 'get_policy_for_kms("nobody")'; do
  expect_call "$call" NULL '' "kezu_conf_$call"
done
mode_is 0

# Mode 0: nothing to load. A policy is in the way of a server, a column of every change.
load 'mode 0' 1 ''
mode 0 1 -3 "3 \"$in_the_way\""
mode 0 2 -3 "3 \"$in_the_way\""
column 1 ", 'p'"
mode 0 0 -3 "3 \"$columns\""
column 3
mode_is 0
mode 0 7 1 ''
mode 0 -1 1 ''
mode_is 0
expect_value 'the policy' 1 "$server" "SELECT kezu_conf_get_policy('$sid')"
mode 0 0 1 "2 \"$disable\""
expect_value 'the policy' 0 "$server" "SELECT kezu_conf_get_policy('$sid')"

# Mode 1, with nothing fetched and then with policies.
mode 0 1 1 "2 \"$only\""
mode 1 2 -6 ''
mode 1 1 1 "2 \"$only\""
mode_is 1
expect_call 'without a session, mode 1' 1 '' 'kezu_conf_get_policy_for_kms()'
expect_value 'nothing was fetched' 0 "$server" "SELECT kezu_conf_get_policy('$sid')"
load 'mode 1' 1 ''
expect_value 'fetched' 1 "$server" "SELECT kezu_conf_get_policy('$sid')"
expect_value 'no policy is made' -4 "$server" "SELECT kezu_conf_set_policy('$sid', 'q', 2, 1, 0, 0, 5, 1, 'NULL')"
expect_value 'none is deleted' -4 "$server" "SELECT kezu_conf_set_policy('$sid', 'p')"
expect_value 'none is saved' 0 "$server" "SELECT kezu_conf_set_policy('$sid')"
mode 1 1 -3 "3 \"$in_the_way\""
mode 1 2 -6 ''
column 1 ", 'p'"
mode 1 0 -3 "3 \"$columns\""
column 3
private_kms_stop "$kms"
load 'mode 1, server away' -1 "4 \"$failed\""
expect_value 'those of before stay' 1 "$server" "SELECT kezu_conf_get_policy('$sid')"
mode 1 0 1 "2 \"$disable\""
expect_value 'none is left' 0 "$server" "SELECT kezu_conf_get_policy('$sid')"

# Mode 2.
mode 0 2 1 "2 \"$cached\""
mode 2 1 -6 ''
mode 2 2 1 "2 \"$cached\""
mode_is 2
load 'mode 2, server away, no copy' -2 "3 \"$failed_local\""
private_kms_start "$kms"
load 'mode 2, no copy' -4 "3 \"$no_local\""
expect_value 'fetched' 1 "$server" "SELECT kezu_conf_get_policy('$sid')"
expect_value 'no policy is made' -4 "$server" "SELECT kezu_conf_set_policy('$sid', 'q', 2, 1, 0, 0, 5, 1, 'NULL')"
save
load 'mode 2' 1 ''
mode 2 2 -3 "3 \"$in_the_way\""
mode 2 1 -6 ''
# A policy more on the server.
make_home "$run/other"
private_kms_settings "$kms" home >>"$run/other/kezu.toml"
private_server_create "$run/maker"
private_server_start "$run/maker" "$run/other" "$plugins"
install_functions "$run/maker"
make_policy "$run/maker" "$(login "$run/maker")" q
"$admin" kms push --home "$run/other" q >/dev/null
load 'mode 2, a policy more' -3 "3 \"$mismatch\""
expect_value 'it is in use' 2 "$server" "SELECT kezu_conf_get_policy('$sid')"
expect_call 'without a session, mode 2' 1 '' 'kezu_conf_get_policy_for_kms()'
expect_value 'the copy is in use' 1 "$server" "SELECT kezu_conf_get_policy('$sid')"
load 'mode 2, still one more' -3 "3 \"$mismatch\""
save
load 'mode 2, saved' 1 ''
private_kms_stop "$kms"
load 'mode 2, server away' -2 "3 \"$failed_local\""
expect_value 'the copy is in use' 2 "$server" "SELECT kezu_conf_get_policy('$sid')"

# A save that fails: the mode is changed, in this server. A folder is in the place of the new file.
mkdir "$home/policy.kz.tmp"
mode 2 0 -2 "2 \"$disable\""
mode_is 0
rmdir "$home/policy.kz.tmp"
mode 0 0 1 "2 \"$disable\""
# Another process changes the file between reload and save: the server, which reloads before it opens the lock, is held up there.
exec {lock}<"$home/.lock"
flock "$lock"
coproc WATCH { exec timeout 60 python3 - "$home/.lock" {lock}<&- <<'END'; }
import ctypes, os, sys
libc = ctypes.CDLL(None)
watch = libc.inotify_init1(0)
libc.inotify_add_watch(watch, sys.argv[1].encode(), 0x20)  # IN_OPEN
print('watching', flush=True)
os.read(watch, 4096)
print('opened', flush=True)
END
read -r answer <&"${WATCH[0]}"
expect_equal 'the watch of the lock' watching "$answer"
value_of "$server" "SELECT kezu_conf_set_kms_mode('$sid', 1)" >"$run/conflict" {lock}<&- &
waiting=$!
read -r answer <&"${WATCH[0]}"
expect_equal 'the server at the lock' opened "$answer"
cp -p "$home/policy.kz" "$run/policy.kz"
mv "$run/policy.kz" "$home/policy.kz"
exec {lock}<&-
wait "$waiting"
expect_equal 'a save in between' -5 "$(cat "$run/conflict")"
