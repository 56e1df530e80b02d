// A complex quad from two floats, which are read before anything is written.
#include "quad/w_complex.h"

using namespace zorvac::complex_quad;

void a_ctocq(void* q, const void* value) {
  float parts[2];
  std::memcpy(parts, value, sizeof parts);
  __ftoq(real(q), parts[0]);
  __ftoq(imaginary(q), parts[1]);
}
