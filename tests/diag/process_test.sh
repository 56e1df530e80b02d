#!/usr/bin/env bash
# Tracebacks of processes in trouble, and of images that are not where one would expect them. Each
# row below plays one scene of process.c or mapped.c in a process of its own, and has what that is
# to show.
#
#   process_test.sh FOLDER_OF_PROGRAMS MKTRACE FOLDER_OF_SOURCES
set -euo pipefail
programs=$1 mktrace=$2 sources=$3
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
chmod 755 "$folder" # for a process that changes its user
cd "$folder"
rows=0 failures=0

for image in "$programs"/{process,mapped}_*; do
  cp "$image" .
  "$mktrace" "$(basename "$image")"
done

# compare NAME EXPECTED SEEN
compare() {
  rows=$((rows + 1))
  [ "$3" != "$2" ] || return 0
  failures=$((failures + 1))
  echo "$1:" | cut -c -200
  diff -u --label expected --label seen <(echo "$2") <(echo "$3") | tail -n +4 | head -n 20 || true
}

# shows EXPECTED PROGRAM SCENE [WORD...] [allocator=LIBRARY] [kernel=old]: what the program prints,
# in short.
shows() {
  local expected=$1 words=() libraries=libgcc_s.so.1 kernel=''
  for word in "${@:2}"; do
    case $word in
      allocator=*) libraries+=:${word#*=} ;;
      kernel=*) kernel=${word#*=} ;;
      *) words+=("$word") ;;
    esac
  done
  compare "${*:2}" "$expected" "$(
    { LD_PRELOAD=$libraries KERNEL=$kernel timeout 120 "${words[@]}" 2>/dev/null ||
      echo "exit status $?"; } | in_short)"
}

# ==== Processes in trouble ====

# How many rows a traceback has, the program's own routines in them, a repeated one once, and what
# stands behind the rows. All that is no table stays as it is.
in_short() {
  awk '
    function tell() { if (count) print count " rows:" routines; count = 0; routines = last = "" }
    $1 == "Image" && $2 == "PC" { tell(); next }
    length($2) == 16 && $2 ~ /^[0-9A-F]*$/ {
      ++count
      if ($1 ~ /^process_/ && $3 != last) routines = routines " " (last = $3)
      next
    }
    $0 != "" { tell(); print }
    END { tell() }'
}

# ---- Signals ----
for scene in every_step storm; do shows 'all children are back' ./process_pie "$scene"; done

# ---- The heap ----
# Nothing is taken from a heap that a process dies in: what the first 24 records hold is shown.
# dies_in_heap KIND SCENE [WORD...]
dies_in_heap() {
  shows "24 rows: show on_fatal guilty_$2 deeper
Stack trace terminated abnormally." "./process_$1" "${@:2}"
}
for scene in malloc calloc realloc free wild_free; do
  dies_in_heap pie $scene
  dies_in_heap pie $scene threads
  dies_in_heap no-pie $scene
done
# These jump from malloc and free to their inner routines. Their versions are the system's.
for library in libjemalloc libmimalloc; do
  file=$(/sbin/ldconfig -p | awk -v name="$library.so." 'index($1, name) == 1 { print $1; exit }')
  if [ -z "$file" ]; then
    echo "left out: $library is not installed"
    continue
  fi
  dies_in_heap pie wild_free "allocator=$file"
done

# ---- What a terminal gets ----
# The program, a routine and a source file with names that would begin a line and command a terminal.
program=$'pro\ess\n' routine='dee\x9ber' source='pro\x1b\x07ss.c'
cp process_pie "$program"
LC_ALL=C sed -i "s/deeper/$routine/g; s/process\.c/$source/g" "$program"
compare "names that command a terminal" 'Image Routine Source
pro?ss? show pro??ss.c
pro?ss? show_own pro??ss.c
pro?ss? dee?er pro??ss.c
pro?ss? dee?er pro??ss.c
pro?ss? show_dee?er pro??ss.c
pro?ss? main pro??ss.c' "$(LD_PRELOAD=libgcc_s.so.1 "./$program" show |
  LC_ALL=C awk '/^Image/ { print $1, $3, $5 } /^pro/ && $3 != "_start" { print $1, $3, $5 }')"

