// Packs a block of B that is stored as it is.
#include "array/pack.h"
#include "zorvac/array.h"

extern "C" void __zorva_dgcopybn_psc(uint64_t k, uint64_t columns, const double* b, uint64_t ldb,
                                     double* packed) {
  zorvac::array::pack_contiguous_terms(columns, k, b, ldb, packed);
}
