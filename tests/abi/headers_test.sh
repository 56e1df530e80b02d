#!/usr/bin/env bash
# Every public header compiles alone, without a warning, in every standard that docs/abi.md names.
# The feature masks are constants for the compiler and for the preprocessor.
#
#   headers_test.sh SOURCE_DIR C_COMPILER CXX_COMPILER
set -euo pipefail
include=$1/include cc=$2 cxx=$3
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
status=0

# compiles STANDARD FILE [OPTION]...
compiles() {
  local compiler=("$cc" -x c) standard=$1 file=$2
  case $standard in c++* | gnu++*) compiler=("$cxx" -x c++) ;; esac
  "${compiler[@]}" -std="$standard" -pedantic -Wall -Wextra -Werror -I"$include" \
    -fsyntax-only "${@:3}" "$file" && return
  echo "headers_test.sh: $standard: $file ${*:3}"
  status=1
}

# Each row of the table has a mask of its bit, of type uint64_t. It is a constant expression in the
# size of an array and for the preprocessor.
cat >"$folder/masks.c" <<'END'
#include <zorvac/cpu.h>
#if ZORVAC_FEATURE_AVX2 != 0x800000 || ZORVAC_FEATURE_AVX512VBMI != 0x8000000000
#error "the preprocessor sees other masks"
#endif
#define TYPE(bit, id, name)                                                             \
  typedef char id##_is_its_bit[ZORVAC_FEATURE_##id == UINT64_C(1) << (bit) ? 1 : -1];   \
  typedef char id##_has_64_bits[sizeof ZORVAC_FEATURE_##id == sizeof(uint64_t) ? 1 : -1];
ZORVAC_FEATURES(TYPE)
END
for standard in c99 c11 c17 c2x c++11 c++14 c++17 c++20; do
  [ $standard != c2x ] || "$cc" -std=c2x -x c -fsyntax-only /dev/null 2>/dev/null || continue
  for header in "$include"/zorvac/*.h; do
    compiles $standard /dev/null -include "$header"
  done
  compiles $standard "$folder/masks.c"
done
for standard in c++17 gnu++17 c++20 gnu++20; do # the value type
  for header in "$include"/zorvac/*.hpp; do
    compiles $standard /dev/null -include "$header"
    compiles $standard /dev/null -include "$header" -fno-exceptions -fno-rtti
  done
done
exit $status
