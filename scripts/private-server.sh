# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# Private MariaDB servers, each in a folder: its own data and socket, no network, none of the machine's settings. For bash
# scripts to source; they run under `set -eu`. DIR is an absolute path everywhere.
#
#   private_server_create DIR                    makes the data in DIR; what was in DIR before is lost
#   private_server_start DIR HOME PLUGINS [OPTION...]
#                                                starts the server on it with KEZU_HOME=HOME, the libraries of the folder
#                                                PLUGINS and further options, and waits until it answers
#   private_server_stop DIR                      stops it, harmless when it does not run
#   private_server_kill DIR                      ends it at once, as a crash does
#   private_server_stop_all                      stops every server of this script; belongs into its exit trap
#   private_server_client DIR [OPTION...]        the client, connected to it as root
#
# A server also ends when the script does without stopping it.

declare -A private_server_pid private_server_socket

# The server refuses to run as root unless told so.
private_server_user() {
  if [ "$(id -u)" -eq 0 ]; then
    echo --user=root
  fi
}

private_server_create() {
  local dir=$1
  rm -rf "$dir"
  mkdir -p "$dir/tmp"
  # With --force it does without a host name that resolves.
  # shellcheck disable=SC2046
  if ! TMPDIR=$dir/tmp mariadb-install-db --no-defaults --datadir="$dir/data" --auth-root-authentication-method=normal \
    --skip-test-db --force $(private_server_user) >"$dir/install-db.log" 2>&1; then
    cat "$dir/install-db.log" >&2
    return 1
  fi
}

# A socket's path has room for 107 bytes: a folder deeper than that has its socket under /tmp.
private_server_choose_socket() {
  local socket=$1/mariadb.sock
  if [ ${#socket} -gt 107 ]; then
    socket=$(mktemp -d "${TMPDIR:-/tmp}/kezu.XXXXXX")/mariadb.sock
  fi
  private_server_socket[$1]=$socket
}

private_server_start() {
  local dir=$1 home=$2 plugins=$3 tries
  shift 3
  private_server_choose_socket "$dir"
  # A server that starts clears its folder for temporary tables: it must not be one that others use. In a session of its own,
  # Ctrl-C at the terminal does not reach it before the script stops it.
  # shellcheck disable=SC2046
  TMPDIR=$dir/tmp KEZU_HOME=$home setsid setpriv --pdeathsig TERM mariadbd --no-defaults $(private_server_user) \
    --datadir="$dir/data" --socket="${private_server_socket[$dir]}" --pid-file="$dir/mariadb.pid" --log-error="$dir/error.log" --skip-networking \
    --plugin-dir="$plugins" --character-set-server=utf8mb4 \
    --collation-server=utf8mb4_general_ci --innodb-buffer-pool-size=64M --innodb-log-file-size=16M "$@" </dev/null >/dev/null 2>&1 &
  private_server_pid[$dir]=$!
  disown  # bash reports the end of other jobs that are killed
  for ((tries = 0; tries < 600; ++tries)); do
    if private_server_client "$dir" -e 'DO 0' 2>/dev/null; then
      return 0
    fi
    kill -0 "${private_server_pid[$dir]}" 2>/dev/null || break
    sleep 0.05
  done
  echo "The private database server did not start. Its log, $dir/error.log, ends with:" >&2
  tail -n 20 "$dir/error.log" >&2 || true
  private_server_stop "$dir"
  return 1
}

# Sends a signal and waits for the end of the process; after half a minute it is killed.
private_server_end() {
  local dir=$1 signal=$2 tries pid=${private_server_pid[$1]:-}
  if [ -n "$pid" ]; then
    kill "-$signal" "$pid" 2>/dev/null || true
    for ((tries = 0; tries < 600; ++tries)); do
      kill -0 "$pid" 2>/dev/null || break
      sleep 0.05
    done
    kill -KILL "$pid" 2>/dev/null || true
    unset "private_server_pid[$dir]"
  fi
  case "${private_server_socket[$dir]:-}" in
    '' | "$dir"/*) ;;
    *) rm -rf "$(dirname "${private_server_socket[$dir]}")" ;;
  esac
  unset "private_server_socket[$dir]"
}

private_server_stop() {
  private_server_end "$1" TERM
}

private_server_kill() {
  private_server_end "$1" KILL
}

private_server_stop_all() {
  local dir
  for dir in "${!private_server_pid[@]}"; do
    private_server_stop "$dir"
  done
}

private_server_client() {
  local dir=$1
  shift
  mariadb --no-defaults --socket="${private_server_socket[$dir]}" --user=root --default-character-set=utf8mb4 "$@"
}
