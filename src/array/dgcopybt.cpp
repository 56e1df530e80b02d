// Packs a block of B that is stored transposed.
#include "array/pack.h"
#include "zorvac/array.h"

extern "C" void __zorva_dgcopybt_psc(uint64_t k, uint64_t columns, const double* b, uint64_t ldb,
                                     double* packed) {
  zorvac::array::pack_contiguous_lanes(columns, k, b, ldb, packed);
}
