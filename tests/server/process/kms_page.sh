# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# Runs the commands of docs/operations.md that set up a key management server, as they stand there, in folders of its own: what
# needs root or a service manager is done by stand-ins. Then the statements of the page, with the results that it names, and the
# commands for another database server and for a key that is to go.
# shellcheck source=../kms.bash
. "$(dirname "$0")/../kms.bash"

page=$root/docs/operations.md
server=$run/server home=$run/var/lib/kezu
mkdir -p "$run/etc/systemd/system" "$run/var/lib" "$run/var/log" "$run/root"
make_home "$home"

# The chapter's commands, less their indentation: to the end of "Setting one up", and of the part after it.
commands() {
  sed -n "/^### $1\$/,/^##/p" "$page" | sed -nE "s/^ {$2}( *[^ ].*|)\$/\\1/p" |
    sed -e "s,/etc/,$run/etc/,g" -e "s,/var/,$run/var/,g" -e "s,/root/,$run/root/,g" -e "s/5696/$(cat "$kms/port")/"
}
commands 'Setting one up' 7 >"$run/setup.sh"
commands 'Setting one up' 4 | grep -v '^   ' >"$run/next.sh"
commands 'When a fetch fails' 4 >"$run/revoke.sh"
commands 'Putting policies there, and using them' 4 >"$run/push.sh"
expect_equal 'commands for certificates' 3 "$(grep -c '^openssl req' "$run/setup.sh")"

apt-get() { :; }
useradd() { :; }
chown() { :; }
chgrp() { :; }
hostname() { echo example; }
install() {
  local options=()
  while [ $# -gt 0 ]; do
    case $1 in -o | -g) shift ;; *) options+=("$1") ;; esac
    shift
  done
  command install "${options[@]}"
}
# The one service is started, with the settings and the authority of the page.
systemctl() {
  expect_equal 'systemctl' 'enable --now pykmip' "$*"
  expect_equal 'its command' "/usr/bin/pykmip-server -f $run/etc/pykmip/server.conf -l $run/var/log/pykmip/server.log" \
    "$(sed -n 's/^ExecStart=//p' "$run/etc/systemd/system/pykmip.service")"
  cp "$run/etc/pykmip/server.conf" "$kms/server.conf"
  cp "$run/etc/pykmip/certs/ca.crt" "$run/etc/pykmip/certs/ca.key" "$kms/certs"
  private_kms_client "$kms" probe
  private_kms_start "$kms"
}
kezu-admin() {
  "$admin" "$@" --home "$home"
}

# shellcheck source=/dev/null
. "$run/setup.sh" >"$run/setup.log" || fail 'setting up'
grep -qF 'localhost, port' "$run/setup.log" || fail "kms check: $(cat "$run/setup.log")"
[ -s "$run/var/lib/pykmip/keys.db" ] || fail 'the server does not use the settings of the page'

private_server_create "$server"
private_server_start "$server" "$home" "$plugins"
install_functions "$server"
sid=$(login "$server")
make_policy "$server" "$sid" first
make_policy "$server" "$sid" second
# shellcheck source=/dev/null
. "$run/push.sh" >"$run/push.log" || fail 'pushing'
expect_equal 'pushed' 2 "$(grep -c ': pushed$' "$run/push.log")"
expect_equal 'listed' 2 "$(grep -cE '^(first|second) +AES256' "$run/push.log")"

# Each statement of the page, with the result that stands behind it, 1 where none does.
sed -n '/^### Putting policies there/,/^### /p' "$page" | grep '^SELECT' >"$run/statements"
expect_equal 'statements' 5 "$(wc -l <"$run/statements")"
while read -r line; do
  statement=${line%%;*} result=1
  [[ $line =~ --\ (-?[0-9]): ]] && result=${BASH_REMATCH[1]}
  expect_value "$line" "$result" "$server" "${statement/@sid/\'$sid\'}"
done <"$run/statements"
expect_value 'policies' 2 "$server" "SELECT kezu_conf_get_policy('$sid')"

# The next database server sees the same. A key that is revoked is gone: here the second in the place of the page's third.
make_home "$run/second"
cp "$home/kezu.toml" "$run/second/kezu.toml"
# shellcheck source=/dev/null
. "$run/next.sh" 2>"$run/next.log" || fail "the next database server: $(cat "$run/next.log")"
mv "$run"/root/second/kms-* "$run/second"
expect_equal 'list of the next' "$("$admin" kms list --home "$home")" "$("$admin" kms list --home "$run/second")"
grep -qF 'CN=orvanta,O=second' <<<"$("$admin" kms check --home "$run/second")" || fail 'the certificate of the next'
sed -i 's/ - 3 / - 2 /' "$run/revoke.sh"
# shellcheck source=/dev/null
. "$run/revoke.sh" || fail 'revoking'
expect_equal 'what is left' $'name\nfirst' "$("$admin" kms list --home "$home" | cut -d' ' -f1)"
