// Packs a block of A that is stored as it is.
#include "array/pack.h"
#include "zorvac/array.h"

extern "C" void __zorva_dgcopyan_xk64w(uint64_t rows, uint64_t k, const double* a, uint64_t lda,
                                       double* packed) {
  zorvac::array::pack_contiguous_lanes(rows, k, a, lda, packed);
}
