// The negative of a complex quad, under two names.
#include "quad/w_complex.h"

using namespace zorvac::softfp;

void __cnegq(void* negated, const void* ar, const void* ai) {
  __negq(real(negated), ar);
  __negq(imaginary(negated), ai);
}

void a_cnegq(void* negated, const void* ar, const void* ai) { __cnegq(negated, ar, ai); }
