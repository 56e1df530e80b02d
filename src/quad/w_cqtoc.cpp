// A complex quad as two floats. The first is stored before the second is converted.
#include "quad/w_complex.h"

using namespace zorvac::complex_quad;

void a_cqtoc(void* value, const void* q) {
  const float first = __qtof(real(q));
  std::memcpy(value, &first, sizeof first);
  const float second = __qtof(imaginary(q));
  std::memcpy(static_cast<char*>(value) + sizeof first, &second, sizeof second);
}