# ==== Where images are, and which image an address is in ====

# Image, routine and line of what the objects show, then what is no row of the table.
in_short() {
  awk '
    $1 == "Image" { next }
    $2 !~ /^[0-9A-F]+$/ { print; next }
    $3 ~ /^(inner|middle|outer)$/ || $1 ~ /^(object|alias|large)/ { print $1, $3, $4 }'
}

line_of() { grep -n "^ROUTINE $1" "$sources/mapped.c" | cut -d: -f1; }
inner="inner $(line_of inner)" middle="middle $(line_of middle)" outer="outer $(line_of outer)"
chain() { printf "%s\n" "$1 $inner" "$1 $middle" "$1 $outer"; }

# ---- Shared objects ----
mkdir other
cp mapped_object.so other/mapped_pie
ln -s mapped_object.so alias.so
for kernel in new old; do
  # Their file is mapped a second time, which misleads nobody; or their code is in no file.
  for scene in nothing page first_page whole copied_code; do
    shows "$(chain mapped_object.so)" ./mapped_pie $scene ./mapped_object.so kernel=$kernel
  done
  # Their text segment need not begin at 0.
  for object in mapped_object-0x1000.so mapped_object-0x10000.so; do
    shows "$(chain mapped_object-0x1)" ./mapped_pie nothing ./$object kernel=$kernel
    shows "$(chain mapped_object-0x1)" ./mapped_pie copied_code ./$object kernel=$kernel
  done
  # A name that is not in the path of the file.
  shows "$(chain alias.so)" ./mapped_pie nothing ./alias.so kernel=$kernel
  # The executable's file name in another folder.
  shows "$(chain mapped_pie)" ./mapped_pie nothing ./other/mapped_pie kernel=$kernel
done

# ---- More images, addresses and mappings than there is room for ----
objects=()
for i in {1..80}; do
  cp mapped_object.so "object$i.so"
  objects+=("./object$i.so")
done
# chains COUNT
chains() { for ((i = 1; i <= $1; ++i)); do chain "object$i.so"; done; }
for kernel in new old; do
  shows "$(chains 80)" ./mapped_pie nothing "${objects[@]}" kernel=$kernel
  shows "$(chains 4)" ./mapped_pie no_descriptors "${objects[@]:0:4}" kernel=$kernel
  shows "$(chains 16)
maps opened: 1, with other flags: 0" ./mapped_pie count "${objects[@]:0:16}" kernel=$kernel
done

# ---- A large program ----
# 100,000 routines with long names, of one line each. Each thousandth calls the next of these, and
# the last one what `outer` is given.
suffix=_of_a_module_of_a_large_program_whose_names_are_as_long_as_those_of_templates
awk -v suffix=$suffix 'BEGIN {
  for (i = 1; i <= 100000; ++i) {
    name = "routine_" i suffix
    called = i < 100000 ? "routine_" i + 1000 suffix : "*%rdi"
    body = i % 1000 ? "ret" : ".cfi_startproc; sub $8, %rsp; .cfi_def_cfa_offset 16; call " \
      called "; add $8, %rsp; ret; .cfi_endproc"
    print ".type " name ", @function; " name ": " body "; .size " name ", . - " name
  }
  print ".globl outer; .type outer, @function; outer = routine_1000" suffix
  print ".section .note.GNU-stack" }' >large.s
gcc -g -nostdlib -shared -o large.so large.s
"$mktrace" large.so
large=$(for ((i = 100000; i > 0; i -= 1000)); do
  name=routine_$i$suffix
  echo "large.so ${name:0:17} $i"
done)
shows "$large" ./mapped_pie nothing ./large.so

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
