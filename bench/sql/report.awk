# SPDX-License-Identifier: Apache-2.0
#
# From measured times to the table of ratios. Reads lines of: server, name, table, seconds, values; one a round.
BEGIN { FS = "\t" }

{
  key = $1 "|" $2 "|" $3
  seconds[key, ++count[key]] = $4
  values[key] = $5
  table[$1 "|" $2] = $3
}

function median(key, i, j, n, sorted, held) {
  n = count[key]
  for (i = 1; i <= n; ++i) {
    held = seconds[key, i]
    for (j = i - 1; j >= 1 && sorted[j] > held; --j) sorted[j + 1] = sorted[j]
    sorted[j + 1] = held
  }
  return n % 2 ? sorted[(n + 1) / 2] : (sorted[n / 2] + sorted[n / 2 + 1]) / 2
}

# Nanoseconds a value, without those of the scan.
function net(server, name, where) {
  where = table[server "|" name]
  return (median(server "|" name "|" where) - median(server "|scan|" where)) * 1e9 / values[server "|" name "|" where]
}

function row(work, ours, peer, theirs, most) {
  printf "| %-38s | %7.0f | %-38s | %7.0f | %5.2f | %5.2f |%s\n", work, ours, peer, theirs, ours / theirs, most, (ours / theirs > most) ? " *" : ""
}

function against(name, peer, most) { row(name, net("few", name), peer, net("few", peer), most) }
function policies(name) { row(name ", 2000 policies", net("many", name), "3 policies", net("few", name), 1.15) }
function rate(name, where) { where = "few|" name "|plain"; return values[where] / median(where) }
function pair(name, least, one, two) {
  one = rate("one connection: " name)
  two = rate("two connections: " name)
  printf "%-38s %9.0f rows/s, two connections %9.0f rows/s: %.2f times\n", name, one, two, two / one
}

END {
  against("encrypt CBC RANDOM", "AES_ENCRYPT", 0.4)
  against("encrypt CBC DETERMINISTIC", "AES_ENCRYPT", 0.6)
  against("encrypt GCM RANDOM", "AES_ENCRYPT", 0.5)
  against("decrypt CBC RANDOM", "AES_DECRYPT", 0.4)
  against("decrypt CBC DETERMINISTIC", "AES_DECRYPT", 0.6)
  against("decrypt GCM RANDOM", "AES_DECRYPT", 0.5)
  against("hash_raw_data", "SHA2", 1)
  against("hash_b64_data", "TO_BASE64 SHA2", 0.5)
  against("hmac_b64_data", "TO_BASE64 SHA2 twice", 0.5)
  policies("encrypt CBC RANDOM")
  policies("encrypt CBC DETERMINISTIC")
  policies("encrypt GCM RANDOM")
  policies("decrypt CBC RANDOM")
  policies("decrypt CBC DETERMINISTIC")
  policies("decrypt GCM RANDOM")
  policies("hmac_b64_data")
  printf "scan %.0f ns; 4000 bytes: encrypt %.0f ns, decrypt %.0f ns\n", median("few|scan|plain") * 1e9 / values["few|scan|plain"], net("few", "encrypt 4000 bytes"), net("few", "decrypt 4000 bytes")
  pair("encrypt CBC RANDOM")
  pair("hmac_b64_data")
  pair("AES_ENCRYPT")
}
