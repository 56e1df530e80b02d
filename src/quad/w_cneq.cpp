// Inequality of complex quads. The two names differ on purpose: __cneq compares numbers, a_cneq
// bits.
#include "quad/w_complex.h"

using namespace zorvac::softfp;

int __cneq(const void* ar, const void* ai, const void* br, const void* bi) {
  return __neq(ar, br) != 0 || __neq(ai, bi) != 0;
}

int a_cneq(const void* ar, const void* ai, const void* br, const void* bi) {
  return !same_bits(ar, br) || !same_bits(ai, bi);
}
