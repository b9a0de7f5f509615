# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# What the Debian package holds is enough: unpacked into a folder, its libraries, tool and SQL make a working server.
# shellcheck source=../common.bash
. "$(dirname "$0")/../common.bash"

cpack --config "$plugins/../CPackConfig.cmake" -G DEB -B "$run/package" >"$run/cpack.log" 2>&1 ||
  { cat "$run/cpack.log" >&2; fail 'cpack'; }
packages=("$run"/package/kezu-agent_*.deb)
expect_equal 'packages' 1 "${#packages[@]}"
dpkg-deb -x "${packages[0]}" "$run/unpacked"
depends=$(dpkg-deb -f "${packages[0]}" Depends)
for library in libssl3 librhash0 libstdc++6; do
  [[ $depends == *"$library"* ]] || fail "the package does not ask for $library: $depends"
done

# The test's own functions take the tool, the libraries and the SQL from the package from here on.
admin=$run/unpacked/usr/sbin/kezu-admin
plugins=$run/unpacked/usr/lib/mysql/plugin
root=$run/unpacked/usr/share
mkdir "$root/sql"
cp "$root/kezu/"*.sql "$root/sql/"
for file in README.md LICENSE docs/operations.md; do
  [ -s "$root/doc/kezu-agent/$file" ] || fail "the package has no $file"
done

start_with_functions
sid=$(login "$server")
expect_equal 'policy' 1 "$(value_of "$server" "SELECT kezu_conf_set_policy('$sid', 'p', 2, 1, 0, 0, 5, 0, 'NULL')")"
expect_equal 'there and back' 'a value' \
  "$(value_of "$server" "SELECT data_process_po_ed('p', 1, data_process_po_ed('p', 0, 'a value'))")"
expect_equal 'the home' 0 "$("$admin" verify --home "$home" >/dev/null && echo $?)"
private_server_client "$server" <"$root/sql/uninstall.sql"
expect_equal 'functions left' 0 "$(value_of "$server" "SELECT COUNT(*) FROM mysql.func")"
