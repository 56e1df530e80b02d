// A complex quad from two doubles, which are read before anything is written.
#include "quad/w_complex.h"

using namespace zorvac::complex_quad;

void a_cdtocq(void* q, const void* value) {
  double parts[2];
  std::memcpy(parts, value, sizeof parts);
  __dtoq(real(q), parts[0]);
  __dtoq(imaginary(q), parts[1]);
}
