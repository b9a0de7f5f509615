# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# What the scripts with a key management server share. It is at $kms, stopped at first; every server ends with the script.
# shellcheck source=common.bash
. "$(dirname "${BASH_SOURCE[0]}")/common.bash"
# shellcheck source=../../scripts/private-kms.sh
. "$root/scripts/private-kms.sh"
trap 'private_server_stop_all; private_kms_stop_all' EXIT

kms=$run/kms
private_kms_create "$kms"

# Makes a home with the settings of the key management server, and its client's certificate. The home's folder is the name.
make_kms_home() {
  make_home "$1"
  private_kms_client "$kms" "$(basename "$1")"
  private_kms_settings "$kms" "$(basename "$1")" >>"$1/kezu.toml"
}

# expect_value WHAT EXPECTED SERVER STATEMENT
expect_value() {
  expect_equal "$1" "$2" "$(value_of "$3" "$4")"
}

# expect_failure WHAT TEXT COMMAND...
#
# The command fails with status 1, prints nothing, and says something that has TEXT in it.
expect_failure() {
  local what=$1 text=$2 status=0 output
  shift 2
  output=$("$@" 2>"$run/stderr") || status=$?
  expect_equal "$what: status" 1 "$status"
  expect_equal "$what: output" '' "$output"
  grep -qF -- "$text" "$run/stderr" || fail "$what: expected '$text', got '$(cat "$run/stderr")'"
}

# Makes policy $3 on the server of folder $1, for session $2: AES-256 in GCM mode, random, Base64.
make_policy() {
  expect_value "policy $3" 1 "$1" "SELECT kezu_conf_set_policy('$2', '$3', 2, 1, 0, 0, 5, 1, 'NULL')"
}

# set_mode SERVER SESSION MODE; load_policies SERVER SESSION
set_mode() {
  value_of "$1" "SELECT kezu_conf_set_kms_mode('$2', $3)"
}
load_policies() {
  value_of "$1" "SELECT kezu_conf_get_policy_for_kms('$2')"
}

restart() {
  private_server_stop "$1"
  private_server_start "$1" "$2" "$plugins"
}
