#!/usr/bin/env bash
# docs/reliability.md and the tests agree: every test the table names exists,
# and every test of the fault suite has its row.
#   tests/faults/reliability_table_test.sh <source dir>
set -euo pipefail
top=${1:?source dir}
table="$top/docs/reliability.md"
defined=$(grep -rhoE 'TEST(_F)?\([A-Za-z0-9_]+, *[A-Za-z0-9_]+\)' "$top/tests" |
  sed -E 's/TEST(_F)?\(([A-Za-z0-9_]+), *([A-Za-z0-9_]+)\)/\2.\3/' | sort -u)
# shellcheck disable=SC2016 # backquotes of the Markdown table, not commands
named=$(grep -oE '`[A-Z][A-Za-z0-9]*\.[A-Z][A-Za-z0-9_]+`' "$table" | tr -d '`' | sort -u)
status=0
for test in $named; do
  grep -qxF "$test" <<<"$defined" || { echo "the table names $test, which no test defines"; status=1; }
done
while read -r test; do
  grep -qxF "$test" <<<"$named" || { echo "$test has no row in docs/reliability.md"; status=1; }
done < <(grep -E '^Faults\.' <<<"$defined")
exit "$status"
