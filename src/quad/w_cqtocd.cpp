// A complex quad as two doubles. The first is stored before the second is converted.
#include "quad/w_complex.h"

using namespace zorvac::complex_quad;

void a_cqtocd(void* value, const void* q) {
  const double first = __qtod(real(q));
  std::memcpy(value, &first, sizeof first);
  const double second = __qtod(imaginary(q));
  std::memcpy(static_cast<char*>(value) + sizeof first, &second, sizeof second);
}
