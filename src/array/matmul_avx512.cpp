// The matrix kernels for AVX-512: 4 doubles in a register, 32 registers, and masks.
#include "array/inner.h"
#include "array/matmul_column.h"
#include "array/matmul_general.h"

ZORVAC_GENERAL_KERNELS(r4, Z, real<avx512, float>)
ZORVAC_GENERAL_KERNELS(r8, Z, real<avx512, double>)
ZORVAC_GENERAL_KERNELS(c4, Z, complex<avx512, float>)
ZORVAC_GENERAL_KERNELS(c8, Z, complex<avx512, double>)
ZORVAC_COLUMN_KERNELS(Z, real<avx512, double>)
ZORVAC_INNER_KERNELS(Z, real<avx512, double>, 4, 1)
