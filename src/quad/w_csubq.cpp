// The difference of two complex quads, under two names.
#include "quad/w_complex.h"

using namespace zorvac::softfp;

void __csubq(void* difference, const void* ar, const void* ai, const void* br, const void* bi) {
  part_by_part(__subq, difference, ar, ai, br, bi);
}

void a_csubq(void* difference, const void* ar, const void* ai, const void* br, const void* bi) {
  __csubq(difference, ar, ai, br, bi);
}
