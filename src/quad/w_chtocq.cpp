// A complex quad from an 8-bit integer, which not every caller extends to the whole register.
#include "quad/w_complex.h"

using namespace zorvac::softfp;

void a_chtocq(void* q, int value) {
  clear_imaginary(q);
  __itoq(real(q), static_cast<std::int8_t>(value));
}
