#!/usr/bin/env bash
# Every public header compiles alone, without a warning, in every standard that docs/abi.md names;
# and the feature masks are constants wherever a program may want one.
#
#   headers_test.sh SOURCE_DIR C_COMPILER CXX_COMPILER
set -euo pipefail
include=$1/include cc=$2 cxx=$3
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
status=0

# compiles COMPILER LANGUAGE STANDARD FILE [OPTION]...
compiles() {
  local compiler=$1 language=$2 standard=$3 file=$4
  shift 4
  "$compiler" -x "$language" -std="$standard" -pedantic -Wall -Wextra -Werror -I"$include" \
    -fsyntax-only "$@" "$file" && return
  echo "headers_test.sh: $language $standard: $file $*"
  status=1
}

# Each row of the table has a mask of its bit, of type uint64_t, that a type, a label and the
# preprocessor take for the constant it is.
cat >"$folder/masks.c" <<'END'
#include <zorvac/cpu.h>
#if ZORVAC_FEATURE_AVX2 != 0x800000 || ZORVAC_FEATURE_AVX512VBMI != 0x8000000000
#error "the preprocessor sees other masks"
#endif
#define TYPE(bit, id, name)                                                             \
  typedef char id##_is_its_bit[ZORVAC_FEATURE_##id == UINT64_C(1) << (bit) ? 1 : -1];   \
  typedef char id##_has_64_bits[sizeof ZORVAC_FEATURE_##id == sizeof(uint64_t) ? 1 : -1];
ZORVAC_FEATURES(TYPE)
#define LABEL(bit, id, name) \
  case ZORVAC_FEATURE_##id:  \
    return bit;
int bit_of(uint64_t mask);
int bit_of(uint64_t mask) {
  switch (mask) { ZORVAC_FEATURES(LABEL) }
  return -1;
}
END
cat >"$folder/masks.S" <<'END'
#include <zorvac/cpu.h>
#define ROW(bit, id, name) .if ZORVAC_FEATURE_##id != 1 << bit; .error name; .endif;
ZORVAC_FEATURES(ROW)
END

for standard in c99 c11 c17 c2x; do
  "$cc" -std=$standard -x c -fsyntax-only /dev/null 2>/dev/null || continue # c2x: not everywhere
  for header in "$include"/zorvac/*.h; do
    compiles "$cc" c $standard /dev/null -include "$header"
  done
  compiles "$cc" c $standard "$folder/masks.c"
done
for standard in c++11 c++14 c++17 c++20; do
  for header in "$include"/zorvac/*.h; do
    compiles "$cxx" c++ $standard /dev/null -include "$header"
  done
  compiles "$cxx" c++ $standard "$folder/masks.c"
done
for standard in c++17 c++20; do # the value type
  compiles "$cxx" c++ $standard /dev/null -include "$include/zorvac/quad.hpp"
done
"$cc" -I"$include" -c -o "$folder/masks.o" "$folder/masks.S" || status=1
exit $status
