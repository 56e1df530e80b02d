// The quotient of two complex quads, under two names: by the reciprocal of the divisor's squared
// magnitude. There is no scaling: it would give other bits, and the bits are part of the interface.
#include "quad/w_complex.h"

using namespace zorvac::softfp;

void __cdivq(void* quotient, const void* ar, const void* ai, const void* br, const void* bi) {
  constexpr stored_quad one{0, 0x3fff000000000000};

  stored_quad real_square, imaginary_square, reciprocal;
  __mulq(&real_square, br, br);
  __mulq(&imaginary_square, bi, bi);
  __addq(&reciprocal, &real_square, &imaginary_square);
  __divq(&reciprocal, &one, &reciprocal);

  stored_quad real_real, imaginary_imaginary, imaginary_real, real_imaginary;
  __mulq(&real_real, ar, br);
  __mulq(&imaginary_imaginary, ai, bi);
  __mulq(&imaginary_real, ai, br);
  __mulq(&real_imaginary, ar, bi);

  __addq(&real_real, &real_real, &imaginary_imaginary);
  __subq(&imaginary_real, &imaginary_real, &real_imaginary);
  __mulq(real(quotient), &real_real, &reciprocal);
  __mulq(imaginary(quotient), &imaginary_real, &reciprocal);
}

void a_cdivq(void* quotient, const void* ar, const void* ai, const void* br, const void* bi) {
  __cdivq(quotient, ar, ai, br, bi);
}
