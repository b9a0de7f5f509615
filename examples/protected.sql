-- SPDX-License-Identifier: Apache-2.0
--
-- A table whose sensitive columns hold encrypted values only, and how an application meets it: it writes clear values, which
-- triggers encrypt, and reads them through a view. Expects the policies personal, lookup and card.

DROP VIEW IF EXISTS customers_clear;
DROP TABLE IF EXISTS customers;

-- Encrypted values are bytes, whatever they were before: VARBINARY, or a text type where the policy encodes as Base64 or hex.
-- An encrypted value is longer than the clear one, by a number of bytes that depends on the policy.
CREATE TABLE customers (
  id          INT PRIMARY KEY,
  name        VARBINARY(400) NOT NULL,
  email       VARBINARY(200) NOT NULL,
  national_id VARBINARY(60) NOT NULL,
  card        VARCHAR(80) CHARACTER SET ascii COLLATE ascii_bin NOT NULL,
  KEY by_email (email)
);

-- A policy that is missing gives the empty string; NULLIF turns it into NULL, which the column refuses, so that no value is lost.
CREATE TRIGGER customers_insert BEFORE INSERT ON customers FOR EACH ROW
  SET NEW.name        = NULLIF(data_process_po_ed('personal', 0, NEW.name), ''),
      NEW.email       = NULLIF(data_process_po_ed('lookup',   0, NEW.email), ''),
      NEW.national_id = NULLIF(data_process_po_ed('personal', 0, NEW.national_id), ''),
      NEW.card        = NULLIF(data_process_po_ed('card',     0, NEW.card), '');

-- A column that the statement leaves alone keeps its encrypted value.
CREATE TRIGGER customers_update BEFORE UPDATE ON customers FOR EACH ROW
  SET NEW.name        = IF(NEW.name = OLD.name, OLD.name, NULLIF(data_process_po_ed('personal', 0, NEW.name), '')),
      NEW.email       = IF(NEW.email = OLD.email, OLD.email, NULLIF(data_process_po_ed('lookup', 0, NEW.email), '')),
      NEW.national_id = IF(NEW.national_id = OLD.national_id, OLD.national_id,
                           NULLIF(data_process_po_ed('personal', 0, NEW.national_id), '')),
      NEW.card        = IF(NEW.card = OLD.card, OLD.card, NULLIF(data_process_po_ed('card', 0, NEW.card), ''));

-- Decrypted values are bytes too; CONVERT says which text they are.
CREATE VIEW customers_clear AS
  SELECT id,
         CONVERT(data_process_po_ed('personal', 1, name) USING utf8mb4)     AS name,
         CONVERT(data_process_po_ed('lookup', 1, email) USING utf8mb4)      AS email,
         CONVERT(data_process_po_ed('personal', 1, national_id) USING utf8mb4) AS national_id,
         CONVERT(data_process_po_ed('card', 1, card) USING utf8mb4)         AS card
  FROM customers;
