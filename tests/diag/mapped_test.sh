#!/usr/bin/env bash
# Where images are in memory, and which image an address is in. Each row below plays one scene of
# mapped.c in a process of its own, through copies of its shared object, and says what is to be
# shown of the routines `inner`, `middle` and `outer` in them.
#
#   mapped_test.sh FOLDER_OF_PROGRAMS MKTRACE SOURCE
set -euo pipefail
programs=$1 mktrace=$2 source=$3
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
chmod 755 "$folder" # for a process that changes its user
cd "$folder"
rows=0 failures=0

for image in "$programs"/mapped_*; do
  cp "$image" .
  "$mktrace" "$(basename "$image")"
done
mkdir other
cp mapped_object.so other/mapped_pie
ln -s mapped_object.so alias.so
objects=()
for i in {1..80}; do
  cp mapped_object.so "object$i.so"
  objects+=("./object$i.so")
done

line_of() { grep -n "^ROUTINE $1" "$source" | cut -d: -f1; }
inner="inner $(line_of inner)" middle="middle $(line_of middle)" outer="outer $(line_of outer)"

# image, routine and line of what the objects show, then what is no row of the table
in_short() {
  awk '
    $1 == "Image" { next }
    $2 !~ /^[0-9A-F]+$/ { print; next }
    $3 ~ /^(inner|middle|outer)$/ || $1 ~ /^(object|alias)/ { print $1, $3, $4 }'
}

# shows EXPECTED PROGRAM SCENE OBJECT...
shows() {
  local expected=$1 seen
  rows=$((rows + 1))
  seen=$({ LD_PRELOAD=libgcc_s.so.1 timeout 20 "${@:2}" 2>&1 || echo "exit status $?"; } | in_short)
  [ "$seen" != "$expected" ] || return 0
  failures=$((failures + 1))
  echo "${*:2}:" | cut -c -200
  diff -u --label expected --label seen <(echo "$expected") <(echo "$seen") | sed 1,3d | head ||
    true
}
chain() { printf "%s\n" "$1 $inner" "$1 $middle" "$1 $outer"; }

# ---- Shared objects ----
# Their file is mapped a second time, which misleads nobody; or their code is in no file.
for scene in nothing page first_page whole copied_code; do
  shows "$(chain mapped_object.so)" ./mapped_pie $scene ./mapped_object.so
done
# Their text segment need not begin at 0.
for begin in 0x1000 0x10000; do
  shows "$(chain mapped_object-0x1)" ./mapped_pie nothing ./mapped_object-$begin.so
  shows "$(chain mapped_object-0x1)" ./mapped_pie copied_code ./mapped_object-$begin.so
done
# A name that is not in the path of the file.
shows "$(chain alias.so)" ./mapped_pie nothing ./alias.so
# The executable's file name in another folder.
shows "$(chain mapped_pie)" ./mapped_pie nothing ./other/mapped_pie

# ---- More images, addresses and mappings than there is room for ----
all=$(for i in {1..80}; do chain "object$i.so"; done)
shows "$all" ./mapped_pie nothing "${objects[@]}"
four=$(for i in {1..4}; do chain "object$i.so"; done)
shows "$four" ./mapped_pie no_descriptors "${objects[@]:0:4}"
sixteen=$(for i in {1..16}; do chain "object$i.so"; done)
shows "$sixteen
maps opened: 1, with other flags: 0" ./mapped_pie count "${objects[@]:0:16}"

# ---- Executables ----
for kind in pie no-pie static static-pie; do
  image="mapped_$kind"
  shows "$(chain $image)" "./$image" nothing
  shows "$(chain $image)" "./$image" other_user
  shows "data: the program
vdso: not the program
stack: not the program
heap: not the program
null: not the program
$(chain $image)" "./$image" addresses
done

echo "$rows scenes, $failures not as expected"
[ $failures -eq 0 ]
