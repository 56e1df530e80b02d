// The sum of two complex quads, under two names.
#include "quad/w_complex.h"

using namespace zorvac::softfp;

void __caddq(void* sum, const void* ar, const void* ai, const void* br, const void* bi) {
  part_by_part(__addq, sum, ar, ai, br, bi);
}

void a_caddq(void* sum, const void* ar, const void* ai, const void* br, const void* bi) {
  __caddq(sum, ar, ai, br, bi);
}
