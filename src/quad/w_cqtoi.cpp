// The real part of a complex quad truncated to a 32-bit integer.
#include "quad/w_complex.h"

using namespace zorvac::softfp;

std::int32_t a_cqtoi(const void* q) { return __qtoi(real(q), ZORVAC_TO_INT_TOWARD_ZERO); }
