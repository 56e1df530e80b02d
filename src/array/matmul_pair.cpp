// The matrix kernels for any x86-64 processor: 2 doubles in a register.
#include "array/matmul_column.h"
#include "array/matmul_general.h"

ZORVAC_GENERAL_KERNELS(r4, A, real<sse2, float>)
ZORVAC_GENERAL_KERNELS(r8, A, real<sse2, double>)
ZORVAC_GENERAL_KERNELS(c4, A, complex<sse2, float>)
ZORVAC_GENERAL_KERNELS(c8, A, complex<sse2, double>)
ZORVAC_COLUMN_KERNELS(A, real<sse2, double>)
