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

# The four routines with the places of their calls.
known=() unknown=()
for call in 'show= tbk_string' 'inner={ show(' 'middle={ inner(' 'outer={ middle('; do
  known+=("${call%%=*}" traced.c "$(grep -n "${call#*=}" "$source" | cut -d: -f1)")
  unknown+=(Unknown Unknown Unknown)
done

# What a text begins with, PC for every program counter: expected LAYOUT IMAGE ROUTINES
expected() {
  local -n routines=$3
  local i
  case $1 in
    block) printf '\n\nTraceback symbolic or hex stack dump follows:\n\n' ;;
    *) printf '%-19s%-18s%-19s%-12s%-19s\n' Image PC Routine Line Source ;;
  esac
  for i in 0 3 6 9; do
    set -- "$1" "$2" "${routines[@]:i:3}"
    case $1 in
      block)
        printf -- '--------- Frame # %s ---------------------------------------\n\n' $((i / 3))
        printf 'Image:         %s\nPC:            PC\nRoutine name:  %s\n' "$2" "$3"
        printf 'Source file:   %s\nLine number:   %s\n\n' "${4/t/PATH/t}" "$5"
        ;;
      *) printf '%-17.17s  PC  %-17.17s  %10.10s  %s\n' "$2" "$3" "$5" "$4" ;;
    esac
  done
}

# shows LAYOUTS IMAGE ROUTINES COMMAND...
shows() {
  local layout lines text
  for layout in $1; do
    lines=$(expected "$layout" "$2" "$3")
    text=$(LD_PRELOAD=libgcc_s.so.1 "${@:4}" "$layout" |
      sed -E 's/0x[0-9a-f]{16}$|\b[0-9A-F]{16}\b/PC/; s|/.*/traced.c|PATH/traced.c|')
    [[ $text == "$lines"* ]] || fail "$layout of ${*:4}: $text; not $lines"
  done
}

for kind in pie no-pie; do
  for image in program 'a program'; do
    cp "$programs/traced_$kind" "$image"
    shows 'block table' "$image" unknown "./$image" "$image"
    "$mktrace" "$image"
    shows 'block table' "$image" known bash -c "exec -a other './$image' '$image' \$0"
    strip "$image"
    shows 'block table delete' "$image" known "$PWD/$image" "$image"
  done
  for image in object.so 'a shared object (1).so'; do
    cp "$programs/traced_object.so" "$image"
    shows 'block table' "$image" unknown "$programs/traced_$kind" "$PWD/$image"
    "$mktrace" "$image"
    shows 'block table' "$image" known "$programs/traced_$kind" "./$image"
    strip "$image"
    shows 'block table' "$image" known "$programs/traced_$kind" "$PWD/$image"
    # Of a deleted one nothing but the name is left.
    shows delete "$image" unknown "$programs/traced_$kind" "$PWD/$image"
  done
done

# A program that dies in its own malloc, which must not be called again, at the first instruction of
# a routine.
cp "$programs/traced_pie" program
"$mktrace" program
LD_PRELOAD=libgcc_s.so.1 ./program '' die | grep -E '^program  .*  crash  ' >/dev/null

# Without an unwinder there is nothing. With _Unwind_ForcedUnwind alone the frames are those from the
# one on whose routine holds the program counter, up to where that is 0; without one all, 2 hidden.
none=$(./program '' block)
[ "$none" = 'You must link with libunwind to use traceback functionality' ] || fail "$none"
# forced PC FRAME...
forced() {
  diff <(printf '%s\n' 'stop 2' "${@:2}" 'status 0') \
    <(LD_PRELOAD=$programs/unwinder.so ./program "$1" walk) || fail "from $1"
}
forced 3008 '3030>4040 0' '4040>0 0'
forced 3030 '3030>4040 0' '4040>0 0'
forced 3031
forced 9999
forced 1000 '1010>2020 0' '2020>3030 0' '3030>4040 0' '4040>0 0'
forced 0 '1010>2020 1' '2020>3030 1' '3030>4040 0' '4040>0 0'
