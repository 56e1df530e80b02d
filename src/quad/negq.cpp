// Negation: flips the sign bit of any operand and raises nothing.
#include "quad/formats.h"
#include "zorvac/quad.h"

void __negq(void* negated, const void* a) {
  using namespace zorvac::softfp;
  store(negated, load(a) ^ binary128::sign_bit);
}
