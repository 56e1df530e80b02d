#!/usr/bin/env bash
# Compares the output of scripts/demo with the block in docs/demo.md. Measured figures and
# addresses, which differ from run to run, are masked in both.
#
#   demo_test.sh SOURCE_DIR BUILD_DIR [--update]     (--update: writes the output to docs/demo.md)
set -euo pipefail
page=$(realpath "$1/docs/demo.md") demo=$(realpath "$1/scripts/demo") build=$(realpath "$2")
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"
mask() {
  sed -E -e '/^#.*\(libc\.so/d; s/(process|thread) [0-9]+/\1 #/g; s/\+0x[0-9a-f]+\)/+#)/' \
    -e 's/(PC: +0x)[0-9a-f]{16}/\1#/; s/\b[0-9A-F]{16}\b/#/' \
    -e 's/ *[0-9]+(\.[0-9]+)? *(GFLOP\/s|[GM]B\/s|ns|us|ms|s|seconds|times)\b/ # \2/g' "$1"
}
# The page up to the mark, the fence after it, the block, the rest.
csplit -s "$page" '/^<!-- scripts.demo prints this/' '/^```/+1' '/^```/'
"$demo" --build "$build" >now
[ "${3:-}" != --update ] || { cat xx00 xx01 now xx03 >"$page" && exit; }
diff -u <(mask xx02) <(mask now) ||
  { echo "$page shows another output; $0 $1 $2 --update renews it"; exit 1; }
