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
CREATE TABLE reported (kind VARCHAR(10), name VARCHAR(20), is_there INT, PRIMARY KEY (kind, name)) ENGINE = Memory;
CREATE TABLE refused (kind VARCHAR(10) PRIMARY KEY, times INT) ENGINE = Memory;
DELIMITER //
-- What a change that makes (1) or deletes (3) something was reported to have come to.
CREATE PROCEDURE note(kind VARCHAR(10), name VARCHAR(20), wanted INT, result INT)
  IF result = wanted THEN
    REPLACE INTO reported VALUES (kind, name, wanted = 1);
  ELSE
    INSERT INTO refused VALUES (kind, 1) ON DUPLICATE KEY UPDATE times = times + 1;
  END IF//
-- One change of each table in turn, each under a name of its own. What was made a while before is deleted, so the tables
-- don't become full.
CREATE PROCEDURE work(sid VARCHAR(64), tag CHAR(1), seconds INT)
BEGIN
  DECLARE i INT DEFAULT 0;
  DECLARE made, old VARCHAR(20);
  DECLARE until_when DATETIME(6) DEFAULT SYSDATE(6) + INTERVAL seconds SECOND;
  WHILE SYSDATE(6) < until_when DO
    SET i = i + 1, made = CONCAT(tag, i);
    CALL note('policy', made, 1, kezu_conf_set_policy(sid, made, 2, 1, 0, 0, 5, 0, 'NULL'));
    CALL note('column', made, 1, kezu_conf_set_column(sid, 'o', 't', made, 'p'));
    CALL note('encpriv', made, 1, kezu_conf_set_encpriv(sid, made, 'o', 't', 'c', 1, 1));
    CALL note('accepriv', made, 1, kezu_conf_set_accepriv(sid, '10.0.0.1', made, 'o', 't', 'c', 1));
    CALL note('tableinfo', made, 1, kezu_conf_set_tableinfo('o', made, 'command'));
    CALL note('querypriv', made, 1, kezu_conf_set_querypriv(sid, 'SELECT', made, 'NULL', 'NULL', 1));
    IF i > 20 THEN
      SET old = CONCAT(tag, i - 20);
      CALL note('policy', old, 3, kezu_conf_set_policy(sid, old));
      -- That one also says 3 when another process changed the file meanwhile: it may be there or not.
      IF kezu_conf_set_column(sid, 'o', 't', old) = 3 THEN
        DELETE FROM reported WHERE kind = 'column' AND name = old;
      END IF;
      CALL note('encpriv', old, 3, kezu_conf_set_encpriv(sid, old, 'o', 't', 'c'));
      CALL note('accepriv', old, 3, kezu_conf_set_accepriv(sid, '10.0.0.1', old, 'o', 't', 'c'));
      CALL note('tableinfo', old, 3, kezu_conf_set_tableinfo('o', old));
      CALL note('querypriv', old, 3, kezu_conf_set_querypriv(sid, 'SELECT', old, 'NULL', 'NULL'));
    END IF;
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
private_server_client "$reader" <<'SQL'
CREATE DATABASE d;
USE d;
CREATE TABLE rules (pattern VARCHAR(20));
DELIMITER //
CREATE PROCEDURE collect(sid VARCHAR(64))
BEGIN
  DECLARE i INT DEFAULT 0;
  DECLARE found VARCHAR(20) DEFAULT kezu_conf_get_querypriv(sid, 0, 1);
  WHILE found IS NOT NULL DO
    INSERT INTO rules VALUES (found);
    SET i = i + 1, found = kezu_conf_get_querypriv(sid, i, 1);
  END WHILE;
END//
DELIMITER ;
SQL
value_of "$reader" "CALL d.collect('${sid[$reader]}')"
for server in "${servers[@]}"; do
  name=$(basename "$server")
  private_server_client "$server" --skip-column-names --batch -e \
    'SELECT kind, name, is_there FROM d.reported' >"$run/saved-$name"
  value_of "$server" 'SELECT kind, SUM(is_there), SUM(NOT is_there), times FROM d.reported NATURAL LEFT JOIN d.refused
                      GROUP BY kind' |
    sed "s/^/server $name: /; s/\t/: made and kept /; s/\t/, deleted /; s/\t/, refused /"
  for kind in policy column encpriv accepriv tableinfo querypriv; do
    grep -q "^$kind.*1$" "$run/saved-$name" || fail "server $name saved no change of $kind"
  done
  s=${sid[$reader]}
  while read -r kind name is_there; do
    case $kind in
      policy) value="data_process_po_ed('$name', 0, '') <> ''" ;;
      column) value="kezu_conf_get_column('$s', 'o', 't', '$name') <=> 'p'" ;;
      encpriv) value="kezu_conf_get_encpriv('$s', '$name', 'o', 't', 'c', 0) <=> '1'" ;;
      accepriv) value="kezu_conf_get_accepriv('$s', '10.0.0.1', '$name', 'o', 't', 'c') <=> '1'" ;;
      tableinfo) value="kezu_conf_get_tableinfo('o', '$name') <=> 'command'" ;;
      querypriv) value="'$name' IN (SELECT pattern FROM d.rules)" ;;
    esac
    echo "SELECT IF(IFNULL($value, 0) = $is_there, 'right', '$kind $name $is_there');"
  done <"$run/saved-$name" >"$run/questions"
  private_server_client "$reader" --skip-column-names --batch <"$run/questions" >"$run/answers"
  expect_equal 'answers' "$(wc -l <"$run/questions")" "$(wc -l <"$run/answers")"
  expect_equal "lost changes of server $(basename "$server")" '' "$(grep -v '^right$' "$run/answers" || true)"
done
echo "kezu-admin: $passwords passwords, the last one is in force"
