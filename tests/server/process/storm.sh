# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# Eight connections work on values while an administrator, without a pause, makes and deletes policies, discards all of
# them, changes privileges and reloads. Every result is right or empty. KEZU_TEST_SECONDS says for how long.
# shellcheck source=../common.bash
. "$(dirname "$0")/../common.bash"

seconds=${KEZU_TEST_SECONDS:-6}
start_with_functions
sid=$(login "$server")
private_server_client "$server" <<'SQL'
CREATE DATABASE d;
USE d;
DELIMITER //
CREATE FUNCTION judged(result VARBINARY(2000), expected VARBINARY(2000)) RETURNS INT DETERMINISTIC
  RETURN CASE WHEN result = expected THEN 0 WHEN result = '' THEN 1 ELSE 1000000 END//
-- Prints how many results were right, empty and wrong.
CREATE PROCEDURE work(me INT, seconds INT)
BEGIN
  DECLARE total, verdict, i INT DEFAULT 0;
  DECLARE until_when DATETIME(6) DEFAULT SYSDATE(6) + INTERVAL seconds SECOND;
  DECLARE v, c VARBINARY(2000);
  WHILE SYSDATE(6) < until_when DO
    SET i = i + 1, v = CONCAT('connection ', me, ' round ', i, REPEAT(CHAR(96 + me), i * 13 % 900));
    SET verdict = verdict + judged(hash_raw_data(v), UNHEX(SHA2(v, 256)));
    SET verdict = verdict + judged(hash_b64_data(v), TO_BASE64(UNHEX(SHA2(v, 256))));
    SET c = data_process_po_ed('rnd', 0, v);
    SET verdict = verdict + IF(c = '', 1, judged(data_process_po_ed('rnd', 1, c), v));
    SET verdict = verdict + IF(c = '', 1, judged(data_process_ed_check_str('rnd', c), v));
    SET c = data_process_po_ed('det', 0, v);
    SET verdict = verdict + IF(c = '', 1, judged(data_process_po_ed('det', 1, c), v));
    SET c = hmac_b64_data(v, 'det');
    SET verdict = verdict + IF(c = '' OR LENGTH(c) = 44, 0, 1000000);
    SET total = total + 6;
  END WHILE;
  SELECT total - verdict % 1000000, verdict % 1000000, verdict DIV 1000000;
END//
CREATE PROCEDURE administrate(sid VARCHAR(64), seconds INT)
BEGIN
  DECLARE changes, failed INT DEFAULT 0;
  DECLARE until_when DATETIME(6) DEFAULT SYSDATE(6) + INTERVAL seconds SECOND;
  WHILE SYSDATE(6) < until_when DO
    SET failed = failed + (NOT (kezu_conf_set_policy(sid, 'rnd', 2, 1, 0, 0, 5, 0, 'NULL') <=> 1));
    SET failed = failed + (NOT (kezu_conf_set_policy(sid, 'det', 2, 0, 0, 0, 5, 2, 'NULL') <=> 1));
    SET failed = failed + (NOT (kezu_conf_set_policy(sid, 'passing', 2, 0, 0, 0, 5, 2, 'NULL') <=> 1));
    SET failed = failed + (NOT (kezu_conf_set_policy(sid, 'passing') <=> 3));
    SET failed = failed + (NOT (kezu_conf_set_encpriv(sid, 'u', 'o', 't', 'c', 1, 1) <=> 1));
    SET failed = failed + (NOT (kezu_conf_set_encpriv(sid, 'u', 'o', 't', 'c') <=> 3));
    SET failed = failed + (NOT (kezu_conf_set_accepriv(sid, 'i', 'u', 'o', 't', 'c', 1) <=> 1));
    SET failed = failed + (NOT (kezu_conf_set_accepriv(sid, 'i', 'u', 'o', 't', 'c') <=> 3));
    DO reload_kezu();
    SET failed = failed + (NOT (kezu_conf_set_kms_mode(sid, 0) <=> 1));
    SET changes = changes + 9;
  END WHILE;
  SELECT changes, failed;
END//
DELIMITER ;
SQL

for who in 1 2 3 4 5 6 7 8; do
  in_background "$server" "work-$who" "CALL d.work($who, $seconds)"
done
in_background "$server" administrate "CALL d.administrate('$sid', $seconds)"
wait_for_background
for who in work-{1..8} administrate; do
  expect_work "$who"
done
