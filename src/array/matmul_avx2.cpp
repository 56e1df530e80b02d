// The matrix kernels for AVX2: 4 doubles in a register.
#include "array/inner.h"
#include "array/matmul_column.h"
#include "array/matmul_general.h"

ZORVAC_GENERAL_KERNELS(r4, V, real<avx2, float>)
ZORVAC_GENERAL_KERNELS(r8, V, real<avx2, double>)
ZORVAC_GENERAL_KERNELS(c4, V, complex<avx2, float>)
ZORVAC_GENERAL_KERNELS(c8, V, complex<avx2, double>)
ZORVAC_COLUMN_KERNELS(V, real<avx2, double>)
ZORVAC_INNER_KERNELS(V, real<avx2, double>, 2, 2)
