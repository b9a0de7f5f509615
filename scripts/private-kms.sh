# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# Private key management servers (PyKMIP), each in a folder: its own certificates, keys and log, on a port of the loopback
# address. For bash scripts to source; they run under `set -eu`. DIR is an absolute path everywhere.
#
#   private_kms_create DIR           makes the certificates and the settings in DIR, and chooses a port; what was in DIR
#                                    before is lost
#   private_kms_client DIR NAME      makes a client's certificate, DIR/certs/NAME.crt and NAME.key
#   private_kms_settings DIR NAME    prints the [kms] settings of that client for kezu.toml
#   private_kms_start DIR            starts the server and waits until it answers
#   private_kms_stop DIR             stops it, harmless when it does not run
#   private_kms_stop_all             stops every server of this script; belongs into its exit trap
#
# A server also ends when the script does without stopping it.

declare -A private_kms_pid

# What OpenSSL has to say is shown only when it fails.
private_kms_openssl() {
  local report
  report=$(openssl "$@" 2>&1) || { printf 'openssl %s: %s\n' "$*" "$report" >&2; return 1; }
}

# private_kms_issue DIR NAME SUBJECT EXTENSION...
#
# Makes the key DIR/certs/NAME.key and the certificate DIR/certs/NAME.crt, issued by the folder's authority.
private_kms_issue() {
  local certs=$1/certs name=$2 subject=$3 extension
  local options=(-x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -noenc -days 90 -CA "$certs/ca.crt" -CAkey "$certs/ca.key"
    -extensions usr_cert -subj "$subject" -keyout "$certs/$name.key" -out "$certs/$name.crt")
  shift 3
  for extension in "$@"; do
    options+=(-addext "$extension")
  done
  private_kms_openssl req "${options[@]}"
}

# A port that nothing listens on, below those that the system gives to outgoing connections.
private_kms_choose_port() {
  local port tries
  for ((tries = 0; tries < 100; ++tries)); do
    port=$((20000 + RANDOM % 12000))
    (: <"/dev/tcp/127.0.0.1/$port") 2>/dev/null || { echo "$port"; return 0; }
  done
  echo 'No free port was found for the key management server.' >&2
  return 1
}

# PyKMIP shows a key to its owner only, and the owner is the common name of the certificate that registered it: all clients
# have one common name.
private_kms_client() {
  private_kms_issue "$1" "$2" "/O=$2/CN=orvanta" 'extendedKeyUsage = clientAuth'
}

private_kms_create() {
  local dir=$1
  rm -rf "$dir"
  mkdir -p "$dir/certs" "$dir/access"
  chmod 700 "$dir" "$dir/certs"
  private_kms_openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -noenc -days 90 -subj '/CN=Private key server CA' \
    -addext 'keyUsage = critical, keyCertSign, cRLSign' -keyout "$dir/certs/ca.key" -out "$dir/certs/ca.crt"
  private_kms_issue "$dir" server /CN=localhost 'extendedKeyUsage = serverAuth' 'subjectAltName = DNS:localhost, IP:127.0.0.1'
  private_kms_client "$dir" probe
  private_kms_choose_port >"$dir/port"
  cat >"$dir/server.conf" <<END
[server]
hostname=127.0.0.1
port=$(cat "$dir/port")
certificate_path=$dir/certs/server.crt
key_path=$dir/certs/server.key
ca_path=$dir/certs/ca.crt
auth_suite=TLS1.2
enable_tls_client_auth=True
policy_path=$dir/access
database_path=$dir/keys.db
logging_level=INFO
END
}

private_kms_settings() {
  local dir=$1 name=$2
  cat <<END

[kms]
host = "localhost"
port = $(cat "$dir/port")
ca = "$dir/certs/ca.crt"
certificate = "$dir/certs/$name.crt"
key = "$dir/certs/$name.key"
END
}

private_kms_answers() {
  local dir=$1
  openssl s_client -connect "127.0.0.1:$(cat "$dir/port")" -CAfile "$dir/certs/ca.crt" \
    -cert "$dir/certs/probe.crt" -key "$dir/certs/probe.key" </dev/null >/dev/null 2>&1
}

# The server is three processes. In a session of their own, they can be ended together.
private_kms_start() {
  local dir=$1 tries
  (cd "$dir" && umask 077 && exec setsid setpriv --pdeathsig TERM pykmip-server -f "$dir/server.conf" -l "$dir/server.log") \
    </dev/null >"$dir/output.log" 2>&1 &
  private_kms_pid[$dir]=$!
  disown
  for ((tries = 0; tries < 600; ++tries)); do
    if private_kms_answers "$dir"; then
      return 0
    fi
    kill -0 "${private_kms_pid[$dir]}" 2>/dev/null || break
    sleep 0.05
  done
  echo "The private key management server did not start. It says, in $dir/output.log:" >&2
  tail -n 20 "$dir/output.log" >&2 || true
  private_kms_stop "$dir"
  return 1
}

# It leaves its loop for SIGINT at once, for SIGTERM up to ten seconds later.
private_kms_stop() {
  local dir=$1 tries pid=${private_kms_pid[$1]:-}
  [ -n "$pid" ] || return 0
  kill -INT "$pid" 2>/dev/null || true
  for ((tries = 0; tries < 200; ++tries)); do
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.05
  done
  kill -KILL -- "-$pid" 2>/dev/null || true
  unset "private_kms_pid[$dir]"
}

private_kms_stop_all() {
  local dir
  for dir in "${!private_kms_pid[@]}"; do
    private_kms_stop "$dir"
  done
}
