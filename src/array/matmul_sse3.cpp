// The complex kernels with the instructions that SSE3 has for them, and the inner kernels in pairs
// of doubles, whose strip is filled by MOVDDUP.
#include "array/inner.h"
#include "array/matmul_general.h"

ZORVAC_GENERAL_KERNELS(c4, L, complex<sse3, float>)
ZORVAC_GENERAL_KERNELS(c8, L, complex<sse3, double>)
ZORVAC_INNER_KERNELS(A, real<sse3, double>, 2, 2)
