// The real part of a complex quad truncated to a 64-bit integer.
#include "quad/w_complex.h"

using namespace zorvac::softfp;

std::int64_t a_cqtoj(const void* q) { return __qtoj(real(q), ZORVAC_TO_INT_TOWARD_ZERO); }
