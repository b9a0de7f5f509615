-- SPDX-License-Identifier: Apache-2.0
--
-- Three thousand invented customers, the same ones every time, in a table `incoming` of the current schema: what an
-- application would hand over in clear. Nobody here exists: the e-mail domains are reserved for documentation (RFC 2606), the
-- national ids follow no country's form, and the card numbers begin with 400000, a prefix for tests, with a valid check digit.

DROP FUNCTION IF EXISTS luhn_digit;
DELIMITER //
-- The check digit (ISO/IEC 7812-1, Luhn) that belongs behind `digits`.
CREATE FUNCTION luhn_digit(digits VARCHAR(18)) RETURNS INT DETERMINISTIC NO SQL
BEGIN
  DECLARE total INT DEFAULT 0;
  DECLARE place INT DEFAULT 0;
  DECLARE digit INT;
  WHILE place < CHAR_LENGTH(digits) DO
    SET digit = SUBSTRING(digits, CHAR_LENGTH(digits) - place, 1);
    IF place % 2 = 0 THEN
      SET digit = digit * 2;
    END IF;
    SET total = total + IF(digit > 9, digit - 9, digit);
    SET place = place + 1;
  END WHILE;
  RETURN (10 - total % 10) % 10;
END//
DELIMITER ;

DROP TABLE IF EXISTS incoming;
CREATE TABLE incoming (
  id          INT PRIMARY KEY,
  name        VARCHAR(80) NOT NULL,
  email       VARCHAR(120) NOT NULL,
  national_id CHAR(11) NOT NULL,
  card        CHAR(16) NOT NULL
) DEFAULT CHARSET = utf8mb4;

INSERT INTO incoming
WITH
  digits AS (
    SELECT 0 AS d UNION ALL SELECT 1 UNION ALL SELECT 2 UNION ALL SELECT 3 UNION ALL SELECT 4
    UNION ALL SELECT 5 UNION ALL SELECT 6 UNION ALL SELECT 7 UNION ALL SELECT 8 UNION ALL SELECT 9),
  numbers AS (
    SELECT 1 + a.d + 10 * b.d + 100 * c.d + 1000 * e.d AS n
    FROM digits a CROSS JOIN digits b CROSS JOIN digits c CROSS JOIN digits e
    WHERE e.d < 3),
  people AS (
    SELECT n,
      ELT(1 + n % 24, 'Ada', 'Bruno', 'Chiara', 'Dmitri', 'Élodie', 'Farid', 'Greta', 'Hyun', 'Inês', 'Jakub', 'Kaori', 'Lars',
        'Mireia', 'Nils', 'Olu', 'Petra', 'Quentin', 'Rosa', 'Søren', 'Tamar', 'Uma', 'Viktor', 'Wanjiru', 'Zoë') AS first_name,
      ELT(1 + (n * 7 + n DIV 24) % 25, 'Adeyemi', 'Bauer', 'Castillo', 'Dubois', 'Eriksson', 'Ferreira', 'García', 'Haddad',
        'Ivanova', 'Jansen', 'Kowalski', 'Lindqvist', 'Moreau', 'Nakamura', 'Okafor', 'Park', 'Quispe', 'Rossi', 'Schäfer',
        'Tanaka', 'Ueda', 'Vargas', 'Weber', 'Yılmaz', 'Zimmer') AS last_name
    FROM numbers)
SELECT
  n,
  CONCAT(first_name, ' ', last_name),
  CONCAT('customer', LPAD(n, 4, '0'), '@', ELT(1 + n % 3, 'example.com', 'example.net', 'example.org')),
  CONCAT(CHAR(65 + n % 26), CHAR(65 + n DIV 26 % 26), '-', LPAD((n * 48271) % 10000000, 7, '0'), n % 10),
  CONCAT('400000', LPAD((n * 331777) % 1000000000, 9, '0'),
         luhn_digit(CONCAT('400000', LPAD((n * 331777) % 1000000000, 9, '0'))))
FROM people
ORDER BY n;
