# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# A private MariaDB server in a folder: its own data, socket and configuration home, no network, none of the machine's
# settings. For bash scripts to source; they run under `set -eu`.
#
#   private_server_create DIR                      makes DIR/data; what was in DIR before is lost
#   private_server_start DIR PLUGIN_DIR [OPTION..] starts the server with KEZU_HOME=DIR/home and waits until it answers
#   private_server_stop                            stops the server that was started; harmless when there is none
#   private_server_client [OPTION..]               the client, connected to it as root
#
# After a start, private_server_socket is its socket and private_server_pid its process.

private_server_pid=
private_server_socket=
private_server_socket_folder=

# The server refuses to run as root unless told so.
private_server_user() {
  if [ "$(id -u)" -eq 0 ]; then
    echo --user=root
  fi
}

private_server_create() {
  local dir=$1
  rm -rf "$dir"
  mkdir -p "$dir"
  # shellcheck disable=SC2046
  if ! mariadb-install-db --no-defaults --datadir="$dir/data" --auth-root-authentication-method=normal --skip-test-db \
    $(private_server_user) >"$dir/install-db.log" 2>&1; then
    cat "$dir/install-db.log" >&2
    return 1
  fi
}

private_server_start() {
  local dir=$1 plugins=$2
  shift 2
  private_server_socket=$dir/mariadb.sock
  # A socket's path has room for 107 bytes.
  if [ ${#private_server_socket} -gt 107 ]; then
    private_server_socket_folder=$(mktemp -d "${TMPDIR:-/tmp}/kezu.XXXXXX")
    private_server_socket=$private_server_socket_folder/mariadb.sock
  fi
  # A session of its own keeps Ctrl-C at the terminal from reaching the server before the script stops it.
  # shellcheck disable=SC2046
  KEZU_HOME=$dir/home setsid mariadbd --no-defaults $(private_server_user) --datadir="$dir/data" \
    --socket="$private_server_socket" --pid-file="$dir/mariadb.pid" --log-error="$dir/error.log" --skip-networking \
    --plugin-dir="$plugins" --character-set-server=utf8mb4 --collation-server=utf8mb4_general_ci \
    --innodb-buffer-pool-size=64M --innodb-log-file-size=16M "$@" </dev/null >/dev/null 2>&1 &
  private_server_pid=$!
  local tries
  for ((tries = 0; tries < 300; ++tries)); do
    if private_server_client -e 'DO 0' 2>/dev/null; then
      return 0
    fi
    if ! kill -0 "$private_server_pid" 2>/dev/null; then
      break
    fi
    sleep 0.1
  done
  echo "The private database server did not start. Its log, $dir/error.log, ends with:" >&2
  tail -n 20 "$dir/error.log" >&2 || true
  private_server_stop
  return 1
}

private_server_stop() {
  if [ -n "$private_server_pid" ]; then
    kill "$private_server_pid" 2>/dev/null || true
    local tries
    for ((tries = 0; tries < 300; ++tries)); do
      kill -0 "$private_server_pid" 2>/dev/null || break
      sleep 0.1
    done
    kill -9 "$private_server_pid" 2>/dev/null || true
    wait "$private_server_pid" 2>/dev/null || true
    private_server_pid=
  fi
  if [ -n "$private_server_socket_folder" ]; then
    rm -rf "$private_server_socket_folder"
    private_server_socket_folder=
  fi
}

private_server_client() {
  mariadb --no-defaults --socket="$private_server_socket" --user=root --default-character-set=utf8mb4 "$@"
}
