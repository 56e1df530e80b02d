// The matrix kernels with 4 doubles to a register.
#include "array/inner.h"
#include "array/matmul_column.h"
#include "array/matmul_general.h"

namespace {
struct quad_tiles {
  static void all(const zorvac::array::inner_block& w) {
    using quad = zorvac::array::real<zorvac::array::avx2, double>;
    std::size_t i = 0;
    zorvac::array::inner_tiles<quad, 3>(w, i);
    zorvac::array::inner_tiles<quad, 2>(w, i);
    zorvac::array::inner_tiles<quad, 1>(w, i);
  }
};
}  // namespace

ZORVAC_GENERAL_KERNELS(r4, V, real<avx2, float>)
ZORVAC_GENERAL_KERNELS(r8, V, real<avx2, double>)
ZORVAC_GENERAL_KERNELS(c4, V, complex<avx2, float>)
ZORVAC_GENERAL_KERNELS(c8, V, complex<avx2, double>)
ZORVAC_COLUMN_KERNELS(V, real<avx2, double>)
ZORVAC_INNER_KERNELS(V, quad_tiles)
