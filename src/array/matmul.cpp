// The routines that clear C before a general kernel adds to it.
#include "array/clear.h"
#include "zorvac/array.h"

using namespace zorvac::array;

extern "C" {

void _MATMUL_r4_n_n_pst_init(void* c, uint64_t m, uint64_t n, uint64_t ldc) {
  clear<std::uint32_t>(c, m, n, ldc);
}
void _MATMUL_r8_n_n_pst_init(void* c, uint64_t m, uint64_t n, uint64_t ldc) {
  clear<std::uint64_t>(c, m, n, ldc);
}
void _MATMUL_c4_n_n_pst_init(void* c, uint64_t m, uint64_t n, uint64_t ldc) {
  clear<std::uint64_t>(c, m, n, ldc);
}
void _MATMUL_c8_n_n_pst_init(void* c, uint64_t m, uint64_t n, uint64_t ldc) {
  clear<__m128i>(c, m, n, ldc);
}
}
