// A complex quad from a quad, stored in part: the real part loses its lowest 32 bits.
#include "quad/w_complex.h"

using namespace zorvac::softfp;

void a_qtocq(void* q, const void* value) {
  std::memmove(real(q), value, quad_bytes);
  clear_partially(q);
}
