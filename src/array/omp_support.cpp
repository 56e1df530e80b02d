// The entry points of reductions over arrays. Compiled code passes constants, so a code that is not
// in the table is a fault of the compiler.
#include "array/reductions.h"
#include "core/levels.h"

namespace {

using namespace zorvac::array;

bool has_avx2() { return (~__zorva_cpu_feature_indicator & ZORVAC_AVX2_LEVEL) == 0; }

}  // namespace

void __zorva_reduction_init_array(void* target, uint64_t count, uint32_t op, uint32_t type_code) {
  if (type_code >= type_codes) std::abort();
  const element_type& type = types<for_any_arrays>.with_code[type_code];
  const bool let_through = op == op_none && type_code == type_of_unsigned_bytes;
  if (!type.accepts(op) && !let_through) std::abort();
  type.fill(static_cast<byte*>(target), count, op);
}

void __zorva_simd_reduction_final_array(void* target, const void* partial, uint64_t count,
                                        int32_t stride, int32_t strided, uint32_t op,
                                        uint32_t type_code) {
  if (type_code >= type_codes) std::abort();
  const element_type& type = types<for_any_arrays>.with_code[type_code];
  if (!type.accepts(op)) [[unlikely]] {
    if (type.last_operator != op_non_equivalence) std::abort();
    return;  // integers ignore an unknown operator
  }
  auto* const t = static_cast<byte*>(target);
  const auto* const p = static_cast<const byte*>(partial);
  const fold in_order = type.folds[op];
  if (strided != 0 && stride != 1) [[unlikely]]
    return in_order(t, p, count, stride);
  const register_folds& level = has_avx2() ? types_by_avx2_registers : types<by_registers>;
  level.with_code[type_code][op](t, p, count, in_order);
}
