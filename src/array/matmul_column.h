#ifndef ZORVAC_ARRAY_MATMUL_COLUMN_H
#define ZORVAC_ARRAY_MATMUL_COLUMN_H
// The matrix-vector routines compute one column of a binary64 product. They clear it, and then use
// the general kernel of the same storage on a C of one column.
#include "array/clear.h"
#include "array/matmul_general.h"

namespace zorvac::array {
namespace {

template <class V, stored A, stored B>
void column(const double* a, const double* b, double* c, std::size_t m, std::size_t k,
            std::size_t lda, std::size_t ldb) {
  clear_column<std::uint64_t>(c, m);
  general<V, A, B>(a, b, c, m, 1, k, lda, ldb, m);
}

}  // namespace
}  // namespace zorvac::array

// Defines the four routines in one form. They take the extents of A as A is stored. A contiguous
// vector has no leading dimension.
#define ZORVAC_COLUMN_KERNELS(form, ...)                                                           \
  extern "C" {                                                                                     \
  void column_nn_##form(const double*, const double*, double*, std::size_t, std::size_t,           \
                        std::size_t) __asm__("MATMUL_v_nn_pst." #form);                            \
  void column_tn_##form(const double*, const double*, double*, std::size_t, std::size_t,           \
                        std::size_t) __asm__("MATMUL_v_tn_pst." #form);                            \
  void column_nt_##form(const double*, const double*, double*, std::size_t, std::size_t,           \
                        std::size_t, std::size_t) __asm__("MATMUL_v_nt_pst." #form);               \
  void column_tt_##form(const double*, const double*, double*, std::size_t, std::size_t,           \
                        std::size_t, std::size_t) __asm__("MATMUL_v_tt_pst." #form);               \
  void column_nn_##form(const double* a, const double* b, double* c, std::size_t m, std::size_t k, \
                        std::size_t lda) {                                                         \
    using namespace zorvac::array;                                                                 \
    column<__VA_ARGS__, stored::as_used, stored::as_used>(a, b, c, m, k, lda, k);                  \
  }                                                                                                \
  void column_tn_##form(const double* a, const double* b, double* c, std::size_t k, std::size_t m, \
                        std::size_t lda) {                                                         \
    using namespace zorvac::array;                                                                 \
    column<__VA_ARGS__, stored::transposed, stored::as_used>(a, b, c, m, k, lda, k);               \
  }                                                                                                \
  void column_nt_##form(const double* a, const double* b, double* c, std::size_t m, std::size_t k, \
                        std::size_t lda, std::size_t ldb) {                                        \
    using namespace zorvac::array;                                                                 \
    column<__VA_ARGS__, stored::as_used, stored::transposed>(a, b, c, m, k, lda, ldb);             \
  }                                                                                                \
  void column_tt_##form(const double* a, const double* b, double* c, std::size_t k, std::size_t m, \
                        std::size_t lda, std::size_t ldb) {                                        \
    using namespace zorvac::array;                                                                 \
    column<__VA_ARGS__, stored::transposed, stored::transposed>(a, b, c, m, k, lda, ldb);          \
  }                                                                                                \
  }
#endif
