// The real part of a complex quad.
#include "quad/w_complex.h"

using namespace zorvac::complex_quad;

void a_cqtoq(void* value, const void* q) { std::memmove(value, real(q), part_bytes); }
