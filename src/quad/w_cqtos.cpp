// The real part of a complex quad truncated, for callers that keep 16 bits.
#include "quad/w_complex.h"

using namespace zorvac::softfp;

std::int32_t a_cqtos(const void* q) { return __qtoi(real(q), ZORVAC_TO_INT_TOWARD_ZERO); }
