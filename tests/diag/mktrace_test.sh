#!/usr/bin/env bash
# Tests zorvac-mktrace from outside: compares what the library reads in a section with what
# addr2line says about the program, and checks what the tool leaves unchanged and what it refuses.
#
#   mktrace_test.sh MKTRACE TRACE_READER LLVM_ADDR2LINE SOURCE_DIR
# shellcheck source=tests/diag/scenes.sh
. "$(dirname "$0")/scenes.sh"
mktrace=$1 reader=$2 addr2line=$3 source=$4
export ASAN_OPTIONS=abort_on_error=1
fail() { echo "$*" && exit 1; }

# Makes names comparable. All clones of a routine get one name. A constraint (Q and an operator) is
# removed: only newer compilers make it part of the name. A file without a line does not count.
plain() {
  sed -E -e '/:[0-9?]+( |$)/!s/\..*//; s/([CD]I?)[0-2]/\1/g' \
    -e 's/Q(aa|oo|eq|ne)[a-z].*//; s/ \(.*//; s/.*:[?0]$/?:0/'
}

# Compares every STEPth address of every code symbol of the image, and the rows of its dump.
compare() { # STEP
  cp image before
  "$mktrace" image
  # Before the section names, only the header's fields about sections may change.
  cmp -n 40 before image
  cmp -i 64 -n $(($(grep -abo .symtab before | tail -n 1 | cut -d: -f1) - 65)) before image
  objcopy --dump-section .trace=section image /dev/null
  nm -S --defined-only image | grep -v " table$" | while read -r start size type name; do
    [ "$type" != label ] || name=label type=T size=4
    [[ $type == [tTwW] ]] || continue
    for ((at = 0; at < 16#$size; at += $1)); do printf '%x %s\n' $((16#$start + at)) "$name"; done
  done >places
  cut -d' ' -f1 places >addresses
  paste -d'\n' <(cut -d' ' -f2 places) <("$addr2line" -e image <addresses) | plain >expected
  diff expected <("$reader" section <addresses | plain) | head
  "$mktrace" --dump image | sed -nE 's/^ {9}(0x[0-9a-f]+) /\1 /p' >rows
  [ "$(wc -l <rows)" -gt 20 ] || fail "rows: $(<rows)"
  diff <(cut -d' ' -f2- rows | plain) <(cut -d' ' -f1 rows | "$reader" section | sed 1~2d | plain)
}

# The images are the tool itself, and then a part of the library, with assembler code that has no
# debug information, data among code, and a label that has no type.
cp "$mktrace" image
compare 97
{ echo '.type table, @object; table: .quad 1; .size table, 8
  label: lea 2(%rdi), %eax; ret; .globl label' && cat "$source/src/diag/rt_check.S"; } |
  gcc -c -x assembler-with-cpp - -o code.o
build() { # FIRST_ADDRESS COMPILER...
  (cd "$source" && "${@:2}" -std=c++20 -I{src,include} -nostartfiles -o "$folder/image" \
    src/diag/{trace_scan,byte_source}.cpp "$folder/code.o" -Wl,-z,noexecstack,-e,label \
    -Wl,-Ttext-segment="$1" \
    -Wl,-u,_ZN6zorvac4diag11byte_source4readEmPvm,--unresolved-symbols=ignore-all)
}
rows() { "$mktrace" --dump image | sed -nE 's/^ {9}0x[0-9a-f]+ //p'; }
# Code that the linker discards keeps its lines, at addresses from 0 on. addr2line confuses them
# with lines of other code at the same addresses. So the image is linked to a high address while
# addr2line is asked; then it is linked to 0 and must give the same rows.
while read -ra compiler; do
  build 0x100000 "${compiler[@]}"
  compare 1
  rows >apart
  build 0 "${compiler[@]}"
  "$mktrace" image
  diff apart <(rows)
done <<<'gcc -O0 -gdwarf-4 -no-pie
clang -O0 -gdwarf-5 -ffunction-sections -Wl,--gc-sections
clang -O2 -gdwarf-5 -gz -pie
gcc -O2 -gdwarf-5 -fPIC -shared'

# Damages an image, and expects a status and a text: refuse STATUS TEXT DAMAGE ARGUMENT...
refuse() {
  local status=0
  cp -f before image
  eval "$3"
  cp -f image damaged
  "$mktrace" "${@:4}" >/dev/null 2>said || status=$?
  [ "$status $(grep -o "$2" said)" = "$1 $2" ] || fail "$2: status $status, $(<said)"
  cmp image damaged
}
# byte OFFSET VALUE: changes a byte of the image
byte() { printf '%b' "$2" | dd of=image conv=notrunc bs=1 seek="$1" status=none; }
# debug_info OFFSET VALUE: changes a byte of that section
debug_info() {
  byte $((16#$(objdump -h image | awk '$2 == ".debug_info" { print $6 }') + $1)) "$2"
}
refuse 1 'not an ELF file' 'byte 1 e' image
refuse 1 'not a 64-bit ELF file' 'byte 4 \\1' image
refuse 1 'not a file for x86-64' 'byte 18 \\267' image
refuse 1 'neither an executable nor a shared object' 'byte 16 \\1' image
refuse 1 'truncated' 'truncate -s -100 image' image
refuse 1 'truncated' 'truncate -s 4 image' image
refuse 1 'data after its last section' 'echo data >>image' image
refuse 1 'read-only' 'chmod a-w image' image
refuse 1 'no debug information' 'strip image' image
refuse 1 'cannot decompress .debug_info: unknown compression' \
  'objcopy --compress-debug-sections image && debug_info 0 w' image
refuse 1 'cannot read the debug information: invalid DWARF version' 'debug_info 4 w' image
refuse 1 'cannot create a file next to' : -o /proc/self/image image
refuse 1 'not a regular file' : -o . image
refuse 1 'not a regular file' : .
refuse 1 'cannot read: No such file' : missing
refuse 1 'no .trace section' : --dump image
# A record that is longer than the section, a span that is too short, and a line table with a number
# that is too long.
refuse 1 'damaged' 'printf "\77\1\11\0\0\0" >x; objcopy --add-section .trace=x image' --dump image
refuse 1 'damaged' 'printf "\15\1\1\0\0\0\0" >x; objcopy --add-section .trace=x image' --dump image
refuse 1 'damaged' "printf '\14\1\15\0\0\0\0$(printf '\\200%.0s' {1..12})' >x
  objcopy --add-section .trace=x image" --dump image
refuse 2 'Usage' : --dump -o x image
refuse 2 'Usage' : --dump --demangle image
refuse 2 'Usage' : --demangle=long image
"$mktrace" --help | grep ^Usage >/dev/null

# How a dump shows the records that name no routine: a path, a span, lines, and a record that is
# reserved.
printf '\13\1\4\0\0\0a\33b\134' >x
printf '\15\1\24\0\0\0\0\20\0\0\0\0\0\0\20\0\0\0\0\0\0\0\6\0\0\0\14\1\1\0\0\0\0\143\5\0\0\0\0' >>x
objcopy --add-section .trace=x before out 2>/dev/null
diff - <("$mktrace" --dump out) <<'DUMP'
00000000 file a\x1bb\x5c
0000000a span 0x1000+0x10, 6 bytes
00000024 lines, 1 bytes
0000002b unknown tag 99 version 5, 0 bytes
DUMP

# The output may be another file, reached through a link; it gets the same mode. A second run makes
# the same file. Zeros behind the last section are no data.
chmod 750 image
ln -s target link
"$mktrace" -o link image
cmp image before
[ "$(stat -c '%F %a' link target | xargs)" = 'symbolic link 777 regular file 750' ] || fail mode
"$mktrace" -o image target
cmp image target
truncate -s +8 target
"$mktrace" target

# Readable names are those that c++filt gives, or a part of them.
names() { "$mktrace" "$@" -o out image && "$mktrace" --dump out | sed -n 's/.* routine [^ ]* //p'; }
names >linker
diff <(names --demangle) <(c++filt <linker)
diff <(names --demangle=full) <(c++filt <linker)
names --demangle=short | grep -x open_memory >/dev/null
if grep -x table linker; then fail 'data is named as a routine'; fi

# Split debug information: with both files, with one of them, with none. One line names what is
# missing, and names and lines are there.
echo 'int twice(int a) { return 2 * a; }' >twice.c
echo 'extern int twice(int); int main(void) { return twice(21); }' >main.c
gcc -c -g -gsplit-dwarf twice.c main.c
gcc -o image twice.o main.o
while read -r gone said; do
  rm -f "$gone"
  "$mktrace" -o out image 2>note
  [ "$(<note)" = "${said:+zorvac-mktrace: image: cannot read $PWD/$said}" ] ||
    fail "without $gone: $(<note)"
  "$mktrace" --dump out | grep -A 2 ' twice$' | grep '/twice.c:1' >/dev/null || fail "without $gone"
done <<<'nothing
twice.dwo twice.dwo: its routines are taken from the symbol table
main.dwo twice.dwo and 1 more: their routines are taken from the symbol table'

# Debug information of nested routines, and one routine after them all. The code of each begins
# before the code of the routine around it and ends after it, so it has two parts.
depth=100000
gcc -x assembler -o image - <<ASSEMBLER
  .globl main
  main: ret
  code: .fill 2 * $depth, 1, 0x90
  end: .section .debug_abbrev, "", @progbits
  .byte 1, 0x11, 1, 0x11, 1, 0x12, 7, 0, 0        # unit, with children: low_pc, high_pc
  .byte 2, 0x2e, 1, 3, 8, 0x11, 1, 0x12, 7, 0, 0  # routine, with children: name and those two
  .byte 0
  .section .debug_info, "", @progbits
  .long unit_end - unit
  unit: .value 4; .long .debug_abbrev; .byte 8, 1; .quad main, end - main
  .set inner, 0
  .rept $depth
    .set inner, inner + 1
    .byte 2; .asciz "inner"; .quad code + $depth - inner, 2 * inner
  .endr
  .fill $depth, 1, 0
  .byte 2; .asciz "behind"; .quad main, 1; .byte 0, 0
  unit_end: .section .note.GNU-stack, "", @progbits
ASSEMBLER
timeout 20 "$mktrace" image || fail "$depth routines in routines: status $?"
seen=$("$mktrace" --dump image | sed -nE 's/.* (inner|behind)$/\1/p' | sort | uniq -c | xargs)
[ "$seen" = "1 behind $((2 * depth - 1)) inner" ] || fail "$depth routines in routines: $seen"

# Damage in the ELF header, the section and the section headers, and truncated files: the tool does
# its work or refuses, and is never ended by a signal.
RANDOM=1
cp image whole
size=$(stat -c %s whole)
for round in {1..40}; do
  head -c $((round % 4 ? size : RANDOM % size)) whole >image
  byte $((round % 2 ? RANDOM % 64 : size - 1 - RANDOM % 4000)) "\\x$((RANDOM % 90 + 10))"
  for option in '-oout' --dump; do
    "$mktrace" "$option" image >/dev/null 2>said || grep -q ^zorvac-mktrace: said
  done
done
