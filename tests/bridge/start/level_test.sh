#!/usr/bin/env bash
# Programs that gcc, g++, gfortran and clang build for a level, on emulated processors of several
# makers: which of them start, and what the others print.
#
#   level_test.sh EMULATE FOLDER_OF_SPECS STATIC_LIBRARY
# shellcheck source=tests/diag/scenes.sh
. "$(dirname "$0")/../../diag/scenes.sh"
emulate=$1 folder_of_specs=$2 archive=$3
mkdir temporary
export TMPDIR=$PWD/temporary # for compilers, which must leave nothing there
fail() { echo "FAILED: $*" && failures=$((failures + 1)); }

# A program prints which of its parts run.
cat >traces.c <<'C'
#include <unistd.h>
#define SHOW(text) (void)!write(1, text "\n", sizeof text)
__attribute__((constructor(101))) static void first(void) { SHOW("constructor"); }
__attribute__((destructor)) static void last(void) { SHOW("destructor"); }
C
{ sed '/^__attr/d' traces.c && echo 'int main(void) { return SHOW("main"), 0; }'; } >main.c
printf "print '(a)', 'main'\nflush(6)\nend\n" >main.F90
cp traces.c traces.cpp && cp main.c main.cpp
echo '.section .note.GNU-stack,""' >assembler.S

# The compilers as a user of the check calls them. `plain` calls them without the check.
for compiler in gcc g++ gfortran; do
  eval "$compiler() { command $compiler -B'$folder_of_specs/' -specs=zorvac.specs \"\$@\"; }"
done
plain() { command "$@"; }
# The library itself; the check has its own copies of some of its parts.
library="-Wl,--whole-archive $archive -Wl,--no-whole-archive"
header=$folder_of_specs/zorvac/level.h object=$folder_of_specs/zorvac/level.o
traces="-Wl,--no-as-needed,-rpath,$PWD ./libtraces.so"

# on PROCESSOR MISSING: output, errors and status of ./program must be those of a program that
# starts (MISSING is -), or of one that lacks these features. qemu's models have their maker's name;
# scripts/emulate runs the program for another vendor.
on() {
  local launcher=(qemu-x86_64 -cpu "$1") expected=$'constructor\nmain\ndestructor\nstatus 0'
  case $1 in *vendor=*) launcher=("$emulate" "$1") ;; esac
  [ "$2" = - ] || expected="
Please verify that both the operating system and the processor support Zorva(R) $2 instructions.

status 1"
  "${launcher[@]}" ./program >out 2>err && echo status 0 >>err || echo "status $?" >>err
  grep -v "warning: TCG doesn't support" err >>out
  compare "$built, on $1" "$expected" "$(<out)"
}

all='SSE3, SSSE3, SSE4_1, SSE4_2, MOVBE, POPCNT, PCLMULQDQ, AES, F16C, AVX, RDRND, FMA, BMI, LZCNT'
all+=', RTM, AVX2, AVX512DQ, AVX512F, ADX, RDSEED, AVX512IFMA52, AVX512ER, AVX512PF, AVX512CD, SHA'
all+=', AVX512BW, AVX512VL and AVX512VBMI'
all_options='-march=haswell -maes -mrtm -mhle -mavx512dq -madx -mrdseed -mavx512ifma -mavx512cd'
all_options+=' -msha -mavx512bw -mavx512vl -mavx512vbmi'
all_options+=' -D__AVX512ER__ -D__AVX512PF__' # today's compilers have no option for these

