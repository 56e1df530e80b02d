// The complex kernels with the instructions that SSE3 has for them, and the inner kernels in pairs
// of doubles, whose strip is filled by MOVDDUP.
#include "array/inner.h"
#include "array/matmul_general.h"

namespace {
struct pair_tiles {
  static void all(const zorvac::array::inner_block& w) {
    std::size_t i = 0;
    zorvac::array::inner_tiles<zorvac::array::real<zorvac::array::sse3, double>, 2>(w, i);
  }
};
}  // namespace

ZORVAC_GENERAL_KERNELS(c4, L, complex<sse3, float>)
ZORVAC_GENERAL_KERNELS(c8, L, complex<sse3, double>)
ZORVAC_INNER_KERNELS(A, pair_tiles)
