// The matrix kernels with 4 doubles to a register, 32 registers and masks.
#include "array/inner.h"
#include "array/matmul_column.h"
#include "array/matmul_general.h"

namespace {
struct quad_tiles {
  static void all(const zorvac::array::inner_block& w) {
    using quad = zorvac::array::real<zorvac::array::avx512, double>;
    std::size_t i = 0;
    zorvac::array::inner_tiles<quad, 4>(w, i);
    zorvac::array::inner_tiles<quad, 3>(w, i);
    zorvac::array::inner_tiles<quad, 2>(w, i);
    zorvac::array::inner_tiles<quad, 1>(w, i);
  }
};
}  // namespace

ZORVAC_GENERAL_KERNELS(r4, Z, real<avx512, float>)
ZORVAC_GENERAL_KERNELS(r8, Z, real<avx512, double>)
ZORVAC_GENERAL_KERNELS(c4, Z, complex<avx512, float>)
ZORVAC_GENERAL_KERNELS(c8, Z, complex<avx512, double>)
ZORVAC_COLUMN_KERNELS(Z, real<avx512, double>)
ZORVAC_INNER_KERNELS(Z, quad_tiles)
