// A complex quad, stored in part, from a 16-bit integer, which not every caller extends.
#include "quad/w_complex.h"

using namespace zorvac::softfp;

void a_stocq(void* q, int value) {
  __itoq(real(q), static_cast<std::int16_t>(value));
  clear_partially(q);
}
