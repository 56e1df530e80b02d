// A complex quad from a double.
#include "quad/w_complex.h"

using namespace zorvac::softfp;

void a_dtocq(void* q, double value) {
  clear_imaginary(q);
  __dtoq(real(q), value);
}
