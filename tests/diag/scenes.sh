#!/usr/bin/env bash
# For scripts that play scenes: they work in a folder of their own, which is removed at their end,
# and count the scenes that are not as expected.
set -euo pipefail
export LC_ALL=C
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"
failures=0

# compare NAME EXPECTED SEEN
compare() {
  [ "$3" != "$2" ] || return 0
  failures=$((failures + 1))
  echo "$1:" | cut -c -200
  diff -u --label expected --label seen <(echo "$2") <(echo "$3") | tail -n +4 | head -n 20 || true
}

verdict() {
  echo "$failures scenes are not as expected"
  [ "$failures" -eq 0 ]
}
