#!/usr/bin/env bash
# What a traceback says of images of every kind, and with every kind of unwinder: the program of
# traced.c prints its own, without a .trace section, then with that of zorvac-mktrace.
#
#   image_test.sh FOLDER_OF_PROGRAMS MKTRACE SOURCE
set -euo pipefail
programs=$1 mktrace=$2 source=$3
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"
fail() { echo "$*" && exit 1; }
routines=(show inner middle outer)
mapfile -t places < <(grep -nE ' tbk_string|\{ (show|inner|middle)\(' "$source" | cut -d: -f1)

# What a text begins with, PC for every program counter: expected LAYOUT IMAGE known|unknown
expected() {
  local block=() table=() file=Unknown routine=Unknown line=Unknown
  for i in {0..3}; do
    [ "$3" = unknown ] || file=traced.c routine=${routines[i]} line=${places[i]}
    block+=("$i" "$2" "$routine" "${file/t/PATH/t}" "$line")
    table+=("$2" "$routine" "$line" "$file")
  done
  if [ "$1" = block ]; then
    printf '\n\nTraceback symbolic or hex stack dump follows:\n\n'
    printf -- '--------- Frame # %s ---------------------------------------\n
Image:         %s\nPC:            PC\nRoutine name:  %s\nSource file:   %s\nLine number:   %s\n\n' \
      "${block[@]}"
  else
    printf '%-19s%-18s%-19s%-12s%-19s\n' Image PC Routine Line Source
    printf '%-17.17s  PC  %-17.17s  %10.10s  %s\n' "${table[@]}"
  fi
}

# shows LAYOUTS IMAGE known|unknown PROGRAM ARGUMENT: under another name than the file's
shows() {
  local layout text
  for layout in $1; do
    text=$(LD_PRELOAD=libgcc_s.so.1 bash -c 'exec -a other "$@"' - "${@:4}" "$layout" |
      sed -E 's/0x[0-9a-f]{16}$|\b[0-9A-F]{16}\b/PC/; s|/.*/traced.c|PATH/traced.c|')
    [[ $text == "$(expected "$layout" "${@:2:2}")"* ]] || fail "$layout of ${*:4}: $text"
  done
}

for kind in pie no-pie object.so; do
  image="an old (1) $kind" program=$PWD/$image deleted=known
  [ $kind != object.so ] || program=$programs/traced_pie deleted=unknown # but for its name
  cp "$programs/traced_$kind" "$image"
  shows 'block table' "$image" unknown "$program" "./$image"
  "$mktrace" "$image"
  shows 'block table' "$image" known "$program" "$PWD/$image"
  strip "$image"
  shows 'block table' "$image" known "$program" "./$image"
  shows delete "$image" $deleted "$program" "$PWD/$image"
done

# A program that dies in its own malloc, which must not be called again, at the first instruction of
# a routine.
cp "$programs/traced_pie" program
"$mktrace" program
LD_PRELOAD=libgcc_s.so.1 ./program '' die | grep -E '^program  .*  crash  ' >/dev/null

# Without an unwinder there is nothing. With _Unwind_ForcedUnwind alone the frames are those from
# the one on whose routine holds the program counter, up to where that is 0; without one, all but 3.
diff <(./program '' block) - <<<'You must link with libunwind to use traceback functionality'
forced() { # PC FOUND
  found=$(LD_PRELOAD=$programs/traced_object.so ./program "$1" from |
    grep -oE '[0-9]{4}  |[a-z]+ing |stop .*' | xargs)
  [ "$found" = "$2" ] || fail "from $1: $found"
}
forced 1000 '1010 2020 3030 4040 stop 2'
forced 3030 '3030 4040 stop 2'
forced 3031 'stop 2'
forced 0 '4040 stop 2'
