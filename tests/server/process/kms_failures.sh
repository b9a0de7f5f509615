# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# What kezu-admin kms does, and what it says when something is wrong: the settings, the certificates, the server, the keys on it.
# shellcheck source=../kms.bash
. "$(dirname "$0")/../kms.bash"

home=$run/home server=$run/server
private_kms_start "$kms"
make_kms_home "$home"
cp "$home/kezu.toml" "$run/good.toml"
private_server_create "$server"
private_server_start "$server" "$home" "$plugins"
install_functions "$server"
sid=$(login "$server")
for name in p q r; do
  make_policy "$server" "$sid" "$name"
done

kms_admin() {
  "$admin" kms "$@" --home "$home"
}

# with SETTING VALUE: from here on kezu.toml has this value, until good_settings.
with() {
  sed -i "/^$1 = /d" "$home/kezu.toml"
  echo "$1 = $2" >>"$home/kezu.toml"
}
good_settings() {
  cp "$run/good.toml" "$home/kezu.toml"
}
with_certificate() {
  with certificate "\"$1.crt\""
  with key "\"$1.key\""
}

# refused WHAT TEXT: so says kms check, and nothing can be pushed or listed either. The settings are good afterwards.
refused() {
  expect_failure "$1: check" "$2" kms_admin check
  expect_failure "$1: list" "$2" kms_admin list
  expect_failure "$1: push" "$2" kms_admin push p
  good_settings
}

# Puts the validity of certificate NAME of the key management server into the past.
expire() {
  python3 - "$kms/certs" "$1" <<'END'
import datetime, sys
from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
folder, name = sys.argv[1:]
certificate = x509.load_pem_x509_certificate(open(f'{folder}/{name}.crt', 'rb').read())
issuer = x509.load_pem_x509_certificate(open(f'{folder}/ca.crt', 'rb').read())
key = serialization.load_pem_private_key(open(f'{folder}/ca.key', 'rb').read(), None)
builder = x509.CertificateBuilder(issuer.subject, certificate.subject, certificate.public_key(), x509.random_serial_number(),
                                  datetime.datetime(2020, 1, 1), datetime.datetime(2020, 1, 2))
for extension in certificate.extensions:
    builder = builder.add_extension(extension.value, extension.critical)
open(f'{folder}/{name}.crt', 'wb').write(builder.sign(key, hashes.SHA256()).public_bytes(serialization.Encoding.PEM))
END
}

# Changes what the key management server has stored.
on_the_server() {
  python3 -c 'import sqlite3, sys
with sqlite3.connect(sys.argv[1]) as keys:
    keys.execute(sys.argv[2])' "$kms/keys.db" "$1"
}

# A server that is as it should be.
kms_admin check >"$run/check" 2>"$run/stderr"
expect_equal 'nothing to complain about' '' "$(cat "$run/stderr")"
for text in "localhost, port $(cat "$kms/port")" 'KMIP 1.2' 'TLSv1.' 'CN=localhost, issued by CN=Private key server CA' \
  'CN=orvanta,O=home, issued by CN=Private key server CA'; do
  grep -qF -- "$text" "$run/check" || fail "check without '$text': $(cat "$run/check")"
done
expect_equal 'dates' 2 "$(grep -cE 'valid from 20[0-9-]+T[0-9:]+Z to 20[0-9-]+T[0-9:]+Z' "$run/check")"
grep -qE '[0-9.]+ ms to connect and ask for versions, [0-9.]+ ms to look for keys' "$run/check" || fail 'check without times'

# Names: all of them are looked at first.
expect_failure 'unknown names' "nothing was pushed: no policy of this home: 'P', 'none'; kezu-admin dump" kms_admin push p P q none
expect_equal 'nothing there' 1 "$(kms_admin list | wc -l)"
expect_equal 'push' "'q': pushed" "$(kms_admin push q q)"
expect_failure 'a name that is there' "nothing was pushed: on the server already: 'q'; --replace" kms_admin push --all
expect_equal 'one there' 2 "$(kms_admin list | wc -l)"
expect_equal 'the same once more' $'\'p\': pushed\n\'q\': unchanged' "$(kms_admin push p q --replace)"
kms_admin list >"$run/list"
expect_equal 'names in the list' 'name p q ' "$(cut -d' ' -f1 "$run/list" | tr '\n' ' ')"
grep -qE '^p +AES256 +RANDOM +GCM +BASE64 +0 +0 +-$' "$run/list" || fail "list: $(cat "$run/list")"