# build COMMAND: builds ./program
build() {
  built=$1
  rm -f ./*.o program
  eval "$1" || fail "$1"
}

# ---- The features that a program needs ----
build 'gcc -march=x86-64-v2 -mbmi *.c -o program'
on Opteron_G3 'SSSE3, SSE4_1 and SSE4_2'

build 'gcc -march=x86-64-v3 *.c -o program'
on Opteron_G5 'MOVBE, BMI and AVX2'
on Haswell,-bmi2 BMI
on Haswell,-xsave 'F16C, AVX, FMA and AVX2'
on Haswell,vendor=OtherVendor! -

build 'gcc -march=x86-64-v4 *.c -o program'
on EPYC 'AVX512DQ, AVX512F, AVX512CD, AVX512BW and AVX512VL'

build 'gcc -march=haswell *.c -o program'
on Nehalem 'MOVBE, PCLMULQDQ, F16C, AVX, RDRND, FMA, BMI, LZCNT and AVX2'

build 'gcc -march=znver3 -mno-sha -mno-rdseed *.c -o program'
on Haswell ADX
on EPYC -

build "gcc $all_options *.c -o program"
on core2duo,-ssse3,-sse3 "$all"

build 'gcc -march=x86-64-v2 -c main.c
  gcc -march=x86-64-v3 -c traces.c
  gcc *.o assembler.S -o program'
on core2duo 'SSE4_1, SSE4_2 and POPCNT'
on Nehalem -

# Kinds of programs. Each row builds ./program for x86-64-v3.
while IFS= read -r row; do
  build "$row"
  on Nehalem 'MOVBE, F16C, AVX, FMA, BMI, LZCNT and AVX2'
  on Haswell -
done <<ROWS
gcc -march=x86-64-v3 -no-pie *.c -o program
gcc -march=x86-64-v3 -static *.c $library -o program
gcc -march=x86-64-v3 -static-pie *.c -o program
gcc -march=x86-64-v3 -O2 -flto *.c -o program
gcc -march=x86-64-v3 -Wl,--gc-sections,-z,start-stop-gc *.c -o program
gcc -specs=zorvac.specs -march=x86-64-v3 -pipe -ansi -pedantic -Wall -Wextra -Werror *.c -o program
plain gcc -c *.c; gcc -march=x86-64-v3 *.o -o program
g++ -march=x86-64-v3 -std=c++20 -save-temps -c *.cpp; g++ -static *.o -o program
gfortran -march=x86-64-v3 main.F90 traces.c -o program
gcc -march=x86-64-v3 -shared -fPIC traces.c -o libtraces.so; plain gcc main.c $traces -o program
clang -include $header -march=x86-64-v3 *.c $object -o program
ROWS

# A plug-in that the processor cannot run ends the program. The program's exit handlers run, and its
# output is not lost.
cat >host.c <<'C'
#include <dlfcn.h>
#include <stdio.h>
__attribute__((destructor)) static void leave(void) { puts("handler"); }
int main(void) {
  puts("host");
  dlopen("./libplugin.so", RTLD_NOW);
  return 0;
}
C
echo 'int plugin;' | gcc -march=x86-64-v3 -shared -fPIC -xc - -o libplugin.so
plain gcc host.c -o host -ldl
compare plug-in $'host\nhandler\nstatus 1' \
  "$(qemu-x86_64 -cpu Nehalem ./host 2>/dev/null || echo "status $?")"

# The message is in the catalogue that the environment chooses, although the C library is not set up
# yet.
printf '%s\n' "\$set 1" '56 Es fehlt: %s' '57  und ' | gencat vrt_msg.cat
gcc -mavx2 main.c -o program
compare catalogue $'\nEs fehlt: AVX und AVX2' \
  "$(LANG=de_DE NLSPATH=$PWD/%N qemu-x86_64 -cpu Nehalem ./program 2>&1 | grep -v TCG)"

# The bytes that the check adds to a program.
plain gcc main.c -s -o unchecked && gcc -march=haswell main.c -s -o checked
growth=$(($(stat -c %s checked) - $(stat -c %s unchecked)))
[ $growth -le 16384 ] || fail "a program grows by $growth bytes"

# Compilers that cannot build the check print an error. Commands that do not link work as usual.
says() { # WORDS COMMAND...
  "${@:2}" >log 2>&1 || true
  grep -F -- "$1" log >/dev/null || fail "${*:2} does not say: $1"$'\n'"$(<log)"
}
says 'zorvac/level.h are for 64-bit x86 programs only' gcc -m32 -c main.c
says 'zorvac/level.h: No such file' plain gcc -specs="$folder_of_specs/zorvac.specs" -c main.c
says "argument unused during compilation: '-specs=zorvac.specs'" clang -specs=zorvac.specs -c main.c
echo '#define IN_PCH 1' >all.h && gcc all.h
says '! ./all.h.gch' gcc -H -include all.h -fsyntax-only main.c
echo 'export module m;' >m.cpp
g++ -std=c++20 -fmodules-ts -c m.cpp || fail "a C++ module"
compare 'left behind' '' "$(ls temporary)"

verdict
