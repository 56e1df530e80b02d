#ifndef ZORVAC_TESTS_ARRAY_MATRIX_H
#define ZORVAC_TESTS_ARRAY_MATRIX_H
// The matrix routines by symbol, in tables of element types and storages, and matrices that end
// against a page that nobody may touch.
#include <gtest/gtest.h>

#include <complex>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <type_traits>
#include <vector>

#include "support/guard_pages.h"

namespace zorvac::test {

using u64 = std::uint64_t;

// (a, b, c, M, K, N, lda, ldb, ldc) for entries and variants; kernels take M, N, K.
using product_fn = void(const void* a, const void* b, void* c, u64, u64, u64, u64, u64, u64);
using clear_fn = void(void* c, u64 rows, u64 columns, u64 ldc);
using copy_fn = void(u64, u64, const double* source, u64 ld, double* packed);
using inner_fn = void(const u64* m, const u64* n, const u64* kp, const double* a, const double* b,
                      const u64* block, double* c, const u64* ldc, double* strip, const void* zero);

#define ZORVAC_TEST_STORAGES(X, type) X(type, n, n) X(type, t, n) X(type, n, t) X(type, t, t)

extern "C" {
#define ZORVAC_TEST_TYPE(type, a, b)                                                         \
  extern product_fn entry_##type##_##a##_##b __asm__("_MATMUL_" #type "_" #a "_" #b);        \
  extern product_fn generic_##type##_##a##_##b __asm__("_MATMUL_" #type "_" #a "_" #b ".A"); \
  extern product_fn general_##type##_##a##_##b __asm__("_MATMUL_" #type "_" #a "_" #b        \
                                                       "_pst_General");
#define ZORVAC_TEST_BLOCKED(type, a, b)                                                   \
  extern product_fn fast_##type##_##a##_##b __asm__("_MATMUL_" #type "_" #a "_" #b ".J"); \
  extern product_fn blocked_##type##_##a##_##b __asm__("_MATMUL_" #type "_" #a "_" #b "_XK64w");
ZORVAC_TEST_STORAGES(ZORVAC_TEST_TYPE, r4)
ZORVAC_TEST_STORAGES(ZORVAC_TEST_TYPE, r8)
ZORVAC_TEST_STORAGES(ZORVAC_TEST_TYPE, c4)
ZORVAC_TEST_STORAGES(ZORVAC_TEST_TYPE, c8)
ZORVAC_TEST_STORAGES(ZORVAC_TEST_BLOCKED, r8)
extern clear_fn clear_r4 __asm__("_MATMUL_r4_n_n_pst_init");
extern clear_fn clear_r8 __asm__("_MATMUL_r8_n_n_pst_init");
extern clear_fn clear_c4 __asm__("_MATMUL_c4_n_n_pst_init");
extern clear_fn clear_c8 __asm__("_MATMUL_c8_n_n_pst_init");
extern copy_fn copy_an __asm__("__zorva_dgcopyan_xk64w");
extern copy_fn copy_at __asm__("__zorva_dgcopyat_xk64w");
extern copy_fn copy_bn __asm__("__zorva_dgcopybn_psc");
extern copy_fn copy_bt __asm__("__zorva_dgcopybt_psc");
extern inner_fn inner_overwriting __asm__("__zorva_dinnerz_roll_xk64w");
extern inner_fn inner_adding __asm__("__zorva_dinner_xk64w");
#define ZORVAC_TEST_VECTOR(a, b, ...)                                                     \
  extern void vector_##a##b(const double* a_matrix, const double* b, double* c, u64, u64, \
                            __VA_ARGS__) __asm__("MATMUL_v_" #a #b "_pst");
ZORVAC_TEST_VECTOR(n, n, u64 lda)           // M, K
ZORVAC_TEST_VECTOR(t, n, u64 lda)           // K, M
ZORVAC_TEST_VECTOR(n, t, u64 lda, u64 ldb)  // M, K
ZORVAC_TEST_VECTOR(t, t, u64 lda, u64 ldb)  // K, M
}

// The routines of one type and storage.
struct routines {
  char a, b;  // 'n' or 't'
  product_fn *entry, *generic, *general, *blocked;
};
#define ZORVAC_TEST_ROW(type, a, b)    \
  routines{#a[0],                      \
           #b[0],                      \
           entry_##type##_##a##_##b,   \
           generic_##type##_##a##_##b, \
           general_##type##_##a##_##b, \
           nullptr},
