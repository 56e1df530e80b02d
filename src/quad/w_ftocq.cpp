// A complex quad from a float.
#include "quad/w_complex.h"

using namespace zorvac::softfp;

void a_ftocq(void* q, float value) {
  clear_imaginary(q);
  __ftoq(real(q), value);
}
