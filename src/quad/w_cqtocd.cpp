// A complex quad as two doubles.
#include "quad/w_complex.h"

using namespace zorvac::complex_quad;

void a_cqtocd(void* value, const void* q) { narrow(__qtod, value, q); }
