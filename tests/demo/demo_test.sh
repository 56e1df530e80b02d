#!/usr/bin/env bash
# Compares the output of scripts/demo with the README's block of it. What differs from machine to
# machine and from run to run is masked in both: measured figures and addresses.
#
#   demo_test.sh SOURCE_DIR BUILD_DIR [--update]     (--update: puts the output into the README)
set -euo pipefail
source_dir=$1 build_dir=$2 readme=$1/README.md
begin='<!-- scripts/demo prints this; demo_test compares -->'
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

mask() {
  sed -E -e 's/(PC: +0x)[0-9a-f]{16}/\1#/; s/\b[0-9A-F]{16}\b/#/' \
    -e 's/ *[0-9]+(\.[0-9]+)? *(GFLOP\/s|[GM]B\/s|ns|us|ms|s|seconds|times)\b/ # \2/g' "$1"
}

"$source_dir/scripts/demo" --build "$build_dir" >"$folder/now"
if [ "${3:-}" = --update ]; then
  awk -v mark="$begin" -v output="$folder/now" '
    !(found && fences == 1) || /^```/ { print }
    $0 == mark { found = 1 }
    found && /^```/ && ++fences == 1 { while ((getline line < output) > 0) print line }' \
    "$readme" >"$folder/readme"
  cp "$folder/readme" "$readme"
fi
# The fenced block behind the mark.
awk -v mark="$begin" '
  $0 == mark { found = 1 }
  found && /^```/ { ++fences; next }
  fences == 1' "$readme" >"$folder/told"
[ -s "$folder/told" ] || { echo "the README has no block of the demo's output"; exit 1; }
diff -u <(mask "$folder/told") <(mask "$folder/now") ||
  { echo "the README tells another story; $0 $source_dir $build_dir --update corrects it"; exit 1; }
