# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
#
# Runs every example of docs/functions.md, from the top of the page to its end on one connection, and compares what the client
# shows with the page. Session ids, file-check strings and times are compared by their form.
# shellcheck source=../common.bash
. "$(dirname "$0")/../common.bash"

page=$root/docs/functions.md
password='password value' # as the page says
start_with_functions

# Every function has a section with an example: a statement that calls it, and below it what it gave.
grep -oP '^CREATE FUNCTION \K\w+' "$root/sql/install.sql" | sort >"$run/registered"
awk '
  /^## /  { name = $2 }
  /^```/  { inside = !inside; called = 0; next }
  inside && index($0, name "(") { called = 1 }
  inside && called && /^(\||ERROR)/ && !(name in shown) { shown[name] = 1; print name }' "$page" | sort >"$run/shown"
expect_equal 'functions registered' 32 "$(wc -l <"$run/registered")"
diff -u "$run/registered" "$run/shown" || fail 'functions without an example'

# What the examples hold: statements, and below each its output, which begins with + or | or ERROR. In both files the line of
# the page stands in front of what it holds.
awk -v sql="$run/statements.sql" -v expected="$run/examples" '
  /^```/                 { inside = !inside; next }
  !inside                { next }
  /^(\+|\||ERROR )/      { print >expected; next }
  !within                { print "\\! echo line " FNR ":" >sql; print "line " FNR ":" >expected }
                         { print >sql; within = !/;$/ }' "$page"
by_form() {
  sed -E -e 's/^(ERROR [0-9]+ \(.....\)) at line [0-9]+:/\1:/' -e '/^$/d' \
    -e 's/[0-9a-f]{64}/SESSION/g' -e 's/\b[0-9a-f]{30}\b/CHECK/g' -e 's/\b1[0-9]{9}\b/TIME/g' \
    -e 's/[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:.]+([+-][0-9]{2}:?[0-9]{2}|Z)/TIME/g'
}
by_form <"$run/examples" >"$run/expected"
private_server_client "$server" --table --force --unbuffered <"$run/statements.sql" >"$run/output" 2>&1 || true
# The client repeats a statement that fails between lines of dashes.
sed '/^-\{14\}$/,/^-\{14\}$/d' "$run/output" | by_form >"$run/actual"
diff -u --label docs/functions.md --label 'a real server' "$run/expected" "$run/actual" || fail 'examples differ from what the server gives'