# A key that is none of ours, in two ways; a name that is there twice.
expect_equal 'the third' "'r': pushed" "$(kms_admin push r)"
on_the_server "UPDATE app_specific_info SET application_namespace = 'other' WHERE id = 3"
expect_failure 'a key of another program' "key '3' named 'r': it has no Application Specific Information in namespace 'orvanta-policy'" \
  kms_admin list
on_the_server "UPDATE app_specific_info SET application_namespace = 'orvanta-policy', application_data = 'v1 algorithm=99' WHERE id = 3"
expect_failure 'fields out of range' "key '3' named 'r'" kms_admin list
on_the_server "UPDATE app_specific_info SET application_data = (SELECT application_data FROM app_specific_info WHERE id = 2) WHERE id = 3"
on_the_server "UPDATE managed_object_names SET name = 'p' WHERE mo_uid = 3"
cp -a "$home" "$run/maker"
expect_equal 'mode 0' 1 "$(set_mode "$server" "$sid" 0)"
expect_equal 'mode 1' 1 "$(set_mode "$server" "$sid" 1)"
expect_equal 'a fetch of two with one name' -1 "$(load_policies "$server" "$sid")"
grep -qF "it has two policies named 'p'" "$home"/log/audit-*.log || fail 'the reason is not in the audit log'
# A push that is cut short between the new key and the old one leaves that. Pushing again mends it.
expect_equal 'two of one name' "'p': replaced" "$("$admin" kms push --home "$run/maker" p --replace)"
expect_equal 'a fetch of one' 1 "$(load_policies "$server" "$sid")"
expect_value 'policies' 2 "$server" "SELECT kezu_conf_get_policy('$sid')"
expect_failure 'a home without policies' 'nothing was pushed: the home has no policies of its own' kms_admin push --all
expect_equal 'mode 0' 1 "$(set_mode "$server" "$sid" 0)"
make_policy "$server" "$sid" p

# The settings, and the files that they name.
with host '"no-such-host.invalid"'
refused 'an unknown host' 'no-such-host.invalid port'
with ca "\"$run/none\""
refused 'no authority' "$run/none: the file is missing"
with key "\"$run/none\""
refused 'no key' "$run/none: the file is missing"
with certificate "\"$run/none\""
refused 'no certificate' "$run/none: "
with key "\"$kms/certs/probe.key\""
refused 'the key of another' 'is not the private key of the certificate'
install -m 644 "$kms/certs/home.key" "$run/open.key"
with key "\"$run/open.key\""
refused 'a key open to others' "$run/open.key: is open to other users (mode 0644); close it with chmod 600"
with ports 5696
refused 'an unknown setting' "unknown setting 'kms.ports'"
with host '"127.0.0.1"'
kms_admin check >/dev/null || fail 'the address of the server does not do'
good_settings

# Certificates: of another authority, for another use, for another host, expired. A server must not take our key then, nor we its.
private_kms_create "$run/foreign"
private_kms_client "$run/foreign" other
with ca "\"$run/foreign/certs/ca.crt\""
refused 'a server of another authority' 'its certificate is not accepted: '
with_certificate "$run/foreign/certs/other"
refused 'a client of another authority' 'TLS failed: tlsv1 alert unknown ca'
private_kms_issue "$kms" reader /CN=orvanta 'extendedKeyUsage = serverAuth'
with_certificate "$kms/certs/reader"
refused 'a certificate for servers' 'TLS failed: sslv3 alert unsupported certificate'
private_kms_client "$kms" late
expire late
with_certificate "$kms/certs/late"
refused 'an expired client' 'TLS failed: sslv3 alert certificate expired'
private_kms_issue "$kms" stranger /CN=stranger 'extendedKeyUsage = clientAuth'
with_certificate "$kms/certs/stranger"
expect_equal 'keys of another owner' 1 "$(kms_admin list | wc -l)"
good_settings

# Time limits.
kill -STOP "${private_kms_pid[$kms]}"
with connect_timeout 1
refused 'a server that hangs' 'no TLS connection within connect_timeout, 1 s'
kill -CONT "${private_kms_pid[$kms]}"

# The server itself.
private_kms_stop "$kms"
refused 'no server' 'Connection refused'
expire server
private_kms_start "$kms"
refused 'an expired server' 'its certificate is not accepted: certificate has expired'
private_kms_stop "$kms"
private_kms_issue "$kms" server /CN=elsewhere 'extendedKeyUsage = serverAuth' 'subjectAltName = DNS:elsewhere.example'
private_kms_start "$kms"
refused 'a server for another host' 'its certificate is not accepted: hostname mismatch'
