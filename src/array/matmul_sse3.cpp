// The complex kernels with ADDSUBPS and ADDSUBPD of SSE3, and the inner kernels for pairs of
// doubles, which fill their strip by MOVDDUP, also of SSE3.
#include "array/inner.h"
#include "array/matmul_general.h"

ZORVAC_GENERAL_KERNELS(c4, L, complex<sse3, float>)
ZORVAC_GENERAL_KERNELS(c8, L, complex<sse3, double>)
ZORVAC_INNER_KERNELS(A, real<sse3, double>, 2, 2)
