// Packs a block of A that is stored transposed.
#include "array/pack.h"
#include "zorvac/array.h"

extern "C" void __zorva_dgcopyat_xk64w(uint64_t rows, uint64_t k, const double* a, uint64_t lda,
                                       double* packed) {
  zorvac::array::pack_contiguous_terms(rows, k, a, lda, packed);
}
