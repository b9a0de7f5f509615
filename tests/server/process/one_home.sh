# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# Two servers and kezu-admin change one home at the same time, while other connections make both servers reload all along.
# Whatever was reported as saved is there afterwards. KEZU_TEST_SECONDS says for how long.
# shellcheck source=../common.bash
. "$(dirname "$0")/../common.bash"

home=$run/home seconds=${KEZU_TEST_SECONDS:-10}
servers=("$run/one" "$run/two")
make_home "$home"
declare -A sid
for server in "${servers[@]}"; do
  private_server_create "$server"
  private_server_start "$server" "$home" "$plugins"
  install_functions "$server"
  sid[$server]=$(login "$server")
  private_server_client "$server" <<'SQL'
CREATE DATABASE d;
USE d;
CREATE TABLE reported (kind VARCHAR(10), name VARCHAR(20), result INT) ENGINE = Memory;
DELIMITER //
-- One change of each table in turn, each under a name of its own, and what was reported.
CREATE PROCEDURE work(sid VARCHAR(64), tag CHAR(1), seconds INT)
BEGIN
  DECLARE i, result INT DEFAULT 0;
  DECLARE name VARCHAR(20);
  DECLARE until_when DATETIME(6) DEFAULT SYSDATE(6) + INTERVAL seconds SECOND;
  WHILE SYSDATE(6) < until_when DO
    SET i = i + 1, name = CONCAT(tag, i);
    SET result = kezu_conf_set_policy(sid, name, 2, 1, 0, 0, 5, 0, 'NULL');
    INSERT INTO reported VALUES ('policy', name, result);
    SET result = kezu_conf_set_column(sid, 'o', 't', name, 'p');
    INSERT INTO reported VALUES ('column', name, result);
    SET result = kezu_conf_set_encpriv(sid, name, 'o', 't', 'c', 1, 1);
    INSERT INTO reported VALUES ('encpriv', name, result);
    SET result = kezu_conf_set_accepriv(sid, '10.0.0.1', name, 'o', 't', 'c', 1);
    INSERT INTO reported VALUES ('accepriv', name, result);
    SET result = kezu_conf_set_tableinfo('o', name, 'command');
    INSERT INTO reported VALUES ('tableinfo', name, result);
  END WHILE;
END//
-- Every call of the dynamic statement reloads.
CREATE PROCEDURE look(seconds INT)
BEGIN
  DECLARE until_when DATETIME(6) DEFAULT SYSDATE(6) + INTERVAL seconds SECOND;
  WHILE SYSDATE(6) < until_when DO
    EXECUTE IMMEDIATE "SELECT hmac_b64_data('x', 'none') INTO @ignored";
  END WHILE;
END//
DELIMITER ;
SQL
done

jobs=()
for server in "${servers[@]}"; do
  name=$(basename "$server")
  value_of "$server" "CALL d.work('${sid[$server]}', '${name:0:1}', $seconds)" >"$run/work-$name" 2>&1 &
  jobs+=($!)
  value_of "$server" "CALL d.look($seconds)" >"$run/look-$name" 2>&1 &
  jobs+=($!)
done
passwords=0 end=$((SECONDS + seconds))
while [ "$SECONDS" -lt "$end" ]; do
  if "$admin" passwd --home "$home" --password-file - <<<"value $passwords" >"$run/passwd.log" 2>&1; then
    password="value $passwords"
    passwords=$((passwords + 1))
  fi
  "$admin" verify --home "$home" >"$run/verify.log" 2>&1 || fail "verify while the servers save: $(cat "$run/verify.log")"
done
for job in "${jobs[@]}"; do
  wait "$job" || fail "a connection ended: $(cat "$run"/work-* "$run"/look-*)"
done
[ "$passwords" -gt 0 ] || fail 'kezu-admin changed nothing'

# What the files hold, as a server that starts reads them.
reader=$run/reader
private_server_create "$reader"
private_server_start "$reader" "$home" "$plugins"
install_functions "$reader"
sid[$reader]=$(login "$reader")
for server in "${servers[@]}"; do
  name=$(basename "$server")
  private_server_client "$server" --skip-column-names --batch -e \
    'SELECT kind, name FROM d.reported WHERE result = 1' >"$run/saved-$name"
  value_of "$server" 'SELECT kind, COUNT(*), SUM(result <=> 1) FROM d.reported GROUP BY kind' |
    sed "s/^/server $name: /; s/\t/, /; s/\t/ changes, saved /"
  for kind in policy column encpriv accepriv tableinfo; do
    [ "$(grep -c "^$kind" "$run/saved-$name")" -gt 0 ] || fail "server $name saved no change of $kind"
  done
  s=${sid[$reader]}
  while read -r kind name; do
    case $kind in
      policy) value="LENGTH(data_process_po_ed('$name', 0, '')) > 0" ;;
      column) value="kezu_conf_get_column('$s', 'o', 't', '$name') <=> 'p'" ;;
      encpriv) value="kezu_conf_get_encpriv('$s', '$name', 'o', 't', 'c', 0) <=> '1'" ;;
      accepriv) value="kezu_conf_get_accepriv('$s', '10.0.0.1', '$name', 'o', 't', 'c') <=> '1'" ;;
      tableinfo) value="kezu_conf_get_tableinfo('o', '$name') <=> 'command'" ;;
    esac
    echo "SELECT IF($value, 'there', '$kind $name');"
  done <"$run/saved-$name" >"$run/questions"
  private_server_client "$reader" --skip-column-names --batch <"$run/questions" >"$run/answers"
  expect_equal 'answers' "$(wc -l <"$run/questions")" "$(wc -l <"$run/answers")"
  expect_equal "lost changes of server $(basename "$server")" '' "$(grep -v '^there$' "$run/answers" || true)"
done
echo "kezu-admin: $passwords passwords, the last one is in force"
