// Equality of complex quads. The two names differ on purpose: __ceqq compares numbers, a_ceqq bits.
#include "quad/w_complex.h"

using namespace zorvac::softfp;

int __ceqq(const void* ar, const void* ai, const void* br, const void* bi) {
  return __eqq(ar, br) != 0 && __eqq(ai, bi) != 0;
}

int a_ceqq(const void* ar, const void* ai, const void* br, const void* bi) {
  return same_bits(ar, br) && same_bits(ai, bi);
}
