// A complex quad from two doubles.
#include "quad/w_complex.h"

using namespace zorvac::complex_quad;

void a_cdtocq(void* q, const void* value) { widen(__dtoq, q, value); }
