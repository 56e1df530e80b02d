// A complex quad from a 32-bit integer.
#include "quad/w_complex.h"

using namespace zorvac::softfp;

void a_itocq(void* q, std::int32_t value) {
  clear_imaginary(q);
  __itoq(real(q), value);
}
