#!/usr/bin/env bash
# Links programs with libzorvac_float128 as its document says. The loader's log must show that this
# library does the arithmetic. The library must export exactly its list, and need no other library.
#
# programs_test.sh SOURCES LIBRARIES EXPORTS C-COMPILER C++-COMPILER [FORTRAN-COMPILER]
# shellcheck source=tests/diag/scenes.sh
. "$(dirname "$0")/../../diag/scenes.sh"
sources=$1 libraries=$2 exports=$3 cc=$4 cxx=$5 fc=${6-}
fail() { echo "$*" && exit 1; }

# Runs a program, which must print 1. Leaves the loader's log of symbol bindings in `account`.
run() {
  printed=$(LD_DEBUG=bindings LD_DEBUG_OUTPUT=bindings LD_BIND_NOW=1 "$@") || fail "$*: fails"
  [ "$printed" = 1 ] || fail "$*: expected 1, printed $printed"
  cat bindings.* >account
  rm bindings.*
}
# bound CALLER ROUTINE: fails unless the caller's routine is the shared library's.
bound() {
  grep -q "file [^ ]*$1 .* to [^ ]*libzorvac_float128\.so\.1 .*\`$2'" account ||
    fail "$1: $2 is not from libzorvac_float128.so.1"
}

shared=$libraries/libzorvac_float128.so.1
nm -D --defined-only --format=posix "$shared" | cut -d' ' -f1 | sort >seen
grep -v '^#' "$exports" | sort | diff - seen || fail "exports: expected the first, seen the second"
nm --defined-only "$libraries/libzorvac_float128.a" | sed -n 's/.* [A-Z] //p' | sort |
  diff seen - ||
  fail "the archive's names: expected the first, seen the second"
if readelf --dynamic "$shared" | grep NEEDED; then fail "the library needs other libraries"; fi

for compiler in "$cc" "$cxx"; do
  language=c
  [ "$compiler" = "$cc" ] || language=c++
  "$compiler" -x $language "$sources/sum.c" -x none -L"$libraries" -lzorvac_float128 -o shared
  LD_LIBRARY_PATH=$libraries run ./shared
  for routine in __addtf3 __multf3 __divtf3 __lttf2 __fixtfdi; do bound ./shared $routine; done

  "$compiler" -x $language "$sources/sum.c" -x none "$libraries/libzorvac_float128.a" -o static
  run ./static
  nm static | grep "zorvac6softfp" >/dev/null ||
    fail "$language: the static library is not in the program"
  "$compiler" -static -x $language "$sources/sum.c" -x none -L"$libraries" -lzorvac_float128 \
    -o all_static
  [ "$(./all_static)" = 1 ] || fail "$language: a static program fails"
done

[ -n "$fc" ] || exit 0
"$fc" "$sources/sum.f90" -L"$libraries" -lzorvac_float128 -o fortran_shared
LD_LIBRARY_PATH=$libraries run ./fortran_shared
bound ./fortran_shared __divtf3
bound 'libgfortran\.so\.5' __multf3
"$fc" "$sources/sum.f90" "$libraries/libzorvac_float128.a" -o fortran_static
run ./fortran_static
"$fc" "$sources/sum.f90" -o fortran
LD_PRELOAD=$shared run ./fortran
bound 'libgfortran\.so\.5' __multf3
bound 'libgfortran\.so\.5' __addtf3
