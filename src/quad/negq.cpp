// Negation: flips the sign bit of anything, in silence.
#include "quad/formats.h"
#include "zorvac/quad.h"

void __negq(void* negated, const void* a) {
  using namespace zorvac::softfp;
  store(negated, load(a) ^ binary128::sign_bit);
}
