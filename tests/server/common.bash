# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# What the scripts that start and stop servers of their own share. Each is called as
#
#   bash SCRIPT RUN_DIR PLUGIN_DIR KEZU_ADMIN [ADD_POLICY]
#
# and ends with status 0 only when every check held. Every server that a script started ends with it.
set -euo pipefail

run=$1 plugins=$2 admin=$3
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
password='S3cret value'

# shellcheck source=../../scripts/private-server.sh
. "$root/scripts/private-server.sh"
trap private_server_stop_all EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

fail() {
  echo "FAILED: $1" >&2
  exit 1
}

# expect_equal WHAT EXPECTED ACTUAL
expect_equal() {
  [ "$2" = "$3" ] || fail "$1: expected '$2', got '$3'"
}

make_home() {
  rm -rf "$1"
  printf %s "$password" | "$admin" init --home "$1" --password-file - >/dev/null
}

install_functions() {
  private_server_client "$1" <"$root/sql/install.sql"
}

# Makes a home, starts a server on it that has the functions, with the options given, and sets the variables server and home
# to their folders.
start_with_functions() {
  server=$run/server home=$run/home
  make_home "$home"
  private_server_create "$server"
  private_server_start "$server" "$home" "$plugins" "$@"
  install_functions "$server"
}

# The value of a statement with one row of one column, on the server of folder $1.
value_of() {
  private_server_client "$1" --skip-column-names --batch -e "$2"
}

# Logs in on the server of folder $1; prints the session id. Sessions belong to the server, not to the connection.
login() {
  local answer
  answer=$(private_server_client "$1" --skip-column-names --batch -e "
    SET @sid = kezu_conf_get_session_id('admin');
    SELECT @sid, kezu_conf_get_auth(@sid, SHA2(CONCAT(SHA2(@sid, 256), '$password'), 256)) > 0")
  [ "${answer#*$'\t'}" = 1 ] || fail "login: $answer"
  echo "${answer%$'\t'*}"
}

# A statement with one row on the server of folder $1, while the script goes on; the row goes to the file $run/NAME.
#
#   in_background SERVER NAME STATEMENT
#   wait_for_background
background=()
in_background() {
  value_of "$1" "$3" >"$run/$2" 2>&1 &
  background+=("$!:$2")
}
wait_for_background() {
  local job
  for job in "${background[@]}"; do
    wait "${job%%:*}" || fail "${job#*:} ended: $(cat "$run/${job#*:}")"
  done
  background=()
}

# What a connection in the background counted: first what it did, which is something, and last what went wrong, which is nothing.
expect_work() {
  local counts
  counts=$(cat "$run/$1")
  echo "$1: $counts"
  [ "${counts%%$'\t'*}" -gt 0 ] || fail "$1 did nothing"
  expect_equal "what went wrong in $1" 0 "${counts##*$'\t'}"
}

rm -rf "$run"
mkdir -p "$run"
