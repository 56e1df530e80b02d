#ifndef ZORVAC_TESTS_ARRAY_MATRIX_H
#define ZORVAC_TESTS_ARRAY_MATRIX_H
// Matrices that end against a page that nobody may touch, the routines that multiply them, in a table,
// and a model of the products: plain loops in the order of summation that docs/kernels.md states.
#include <gtest/gtest.h>

#include <algorithm>
#include <complex>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <type_traits>
#include <vector>

#include "support/guard_pages.h"
#include "zorvac/array.h"

namespace zorvac::test {

using u64 = std::uint64_t;

// (a, b, c, M, K, N, lda, ldb, ldc) for entries and variants; kernels take M, N, K.
using product_fn = void(const void* a, const void* b, void* c, u64, u64, u64, u64, u64, u64);
using clear_fn = void(void* c, u64 rows, u64 columns, u64 ldc);
using copy_fn = void(u64, u64, const double* source, u64 ld, double* packed);

#define ZORVAC_TEST_STORAGES(X, type) X(type, n, n) X(type, t, n) X(type, n, t) X(type, t, t)

// The routines of one type and storage.
struct routines {
  char a, b;  // 'n' or 't'
  product_fn *entry, *general, *blocked = nullptr;
};
#define ZORVAC_TEST_ROW(type, a, b) \
  {#a[0], #b[0], _MATMUL_##type##_##a##_##b, _MATMUL_##type##_##a##_##b##_pst_General},
#define ZORVAC_TEST_BLOCKED_ROW(type, a, b)                                            \
  {#a[0], #b[0], _MATMUL_##type##_##a##_##b, _MATMUL_##type##_##a##_##b##_pst_General, \
   _MATMUL_##type##_##a##_##b##_XK64w},
template <class E>
inline const routines routines_of[] = {ZORVAC_TEST_STORAGES(ZORVAC_TEST_ROW, r4)};
template <>
inline const routines routines_of<double>[] = {ZORVAC_TEST_STORAGES(ZORVAC_TEST_BLOCKED_ROW, r8)};
template <>
inline const routines routines_of<std::complex<float>>[] = {
    ZORVAC_TEST_STORAGES(ZORVAC_TEST_ROW, c4)};
template <>
inline const routines routines_of<std::complex<double>>[] = {
    ZORVAC_TEST_STORAGES(ZORVAC_TEST_ROW, c8)};

// What the elements of a type are made of.
template <class E>
constexpr u64 parts = std::is_floating_point_v<E> ? 1 : 2;
template <class E>
using part_of = std::conditional_t<sizeof(E) / parts<E> == 4, float, double>;

// The elements of a matrix column by column, without gaps.
template <class E>
using elements = std::vector<E>;
template <class E>
elements<E> random_elements(u64 count, unsigned seed) {
  std::mt19937_64 random(seed);
  std::uniform_real_distribution<part_of<E>> part(-1, 1);
  elements<E> result(count);
  for (u64 i = 0; i < count * parts<E>; ++i)
    reinterpret_cast<part_of<E>*>(result.data())[i] = part(random);
  return result;
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
  matrix(u64 rows, u64 columns, u64 gap, const elements<E>& from) : matrix(rows, columns, gap) {
    for (u64 j = 0; j < columns_; ++j)
      std::copy_n(from.data() + j * rows_, rows_, first_ + j * ld_);
  }
  [[nodiscard]] u64 ld() const { return ld_; }
  [[nodiscard]] E* data() const { return first_; }
  [[nodiscard]] E& at(u64 i, u64 j) const { return first_[i + j * ld_]; }

  [[nodiscard]] bool holds(const elements<E>& expected) const {
    for (u64 j = 0; j < columns_ && rows_ != 0; ++j)
      if (std::memcmp(&at(0, j), expected.data() + j * rows_, rows_ * sizeof(E)) != 0) return false;
    return true;
  }
  [[nodiscard]] bool surroundings_are_whole() const {
    const auto whole = [](const void* from, const void* to) {
      const auto* const begin = static_cast<const unsigned char*>(from);
      return std::all_of(begin, static_cast<const unsigned char*>(to),
                         [](unsigned char byte) { return byte == 0xff; });
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

// ---- Products and their model -------------------------------------------------------------------

struct shape {
  u64 m, k, n;
  [[nodiscard]] bool is_blocked() const { return m >= 34 && k >= 38 && n >= 38; }
};
inline std::ostream& operator<<(std::ostream& out, const shape& s) {
  return out << s.m << " x " << s.k << " x " << s.n << ' ';
}

// How the terms of an element are added up: block after block, each from zero and then added to the
// element, or each onto the element.
struct summation {
  std::vector<std::pair<u64, u64>> blocks;
  bool from_zero;
};
inline summation general_order(const routines& r, u64 k) {
  if (r.a == 'n' || r.b == 't') return {{{0, k}}, r.a == 't'};
  summation order{{}, true};
  for (u64 first = 0; first < k; first += 128)
    order.blocks.emplace_back(first, std::min(first + 128, k));
  return order;
}
// The short block is the last in A and B, and comes first.
inline summation blocked_order(u64 k, bool from_zero) {
  const u64 whole = (k - 1) / 112 * 112, short_block = k - whole;
  summation order{{{k - short_block, k}}, from_zero};
  for (u64 first = 0; first < whole; first += 112) order.blocks.emplace_back(first, first + 112);
  return order;
}

// Each product and each sum is rounded by itself.
template <class E>
E sum_of_products(E element, const E* a, const E* b, const summation& order) {
  const auto product = [](const E& x, const E& y) {
    if constexpr (parts<E> == 1)
      return x * y;
    else
      return E(x.real() * y.real() - x.imag() * y.imag(),
               x.real() * y.imag() + x.imag() * y.real());
  };
  for (const auto& [first, last] : order.blocks) {
    E sum = order.from_zero ? E{} : element;
    for (u64 k = first; k < last; ++k) sum += product(a[k], b[k]);
    element = order.from_zero ? element + sum : sum;
  }
  return element;
}

// A and B, in which the terms of an element of the product lie side by side, and both as a routine
// wants them stored.
template <class E>
struct operands {
  explicit operands(const shape& of)
      : s(of), a(random_elements<E>(s.k * s.m, 1)), b(random_elements<E>(s.k * s.n, 2)) {}
  void store_for(const routines& r) {
    const u64 gap = (s.m + s.n) % 4;
    sa = stored(a, s.m, r.a == 't', gap);
    sb = stored(b, s.n, r.b == 'n', (gap + 1) % 4);
  }
  matrix<E> result() const { return matrix<E>(s.m, s.n, (s.m + s.n + 2) % 4); }
  matrix<E> result(const elements<E>& c) const {
    return matrix<E>(s.m, s.n, (s.m + s.n + 2) % 4, c);
  }
  matrix<E> run_entry(product_fn* entry) const { return run(entry, result(), s.k, s.n); }
  matrix<E> run_kernel(product_fn* kernel, matrix<E> c) const {
    return run(kernel, std::move(c), s.n, s.k);
  }

  // The product added to `c` by a general kernel, and the product by a blocked one.
  elements<E> added_to(elements<E> c, const routines& r) const {
    const summation order = general_order(r, s.k);
    for (u64 i = 0; i < c.size(); ++i) c[i] = element(i, order, c[i]);
    return c;
  }
  elements<E> blocked_product(const routines& r) const {
    elements<E> c(s.m * s.n);
    for (u64 i = 0; i < c.size(); ++i)
      c[i] = element(i, i / s.m >= s.n / 4 * 4
                            ? general_order(r, s.k)
                            : blocked_order(s.k, i % s.m < s.m / 4 * 4 || r.a == 't'));
    return c;
  }

  shape s;
  elements<E> a, b;
  matrix<E> sa{0, 0, 0}, sb{0, 0, 0};

 private:
  E element(u64 i, const summation& order, E onto = {}) const {
    return sum_of_products(onto, a.data() + i % s.m * s.k, b.data() + i / s.m * s.k, order);
  }
  matrix<E> stored(const elements<E>& from, u64 lanes, bool terms_first, u64 gap) const {
    if (terms_first) return matrix<E>(s.k, lanes, gap, from);
    matrix<E> other(lanes, s.k, gap);
    for (u64 i = 0; i < from.size(); ++i) other.at(i / s.k, i % s.k) = from[i];
    return other;
  }
  matrix<E> run(product_fn* routine, matrix<E> c, u64 x, u64 y) const {
    routine(sa.data(), sb.data(), c.data(), s.m, x, y, sa.ld(), sb.ld(), c.ld());
    EXPECT_TRUE(c.surroundings_are_whole());
    return c;
  }
};

// ---- Forms --------------------------------------------------------------------------------------

// What the indicator of a processor says; every form gives the same bits.
struct form {
  const char* name;
  u64 indicator;
  bool (*available)();
};
constexpr u64 generic_form = 1, pair_form = 0x7f;
constexpr form forms[] = {
    {"Generic", generic_form, [] { return true; }},
    {"Pair", pair_form, [] { return true; }},
    {"Sse3", 0xff, [] { return __builtin_cpu_supports("sse3") != 0; }},
    {"Avx2", 0x9d97ff, [] { return __builtin_cpu_supports("avx2") != 0; }},
    {"Avx512", 0x9d97ff | u64{1} << 24 | u64{1} << 27 | u64{1} << 38,
     [] {
       return __builtin_cpu_supports("avx512f") != 0 && __builtin_cpu_supports("avx512dq") != 0 &&
              __builtin_cpu_supports("avx512vl") != 0;
     }},
};

}  // namespace zorvac::test
#endif
