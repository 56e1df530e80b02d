#!/usr/bin/env bash
# Compares the output of scripts/demo with the README's block of it. What differs from machine to
# machine and from run to run is masked in both: measured figures and addresses.
#
#   demo_test.sh SOURCE_DIR BUILD_DIR [--update]     (--update: puts the output into the README)
set -euo pipefail
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"
mask() {
  sed -E -e 's/(PC: +0x)[0-9a-f]{16}/\1#/; s/\b[0-9A-F]{16}\b/#/' \
    -e 's/ *[0-9]+(\.[0-9]+)? *(GFLOP\/s|[GM]B\/s|ns|us|ms|s|seconds|times)\b/ # \2/g' "$1"
}
# The README up to the mark, the fence behind it, the block, the rest.
csplit -s "$1/README.md" '/^<!-- scripts.demo prints this/' '/^```/+1' '/^```/'
"$1/scripts/demo" --build "$2" >now
[ "${3:-}" != --update ] || { cat xx00 xx01 now xx03 >"$1/README.md" && exit; }
diff -u <(mask xx02) <(mask now) ||
  { echo "the README tells another story; $0 $1 $2 --update corrects it"; exit 1; }
