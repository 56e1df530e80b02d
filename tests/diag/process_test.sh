#!/usr/bin/env bash
# Tests what real processes print of their own stack. Each row below plays one scene of process.c in
# its own process, and says what must be printed.
#
#   process_test.sh FOLDER_OF_PROGRAMS MKTRACE SOURCE
# shellcheck source=tests/diag/scenes.sh
. "$(dirname "$0")/scenes.sh"
programs=$1 mktrace=$2 source=$3
chmod 755 . # for a process that changes its user

# play [VARIABLE=VALUE...] PROGRAM SCENE [OBJECT...]: descriptors from 3 on are free
play() {
  timeout 120 env LD_PRELOAD=libgcc_s.so.1 "$@" 2>/dev/null 3>&- 4>&- || echo "exit status $?"
}

# Shortens a traceback: image, routine, line and file of the frames that a test is about, repeated
# lines only once; the address of frames that are in no image; and all text that is not a frame.
in_short() {
  awk '
    NF == 5 && $2 ~ /^[0-9A-F]+$/ {
      image = $1; pc = $2; routine = $3; line = $4; file = $5
      if (image == "Unknown") print image, routine, line, file, pc
      if (image ~ /^(process|object|alias|large|a_rather|pro\?)/ &&
          routine ~ /^(inner|middle|outer|crash|guilty|routine|Unknown|mi\?)/)
        print image, routine, line, file
      next
    }
    !/^$|^Image +PC/' | uniq
}

# shows EXPECTED [VARIABLE=VALUE...] PROGRAM SCENE [OBJECT...]
shows() { compare "${*:2}" "$1" "$(play "${@:2}" | in_short)"; }

# chain IMAGE [FILE]: the expected lines of three calls in an image
line_of() { grep -n "^ROUTINE $1(" "$source" | cut -d: -f1; }
inner="inner $(line_of inner)" middle="middle $(line_of middle)" outer="outer $(line_of outer)"
chain() { for routine in "$inner" "$middle" "$outer"; do echo "$1 $routine ${2:-process.c}"; done; }

# ---- Names and lines ----
# The program is shown by the name of its file, not by the name that it was started with.
cp "$programs/process_pie" a_rather_long_name
cp "$programs/libobject.so" object.so
ln -s a_rather_long_name other_name
ln -s object.so alias.so
unknown='Unknown Unknown Unknown'
"$mktrace" a_rather_long_name
"$mktrace" object.so
strip a_rather_long_name
shows "$(chain a_rather_long_nam)" ./other_name show
cp a_rather_long_name process_gone
shows "$(chain process_gone)" ./process_gone deleted

for program in "$programs"/process_*; do
  cp "$program" .
  "$mktrace" "$(basename "$program")"
done
for kind in pie no-pie static static-pie; do
  image=process_$kind
  for scene in show other_user; do shows "$(chain "${image:0:17}")" ./$image $scene; done
done
# A crash at the first instruction of a routine. The byte before it belongs to another routine. The
# handler's traceback finds the interrupted frame by the signal's context or, without it, behind the
# place that handlers return to.
crashed="process_pie crash Unknown Unknown
$(chain process_pie)"
shows "$crashed" ./process_pie crash
shows "$crashed" NO_CONTEXT=1 ./process_pie crash
# Names with bytes that would begin a line or command a terminal.
program=$'pro\ess\n'
sed "s/middle/mi\x9bdle/g; s/process\.c/pro\x1b\x07ss.c/g" process_pie >"$program"
chmod +x "$program"
shows "$(chain 'pro?ss?' 'pro??ss.c' | sed 's/middle/mi?dle/')" "./$program" show

# ---- Shared objects ----
mkdir other
cp object.so other/process_pie
cp object.so object_deleted.so
shows "object_deleted.so $unknown" ./process_pie deleted ./object_deleted.so
objects=()
for i in {1..80}; do
  cp object.so "object$i.so"
  objects+=("./object$i.so")
