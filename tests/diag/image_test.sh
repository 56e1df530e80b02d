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

# same WHAT EXPECTED ACTUAL
same() { diff <(echo "$2") <(echo "$3") || { echo "$1" && exit 1; }; }

# The four routines with the places of their calls.
known=() unknown=()
for call in 'show= tbk_string' 'inner={ show(' 'middle={ inner(' 'outer={ middle('; do
  known+=("${call%%=*}" traced.c "$(grep -n "${call#*=}" "$source" | cut -d: -f1)")
  unknown+=(Unknown Unknown Unknown)
done

# What should be shown, PC for every program counter: expected LAYOUT IMAGE (ROUTINE FILE LINE)...
expected() {
  local layout=$1 image=$2 number=0
  shift 2
  case $layout in
    block) printf '\n\nTraceback symbolic or hex stack dump follows:\n\n' ;;
    *) printf '%-19s%-18s%-19s%-12s%-19s\n' Image PC Routine Line Source ;;
  esac
  for (( ; $#; number++)); do
    case $layout in
      block)
        echo "--------- Frame # $number ---------------------------------------"
        printf '\nImage:         %s\nPC:            PC\n' "$image"
        printf 'Routine name:  %s\nSource file:   %s\nLine number:   %s\n\n' "$1" "${2/t/PATH/t}" "$3"
        ;;
      *) printf '%-17.17s  PC  %-17.17s  %10.10s  %s\n' "$image" "$1" "$3" "$2" ;;
    esac
    shift 3
  done
}

# shows LAYOUTS IMAGE (ROUTINE FILE LINE)... -- COMMAND...
shows() {
  local layouts=$1 layout lines text says=("${@:2:13}")
  shift 15
  for layout in $layouts; do
    text=$(LD_PRELOAD=libgcc_s.so.1 "${@/LAYOUT/$layout}" 2>error |
      sed -E 's/0x[0-9a-f]{16}$|\b[0-9A-F]{16}\b/PC/; s|/.*/traced.c|PATH/traced.c|')
    lines=$(expected "$layout" "${says[@]}")
    same "$layout of $*" "$lines" "$(sed -n "1,$(wc -l <<<"$lines")p" <<<"$text")"
    same "$layout of $*" 'No error' "$(<error)"
  done
}

for kind in pie fixed; do
  for image in program 'a program'; do
    cp "$programs/traced_$kind" "$image"
    shows 'block table' "$image" "${unknown[@]}" -- "./$image" LAYOUT
    "$mktrace" "$image"
    shows 'block table' "$image" "${known[@]}" -- bash -c "exec -a other './$image' LAYOUT"
    strip "$image"
    shows 'block table delete' "$image" "${known[@]}" -- "$PWD/$image" LAYOUT
  done
  for image in object.so 'a shared object (1).so'; do
    cp "$programs/traced_object.so" "$image"
    shows 'block table' "$image" "${unknown[@]}" -- "$programs/traced_$kind" LAYOUT "$PWD/$image"
    "$mktrace" "$image"
    shows 'block table' "$image" "${known[@]}" -- "$programs/traced_$kind" LAYOUT "./$image"
    strip "$image"
    shows 'block table' "$image" "${known[@]}" -- "$programs/traced_$kind" LAYOUT "$PWD/$image"
    # Of a deleted one nothing but the name is left.
    shows delete "$image" "${unknown[@]}" -- "$programs/traced_$kind" LAYOUT "$PWD/$image"
  done
done

# A program that dies in its own malloc, which must not be called again, at the first instruction of
# a routine.
cp "$programs/traced_pie" program
"$mktrace" program
LD_PRELOAD=libgcc_s.so.1 ./program die | grep -E '^program  .*  crash  ' >/dev/null

# Without an unwinder there is nothing. With _Unwind_ForcedUnwind alone the frames are those from the
# one on whose routine holds the program counter, up to where that is 0; without one all, 2 hidden.
same 'no unwinder' 'You must link with libunwind to use traceback functionality' \
  "$(./program block 2>&1)"
# forced PC FRAME...
forced() {
  same "from $1" "$(printf '%s\n' 'stop 2' "${@:2}" 'status 0')" \
    "$(LD_PRELOAD=$programs/unwinder.so ./program walk "$1")"
}
forced 3008 '3030>4040 0' '4040>0 0'
forced 3030 '3030>4040 0' '4040>0 0'
forced 3031
forced 9999
forced 1000 '1010>2020 0' '2020>3030 0' '3030>4040 0' '4040>0 0'
forced 0 '1010>2020 1' '2020>3030 1' '3030>4040 0' '4040>0 0'
