// A complex quad from two floats.
#include "quad/w_complex.h"

using namespace zorvac::complex_quad;

void a_ctocq(void* q, const void* value) { widen(__ftoq, q, value); }