done
# chains COUNT: the chains of so many objects
chains() { for ((i = 1; i <= $1; ++i)); do chain "object$i.so"; done; }
for kernel in NEW_KERNEL=1 OLD_KERNEL=1; do
  # The code of the last object is in no file. The map is read once for all others.
  shows "$(chains 16)
maps opened: 3" $kernel ./process_pie copied_code "${objects[@]:0:16}"
  # An object whose name is not in the path of its file; an object named like the executable.
  shows "$(chain alias.so)" $kernel ./process_pie show ./alias.so
  shows "$(chain process_pie)" $kernel ./process_pie show ./other/process_pie
  # More images than there is room for.
  shows "$(chains 80)" $kernel ./process_pie show "${objects[@]}"
  # Two free descriptors are enough.
  shows "$(chains 4)" $kernel prlimit --nofile=5 ./process_pie show "${objects[@]:0:4}"
done

# ---- A large program ----
# 100,000 routines with long names and one line each. Each ten-thousandth calls the next of these,
# and the last one calls the argument of `outer`. These ten are twenty times on the stack.
suffix=_of_a_module_of_a_large_program_whose_names_are_as_long_as_those_of_templates
awk -v suffix=$suffix 'BEGIN {
  for (i = 1; i <= 100000; ++i) {
    name = "routine_" i suffix
    called = i < 100000 ? "routine_" i + 10000 suffix : "*%rdi"
    body = i % 10000 ? "ret" : ".cfi_startproc; sub $8, %rsp; .cfi_def_cfa_offset 16; call " \
      called "; add $8, %rsp; ret; .cfi_endproc"
    print ".type " name ", @function; " name ": " body "; .size " name ", . - " name
  }
  print ".globl outer; .type outer, @function; outer = routine_10000" suffix
  print ".section .note.GNU-stack" }' >large.s
gcc -g -nostdlib -shared -o large.so large.s
"$mktrace" large.so
ten_routines=$(for ((i = 100000; i > 0; i -= 10000)); do
  name=routine_$i$suffix
  echo "large.so ${name:0:17} $i large.s"
done)
recursion=()
for _ in {1..20}; do recursion+=(./large.so); done
shows "$(for _ in {1..20}; do echo "$ten_routines"; done)" ./process_pie show "${recursion[@]}"

# ---- The heap ----
# A process that dies in its heap allocates nothing more, so only the first 24 records are shown.
# dies_in_heap PROGRAM SCENE [VARIABLE=VALUE...]
dies_in_heap() {
  local output guilty=guilty_$2
  output=$(play "${@:3}" "./$1" "$2" "${objects[@]:0:10}")
  compare "${*:3} $1 $2" "24 rows
$1 $guilty $(line_of "$guilty") process.c
Stack trace terminated abnormally." "$(grep -cE ' [0-9A-F]{16} ' <<<"$output") rows
$(in_short <<<"$output" | grep -v ^object)"
}
for scene in malloc calloc realloc free; do
  for program in process_pie process_no-pie; do dies_in_heap $program $scene; done
done
# This allocator jumps from malloc and free to its inner routines.
/sbin/ldconfig -p | grep -F libjemalloc.so.2 >/dev/null || echo 'left out: no jemalloc'
dies_in_heap process_pie free LD_PRELOAD=libgcc_s.so.1:libjemalloc.so.2

# ---- Unwinders ----
# With only _Unwind_ForcedUnwind, the frames begin with the one whose routine holds the program
# counter of the context, and end before a program counter of 0. Without a context all but 3 are
# shown.
shows 'You must link with libunwind to use traceback functionality' LD_PRELOAD= ./process_pie show
frames() { for pc in "$@"; do echo "Unknown $unknown 000000000000$pc"; done; }
shows "stop 2
$(frames 1010 2020 3030 4040)
stop 2
$(frames 3030 4040)
stop 2
$(frames 4040)
stop 2" LD_PRELOAD=./object.so ./process_pie interrupted

verdict
