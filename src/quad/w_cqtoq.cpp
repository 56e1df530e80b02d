// The real part of a complex quad.
#include "quad/w_complex.h"

using namespace zorvac::softfp;

void a_cqtoq(void* value, const void* q) { std::memmove(value, real(q), quad_bytes); }
