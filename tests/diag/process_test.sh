#!/usr/bin/env bash
# Tracebacks of processes in trouble. Each row below plays one scene of process.c in a process of
# its own, and has what that is to show.
#
#   process_test.sh FOLDER_OF_PROGRAMS MKTRACE
set -euo pipefail
programs=$1 mktrace=$2
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"
for kind in pie no-pie; do
  mkdir $kind
  cp "$programs/process_$kind" $kind/process
  "$mktrace" $kind/process
done
rows=0 failures=0

# What a traceback says, in short: how many rows it has, the program's own routines in them, a
# repeated one once, and what stands behind the rows. All that is no table stays as it is.
in_short() {
  awk '
    function tell() { if (count) print count " rows:" routines; count = 0; routines = last = "" }
    $1 == "Image" && $2 == "PC" { tell(); next }
    length($2) == 16 && $2 ~ /^[0-9A-F]*$/ {
      ++count
      if ($1 == "process" && $3 != last) routines = routines " " (last = $3)
      next
    }
    $0 != "" { tell(); print }
    END { tell() }'
}

# compare NAME EXPECTED SEEN
compare() {
  rows=$((rows + 1))
  [ "$3" != "$2" ] || return 0
  failures=$((failures + 1))
  echo "$1:"
  diff -u --label expected --label seen <(echo "$2") <(echo "$3") | tail -n +4 || true
}

# shows EXPECTED SCENE [threads] [no-pie] [allocator=LIBRARY]
shows() {
  local expected=$1 scene=$2 words=() kind=pie libraries=libgcc_s.so.1
  for word in "${@:3}"; do
    case $word in
      allocator=*) libraries+=:${word#*=} ;;
      no-pie) kind=no-pie ;;
      *) words+=("$word") ;;
    esac
  done
  compare "${*:2}" "$expected" "$(
    { LD_PRELOAD=$libraries timeout 20 $kind/process "$scene" "${words[@]}" 2>/dev/null ||
      echo "exit status $?"; } | in_short)"
}

# ---- Signals ----
for scene in every_step storm; do shows 'all children are back' "$scene"; done

# ---- The heap ----
# Nothing is taken from a heap that a process dies in: what the first 24 records hold is shown.
dies_in_heap() {
  shows "24 rows: show on_fatal guilty_$1 deeper
Stack trace terminated abnormally." "$@"
}
for scene in malloc calloc realloc free wild_free; do
  dies_in_heap $scene
  dies_in_heap $scene threads
  dies_in_heap $scene no-pie
done
# These jump from malloc and free to their inner routines.
for library in libjemalloc.so.2 libmimalloc.so.2; do
  dies_in_heap wild_free allocator=$library
done

# ---- What a terminal gets ----
# The program, a routine and a source file with names that would begin a line and command a terminal.
program=$'pro\ess\n' routine='dee\x9ber' source='pro\x1b\x07ss.c'
cp pie/process "$program"
LC_ALL=C sed -i "s/deeper/$routine/g; s/process\.c/$source/g" "$program"
compare "names that command a terminal" 'Image Routine Source
pro?ss? show pro??ss.c
pro?ss? show_own pro??ss.c
pro?ss? dee?er pro??ss.c
pro?ss? dee?er pro??ss.c
pro?ss? show_dee?er pro??ss.c
pro?ss? main pro??ss.c' "$(LD_PRELOAD=libgcc_s.so.1 "./$program" show |
  LC_ALL=C awk '/^Image/ { print $1, $3, $5 } /^pro/ && $3 != "_start" { print $1, $3, $5 }')"

echo "$rows scenes, $failures not as expected"
[ $failures -eq 0 ]
