# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# hmac_b64_data under policies whose column keys are known: each code is computed a second time, from docs/ciphertext.md
# alone. HKDF and the HMACs of the SHA family come from the openssl program; it has no HAS-160, so that one is put together
# as RFC 2104 says from plain digests of the server, which agent/t/hash.test compares with published ones.
#
#   bash keyed_digests.sh RUN_DIR PLUGIN_DIR KEZU_ADMIN ADD_POLICY
# shellcheck source=../common.bash
. "$(dirname "$0")/../common.bash"

add_policy=$4
server=$run/server home=$run/home

repeat() {  # repeat COUNT BYTE
  local i
  for ((i = 0; i < $1; ++i)); do printf %s "$2"; done
}
hex_of() {
  printf %s "$1" | od -An -v -tx1 | tr -d ' \n'
}
plain_hex() {
  tr -d ':\n' | tr A-F a-f
}
bytes_of() {
  # shellcheck disable=SC2001
  printf %b "$(sed 's/../\\x&/g' <<<"$1")"
}

# hmac_key COLUMN_KEY
hmac_key() {
  openssl kdf -keylen 32 -kdfopt digest:SHA256 -kdfopt hexkey:"$1" -kdfopt info:'orvanta hmac key' HKDF | plain_hex
}

# sha_hmac DIGEST KEY DATA
sha_hmac() {
  bytes_of "$3" | openssl mac -digest "$1" -macopt hexkey:"$2" -in - HMAC | plain_hex
}

# masked KEY NUMBER: a key of 32 bytes, filled to a block of 64 with zeros, every byte xor NUMBER.
masked() {
  local i block
  block=$1$(repeat 32 00)
  for ((i = 0; i < 128; i += 2)); do printf %02x $((0x${block:i:2} ^ $2)); done
}

# has160_hmac KEY DATA
has160_hmac() {
  value_of "$server" "SELECT LOWER(HEX(FROM_BASE64(hash_b64_data(CONCAT(UNHEX('$(masked "$1" 0x5c)'),
    FROM_BASE64(hash_b64_data(UNHEX('$(masked "$1" 0x36)$2'), 'HAS160'))), 'HAS160'))))"
}

# Of every length that a column key can have the ends, and the keys of RFC 2202 and RFC 4231.
keys=(4a "$(hex_of Jefe)" "$(repeat 20 0b)" 0102030405060708090a0b0c0d0e0f10111213141516171819
  000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f "$(repeat 64 aa)")
# The texts of the same, and lengths around the blocks of 64 and 128 bytes.
texts=('' "$(hex_of 'Hi There')" "$(hex_of 'what do ya want for nothing?')" "$(repeat 50 dd)" "$(repeat 63 00)"
  "$(repeat 64 cd)" "$(repeat 65 ff)" "$(repeat 128 61)" "$(repeat 1000 80)"
  "$(hex_of 'Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data')")

make_home "$home"
for i in "${!keys[@]}"; do
  "$add_policy" "$home" "p$i" "${keys[i]}"
done
private_server_create "$server"
private_server_start "$server" "$home" "$plugins"
install_functions "$server"

expect_equal 'the HMAC key of docs/ciphertext.md' 62247b218af04abe86158786368214942af3406aed336a2cd1be0014b7af8d76 \
  "$(hmac_key "${keys[4]}")"
for i in "${!keys[@]}"; do
  key=$(hmac_key "${keys[i]}")
  for text in "${texts[@]}"; do
    codes=$(value_of "$server" "SET @text = UNHEX('$text'); SELECT CONCAT_WS(' ',
      LOWER(HEX(FROM_BASE64(hmac_b64_data(@text, 'p$i')))), LOWER(HEX(FROM_BASE64(hmac_b64_data(@text, 'p$i', 'SHA1')))),
      LOWER(HEX(FROM_BASE64(hmac_b64_data(@text, 'p$i', 'SHA256')))), LOWER(HEX(FROM_BASE64(hmac_b64_data(@text, 'p$i', 'SHA512')))),
      LOWER(HEX(FROM_BASE64(hmac_b64_data(@text, 'p$i', 'HAS160')))))")
    sha256=$(sha_hmac SHA256 "$key" "$text")
    expect_equal "codes of '$text' under column key ${keys[i]}" \
      "$sha256 $(sha_hmac SHA1 "$key" "$text") $sha256 $(sha_hmac SHA512 "$key" "$text") $(has160_hmac "$key" "$text")" "$codes"
  done
done