#define ZORVAC_TEST_BLOCKED_ROW(type, a, b) \
  routines{#a[0],                           \
           #b[0],                           \
           entry_##type##_##a##_##b,        \
           generic_##type##_##a##_##b,      \
           general_##type##_##a##_##b,      \
           blocked_##type##_##a##_##b},
template <class E>
std::vector<routines> routines_of() {
  if constexpr (std::is_same_v<E, float>) return {ZORVAC_TEST_STORAGES(ZORVAC_TEST_ROW, r4)};
  if constexpr (std::is_same_v<E, double>)
    return {ZORVAC_TEST_STORAGES(ZORVAC_TEST_BLOCKED_ROW, r8)};
  if constexpr (std::is_same_v<E, std::complex<float>>)
    return {ZORVAC_TEST_STORAGES(ZORVAC_TEST_ROW, c4)};
  if constexpr (std::is_same_v<E, std::complex<double>>)
    return {ZORVAC_TEST_STORAGES(ZORVAC_TEST_ROW, c8)};
}

// A column-major matrix whose last element is followed by a guard page. All that is not element of
// it is filled with bytes of 0xff, and so are the elements at first: they are NaNs.
template <class E>
class matrix {
 public:
  matrix(u64 rows, u64 columns, u64 gap)
      : rows_(rows),
        columns_(columns),
        ld_(rows + gap),
        block_(std::make_unique<guarded_block>(bytes() + 64)) {
    std::memset(block_->begin(), 0xff, block_->size());
    first_ = reinterpret_cast<E*>(block_->end() - bytes());
  }
  [[nodiscard]] u64 rows() const { return rows_; }
  [[nodiscard]] u64 columns() const { return columns_; }
  [[nodiscard]] u64 ld() const { return ld_; }
  [[nodiscard]] E* data() const { return first_; }
  [[nodiscard]] E& at(u64 i, u64 j) const { return first_[i + j * ld_]; }

  matrix& fill_randomly(unsigned seed) {
    std::mt19937_64 random(seed);
    std::uniform_real_distribution<double> part(-1, 1);
    for (u64 j = 0; j < columns_; ++j)
      for (u64 i = 0; i < rows_; ++i)
        if constexpr (std::is_floating_point_v<E>) {
          at(i, j) = static_cast<E>(part(random));
        } else {
          using real = typename E::value_type;
          at(i, j) = E(static_cast<real>(part(random)), static_cast<real>(part(random)));
        }
    return *this;
  }
  [[nodiscard]] matrix copy() const {
    matrix other(rows_, columns_, ld_ - rows_);
    other.assign(*this);
    return other;
  }
  void assign(const matrix& from) {
    for (u64 j = 0; j < columns_; ++j)
      for (u64 i = 0; i < rows_; ++i) at(i, j) = from.at(i, j);
  }
  // The operand as it is stored: itself or its transpose.
  [[nodiscard]] matrix stored(char storage, u64 gap) const {
    matrix other(storage == 'n' ? rows_ : columns_, storage == 'n' ? columns_ : rows_, gap);
    for (u64 j = 0; j < columns_; ++j)
      for (u64 i = 0; i < rows_; ++i) (storage == 'n' ? other.at(i, j) : other.at(j, i)) = at(i, j);
    return other;
  }
  [[nodiscard]] bool same_bits(const matrix& other) const {
    for (u64 j = 0; j < columns_ && rows_ != 0; ++j)
      if (std::memcmp(&at(0, j), &other.at(0, j), rows_ * sizeof(E)) != 0) return false;
    return true;
  }
  [[nodiscard]] bool surroundings_are_whole() const {
    const auto whole = [](const void* from, const void* to) {
      for (const auto* b = static_cast<const unsigned char*>(from); b < to; ++b)
        if (*b != 0xff) return false;
      return true;
    };
    if (!whole(block_->begin(), first_)) return false;
    for (u64 j = 0; j + 1 < columns_; ++j)
      if (!whole(first_ + j * ld_ + rows_, first_ + (j + 1) * ld_)) return false;
    return rows_ != 0 || whole(first_, block_->end());
  }

 private:
  [[nodiscard]] u64 bytes() const {
    return columns_ == 0 ? 0 : ((columns_ - 1) * ld_ + rows_) * sizeof(E);
  }
  u64 rows_, columns_, ld_;
  std::unique_ptr<guarded_block> block_;
  E* first_;
};

}  // namespace zorvac::test
#endif
