// A complex quad from a 64-bit integer.
#include "quad/w_complex.h"

using namespace zorvac::softfp;

void a_jtocq(void* q, std::int64_t value) {
  clear_imaginary(q);
  __jtoq(real(q), value);
}
