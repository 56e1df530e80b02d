// The difference of two complex quads, under two names.
#include "quad/w_complex.h"

using namespace zorvac::complex_quad;

void __csubq(void* difference, const void* ar, const void* ai, const void* br, const void* bi) {
  __subq(real(difference), ar, br);
  __subq(imaginary(difference), ai, bi);
}

void a_csubq(void* difference, const void* ar, const void* ai, const void* br, const void* bi) {
  __csubq(difference, ar, ai, br, bi);
}
