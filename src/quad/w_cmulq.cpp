// The product of two complex quads, under two names: four products. NaNs are not corrected to
// infinities.
#include "quad/w_complex.h"

using namespace zorvac::softfp;

void __cmulq(void* product, const void* ar, const void* ai, const void* br, const void* bi) {
  stored_quad real_real, real_imaginary, imaginary_imaginary, imaginary_real;
  __mulq(&real_real, ar, br);
  __mulq(&real_imaginary, ar, bi);
  __mulq(&imaginary_imaginary, ai, bi);
  __mulq(&imaginary_real, ai, br);
  __subq(real(product), &real_real, &imaginary_imaginary);
  __addq(imaginary(product), &real_imaginary, &imaginary_real);
}

void a_cmulq(void* product, const void* ar, const void* ai, const void* br, const void* bi) {
  __cmulq(product, ar, ai, br, bi);
}
