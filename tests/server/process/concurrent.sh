# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# Eight connections encrypt and decrypt for ten seconds, or for KEZU_TEST_SECONDS, values short and long, one at a time and
# row by row, while an administrator makes and deletes policies. None ever gets a value that is not its own. Two more set,
# list and delete the same query-privilege rules. None ever sees a rule that nobody set.
# shellcheck source=../common.bash
. "$(dirname "$0")/../common.bash"

seconds=${KEZU_TEST_SECONDS:-10}
start_with_functions
sid=$(login "$server")
value_of "$server" "CREATE DATABASE d" >/dev/null
expect_equal 'policies' $'1\t1' "$(value_of "$server" "SELECT kezu_conf_set_policy('$sid', 'rnd', 2, 1, 0, 0, 5, 0, 'NULL'),
  kezu_conf_set_policy('$sid', 'det', 2, 0, 0, 0, 1, 2, 'NULL')")"

private_server_client "$server" d <<'SQL'
CREATE TABLE given (who INT, n INT, clear VARBINARY(1000), det VARBINARY(3000), rnd VARBINARY(1100), PRIMARY KEY (who, n));
INSERT INTO given SELECT w.seq, n.seq, CONCAT(w.seq, '/', n.seq, '/', REPEAT(CHAR(96 + w.seq), n.seq * 7)), NULL, NULL
FROM seq_1_to_8 AS w, seq_1_to_100 AS n;
UPDATE given SET det = data_process_po_ed('det', 0, clear), rnd = data_process_po_ed('rnd', 0, clear);
DELIMITER //
-- Counts rounds and values that came back wrong.
CREATE PROCEDURE work(me INT, seconds INT)
BEGIN
  DECLARE rounds, wrong, bad INT DEFAULT 0;
  DECLARE until_when DATETIME(6) DEFAULT SYSDATE(6) + INTERVAL seconds SECOND;
  DECLARE v VARBINARY(1000);
  WHILE SYSDATE(6) < until_when DO
    SET v = CONCAT('connection ', me, ' round ', rounds, REPEAT(CHAR(96 + me), rounds * 13 % 900));
    IF NOT data_process_po_ed('rnd', 1, data_process_po_ed('rnd', 0, v)) <=> v THEN SET wrong = wrong + 1; END IF;
    IF NOT data_process_po_ed('det', 1, data_process_po_ed('det', 0, v)) <=> v THEN SET wrong = wrong + 1; END IF;
    IF NOT data_process_ed_check_str('rnd', data_process_po_ed('rnd', 0, v)) <=> v THEN SET wrong = wrong + 1; END IF;
    SELECT COUNT(*) INTO bad FROM given WHERE who = me AND NOT (data_process_po_ed('det', 0, clear) <=> det
      AND data_process_po_ed('det', 1, det) <=> clear AND data_process_po_ed('rnd', 1, rnd) <=> clear);
    SET wrong = wrong + bad, rounds = rounds + 1;
  END WHILE;
  SELECT rounds, wrong;
END//
CREATE PROCEDURE administrate(sid VARCHAR(64), seconds INT)
BEGIN
  DECLARE changes, failed INT DEFAULT 0;
  DECLARE until_when DATETIME(6) DEFAULT SYSDATE(6) + INTERVAL seconds SECOND;
  WHILE SYSDATE(6) < until_when DO
    -- A reader may hold on to the policies that it began a row with for four changes. At the pace of a hurried person that is
    -- two seconds.
    IF NOT kezu_conf_set_policy(sid, 'passing', 2, 1, 0, 0, 5, 0, 'NULL') <=> 1 THEN SET failed = failed + 1; END IF;
    DO SLEEP(0.5);
    IF NOT kezu_conf_set_policy(sid, 'passing') <=> 3 THEN SET failed = failed + 1; END IF;
    DO SLEEP(0.5);
    SET changes = changes + 2;
  END WHILE;
  SELECT changes, failed;
END//
-- Two patterns longer than a string keeps in place, of one letter each. Counts rounds and answers that were wrong.
CREATE PROCEDURE govern(sid VARCHAR(64), me INT, seconds INT)
BEGIN
  DECLARE rounds, wrong INT DEFAULT 0;
  DECLARE until_when DATETIME(6) DEFAULT SYSDATE(6) + INTERVAL seconds SECOND;
  DECLARE letter CHAR(1);
  WHILE SYSDATE(6) < until_when DO
    SET letter = CHAR(97 + (rounds + me) % 2);
    IF NOT kezu_conf_set_querypriv(sid, 'SELECT', REPEAT(letter, 40), 'NULL', REPEAT(letter, 40), me) IN (1, 2) <=> 1 THEN
      SET wrong = wrong + 1;
    END IF;
    IF NOT kezu_conf_get_querypriv(sid, 0) REGEXP '^(SELECT,"(a{40}",NULL,"a{40}|b{40}",NULL,"b{40})",[12]|NULL,"",NULL,"",0)$' <=> 1 THEN
      SET wrong = wrong + 1;
    END IF;
    IF NOT kezu_conf_set_querypriv(sid, 'SELECT', REPEAT(letter, 40), 'NULL', REPEAT(letter, 40)) IN (0, 3) <=> 1 THEN
      SET wrong = wrong + 1;
    END IF;
    SET rounds = rounds + 1;
  END WHILE;
  SELECT rounds, wrong;
END//
DELIMITER ;
SQL

for who in 1 2 3 4 5 6 7 8; do
  in_background "$server" "work-$who" "CALL d.work($who, $seconds)"
done
in_background "$server" administrate "CALL d.administrate('$sid', $seconds)"
for who in 1 2; do
  in_background "$server" "govern-$who" "CALL d.govern('$sid', $who, $seconds)"
done
wait_for_background
for who in work-{1..8} administrate govern-{1,2}; do
  expect_work "$who"
done
expect_equal 'rules left' 'NULL,"",NULL,"",0' "$(value_of "$server" "SELECT kezu_conf_get_querypriv('$sid', 0)")"
