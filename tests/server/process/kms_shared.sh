# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# Two database servers, each with a home and a master key of its own, share the policies of a key management server: what one
# encrypts the other decrypts, and with a local copy they go on while it is away.
# shellcheck source=../kms.bash
. "$(dirname "$0")/../kms.bash"

one=$run/one two=$run/two
private_kms_start "$kms"
declare -A sid
for server in "$one" "$two"; do
  make_kms_home "$server-home"
  private_server_create "$server"
  private_server_start "$server" "$server-home" "$plugins"
  install_functions "$server"
  sid[$server]=$(login "$server")
done
cmp -s "$one-home/master.key" "$two-home/master.key" && fail 'the homes have one master key'

# The first makes policies and pushes them.
make_policy "$one" "${sid[$one]}" names
expect_value 'policy cards' 1 "$one" "SELECT kezu_conf_set_policy('${sid[$one]}', 'cards', 5, 0, 6, 6, 1, 2, 'K!')"
local_value=$(value_of "$one" "SELECT data_process_po_ed('names', 0, 'made locally')")
expect_equal 'push' $'\'names\': pushed\n\'cards\': pushed' "$("$admin" kms push --home "$one-home" --all)"
expect_equal 'list' "$("$admin" kms list --home "$one-home")" "$("$admin" kms list --home "$two-home")"
# Its own copies go.
expect_equal 'mode 0 of one' 1 "$(set_mode "$one" "${sid[$one]}" 0)"
expect_value 'no policies' 0 "$one" "SELECT kezu_conf_get_policy('${sid[$one]}')"

# expect_shared WHAT
#
# What either server encrypts the other decrypts, under both policies.
expect_shared() {
  local from to policy encrypted
  for policy in names cards; do
    for from in "$one" "$two"; do
      [ "$from" = "$one" ] && to=$two || to=$one
      encrypted=$(value_of "$from" "SELECT data_process_po_ed('$policy', 0, '4000001234567890')")
      [ -n "$encrypted" ] || fail "$1: $from has no policy $policy"
      [ "$encrypted" != 4000001234567890 ] || fail "$1: $policy leaves the value as it is"
      expect_value "$1: $policy from $from" 4000001234567890 "$to" "SELECT data_process_po_ed('$policy', 1, '$encrypted')"
    done
  done
  expect_value "$1: a value of before" 'made locally' "$two" "SELECT data_process_po_ed('names', 1, '$local_value')"
}

# The server's policies alone.
for server in "$one" "$two"; do
  expect_equal "mode 1 of $server" 1 "$(set_mode "$server" "${sid[$server]}" 1)"
  expect_equal "fetch of $server" 1 "$(load_policies "$server" "${sid[$server]}")"
  expect_value "policies of $server" 2 "$server" "SELECT kezu_conf_get_policy('${sid[$server]}')"
done
expect_shared 'mode 1'
expect_equal 'policies in the file' 0 "$("$admin" dump --home "$two-home" | grep -c key_length || true)"

# A restart fetches them by itself.
restart "$two" "$two-home"
expect_shared 'mode 1, restarted'

# Without the server, the policies in use stay until a restart. Then there are none, and the database server runs.
private_kms_stop "$kms"
expect_equal 'fetch from nowhere' -1 "$(load_policies "$one" "${sid[$one]}")"
expect_shared 'mode 1, server away'
restart "$two" "$two-home"
expect_value 'a value, no policies' '' "$two" "SELECT data_process_po_ed('names', 1, '$local_value')"
sid[$two]=$(login "$two")
expect_equal 'fetch after a restart' -1 "$(load_policies "$two" "${sid[$two]}")"
expect_value 'policies after a restart' 0 "$two" "SELECT kezu_conf_get_policy('${sid[$two]}')"
grep -qF 'Connection refused' "$two-home"/log/audit-*.log || fail 'the reason is not in the audit log'
private_kms_start "$kms"
expect_equal 'fetch when it is back' 1 "$(load_policies "$two" "${sid[$two]}")"
expect_shared 'mode 1, server back'

# With a local copy: nothing there, fetched, saved, then equal.
for server in "$one" "$two"; do
  expect_equal "mode 0 of $server" 1 "$(set_mode "$server" "${sid[$server]}" 0)"
  expect_equal "mode 2 of $server" 1 "$(set_mode "$server" "${sid[$server]}" 2)"
  expect_equal "first fetch of $server" -4 "$(load_policies "$server" "${sid[$server]}")"
  expect_value "save on $server" 1 "$server" "SELECT kezu_conf_set_policy('${sid[$server]}')"
  expect_equal "second fetch of $server" 1 "$(load_policies "$server" "${sid[$server]}")"
done
expect_shared 'mode 2'

# Everything goes on without the server, also after a restart.
private_kms_stop "$kms"
for server in "$one" "$two"; do
  restart "$server" "$server-home"
  sid[$server]=$(login "$server")
done
expect_shared 'mode 2, server away'
expect_equal 'fetch from nowhere' -2 "$(load_policies "$one" "${sid[$one]}")"
expect_shared 'mode 2, after a fetch from nowhere'
private_kms_start "$kms"

# A policy changes on the server: the copy differs, until it is saved again.
private_server_create "$run/third"
make_kms_home "$run/third-home"
private_server_start "$run/third" "$run/third-home" "$plugins"
install_functions "$run/third"
make_policy "$run/third" "$(login "$run/third")" names
expect_failure 'push of a name that is there' "on the server already: 'names'; --replace" "$admin" kms push --home "$run/third-home" names
expect_equal 'fetch, nothing changed' 1 "$(load_policies "$one" "${sid[$one]}")"
expect_equal 'replacement' "'names': replaced" "$("$admin" kms push --home "$run/third-home" names --replace)"
expect_equal 'fetch, changed' -3 "$(load_policies "$one" "${sid[$one]}")"
expect_value 'a value under the old key' '' "$one" "SELECT data_process_po_ed('names', 1, '$local_value')"
expect_value 'save' 1 "$one" "SELECT kezu_conf_set_policy('${sid[$one]}')"
expect_equal 'fetch, saved' 1 "$(load_policies "$one" "${sid[$one]}")"
# The other keeps its copy until it fetches.
expect_value 'the same on the other' 'made locally' "$two" "SELECT data_process_po_ed('names', 1, '$local_value')"
expect_equal 'fetch of the other' -3 "$(load_policies "$two" "${sid[$two]}")"
encrypted=$(value_of "$run/third" "SELECT data_process_po_ed('names', 0, 'the new key')")
for server in "$one" "$two"; do
  expect_value "the new key on $server" 'the new key' "$server" "SELECT data_process_po_ed('names', 1, '$encrypted')"
done

for home in "$one-home" "$two-home" "$run/third-home"; do
  "$admin" verify --home "$home" >/dev/null || fail "$home does not verify"
done

# No key is in a log, in any of the forms that a log could have it in.
python3 - "$kms/keys.db" >"$run/keys" <<'END'
import base64, sqlite3, sys
for (key,) in sqlite3.connect(sys.argv[1]).execute('SELECT value FROM managed_objects'):
    print(key.hex(), key.hex().upper(), base64.b64encode(key).decode(), sep='\n')
END
[ "$(wc -l <"$run/keys")" -ge 6 ] || fail 'the key management server has no keys'
! grep -lFf "$run/keys" "$run"/*-home/log/* "$run"/*/error.log || fail 'a key is in a log'
