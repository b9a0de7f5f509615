# SPDX-License-Identifier: Apache-2.0
#
# From what was measured to tables. Reads lines of: server, name, table, seconds, values; one a round.
BEGIN { FS = "\t" }

{
  key = $1 "|" $2 "|" $3
  seconds[key, ++count[key]] = $4
  values[key] = $5
  if ($2 != "scan") table[$1 "|" $2] = $3
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

function measured(server, name) { return median(server "|" name "|" table[server "|" name]) }

# Nanoseconds a value, without those of the scan.
function net(server, name, where) {
  where = table[server "|" name]
  return (measured(server, name) - median(server "|scan|" where)) * 1e9 / values[server "|" name "|" where]
}

function head(title, ours, theirs) {
  printf "\n| %s | %s | Against | %s | Ratio | %s |\n|---|---:|---|---:|---:|---:|\n", title, ours, theirs, "At most"
}

function row(work, ours, peer, theirs, most) {
  printf "| %s | %.0f | %s | %.0f | %.2f | %.2f%s |\n", work, ours, peer, theirs, ours / theirs, most, \
    (ours / theirs > most) ? ", missed" : ""
}

function against(name, peer, most) { row("`" name "`", net("few", name), "`" peer "`", net("few", peer), most) }
function policies(name) { row("`" name "`", net("many", name), "3 policies", net("few", name), 1.15) }
function save(name) {
  row("save of `" name "`", measured("store", "save/" name) * 1e6, "write and sync", measured("store", "write/" name) * 1e6, 3)
}

function rate(name, where) { where = "few|" name "|" table["few|" name]; return values[where] / median(where) }
function pair(name, most, one, two) {
  one = rate("one connection: " name)
  two = rate("two connections: " name)
  printf "| `%s` | %.0f | %.0f | %.2f%s |\n", name, one, two, two / one, \
    (two / one < most) ? ", missed" : ""
}

function bytes(name, ours, theirs) {
  ours = 4000e9 / net("few", name)
  theirs = measured("openssl", name)
  printf "| %s | %.0f | %.0f | %.2f%s |\n", name, ours / 1e6, theirs / 1e6, ours / theirs, (ours / theirs < 0.8) ? ", missed" : ""
}

END {
  head("Nanoseconds a value of about 20 bytes, net of the scan", "ns", "ns")
  against("encrypt CBC RANDOM", "AES_ENCRYPT", 0.4)
  against("encrypt CBC DETERMINISTIC", "AES_ENCRYPT", 0.6)
  against("encrypt GCM RANDOM", "AES_ENCRYPT", 0.5)
  against("decrypt CBC RANDOM", "AES_DECRYPT", 0.4)
  against("decrypt CBC DETERMINISTIC", "AES_DECRYPT", 0.6)
  against("decrypt GCM RANDOM", "AES_DECRYPT", 0.5)
  against("hash_raw_data", "SHA2", 1)
  against("hash_b64_data", "TO_BASE64 SHA2", 0.5)
  against("hmac_b64_data", "TO_BASE64 SHA2 twice", 0.5)
  printf "\nThe scan itself: %.0f ns a row.\n", median("few|scan|plain") * 1e9 / values["few|scan|plain"]

  head("With 2000 policies, the last of them used", "ns", "ns")
  policies("encrypt CBC RANDOM")
  policies("encrypt CBC DETERMINISTIC")
  policies("encrypt GCM RANDOM")
  policies("decrypt CBC RANDOM")
  policies("decrypt CBC DETERMINISTIC")
  policies("decrypt GCM RANDOM")
  policies("hmac_b64_data")

  printf "\n| Rows a second, scan included | one connection | two | Ratio, at least 1.80 |\n|---|---:|---:|---:|\n"
  pair("encrypt CBC RANDOM", 1.8)
  pair("decrypt CBC RANDOM", 1.8)
  pair("hmac_b64_data", 1.8)
  pair("encrypt CBC RANDOM, two servers")
  pair("AES_ENCRYPT")
  pair("AES_ENCRYPT, two servers")
  pair("scan")
  pair("scan, the same table")

  printf "\n| Values of 4000 bytes, AES256 CBC | MB/s | `openssl speed` | Ratio, at least 0.80 |\n|---|---:|---:|---:|\n"
  bytes("encrypt 4000 bytes")
  bytes("decrypt 4000 bytes")

  head("A table of 2000 records", "us", "us")
  save("policy")
  save("column")
  save("access")
  save("privilege")
  save("querypriv")
  save("tableinfo")
  printf "\nA reload that finds nothing changed: %.1f us.\n", measured("store", "reload") * 1e6
  printf "\nMemory: the library and full tables add %.1f MiB (at most 32), a connection %.0f KiB (at most 256).\n", \
    measured("memory", "library and full tables") / 1024, measured("memory", "a connection")
}
