// The folds of reductions by AVX2's registers.
#include "array/reductions.h"

const zorvac::array::register_folds zorvac::array::types_by_avx2_registers = types<by_registers>;
