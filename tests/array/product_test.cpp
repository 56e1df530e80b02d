// Products of all types and storages, against sums in wider precision with a bound on the error and,
// where the order of summation is part of the contract, bit for bit; and the forms for wider
// registers against the pair form.
#include <gtest/gtest.h>

#include <cmath>

#include "array/matrix.h"
#include "support/name_of_row.h"
#include "zorvac/cpu.h"

namespace zorvac::test {
namespace {

constexpr u64 generic_form = 1, pair_form = 0x7f;

struct shape {
  u64 m, k, n;
};
std::ostream& operator<<(std::ostream& out, const shape& s) {
  return out << s.m << " x " << s.k << " x " << s.n;
}

// Small ones in all combinations, and the thresholds, blocks and panels with their neighbours.
std::vector<shape> shapes() {
  std::vector<shape> all{
      {33, 38, 38},   {34, 37, 38},    {34, 38, 37},    {34, 38, 38},    {35, 39, 39},
      {36, 40, 40},   {37, 41, 41},    {40, 112, 40},   {41, 113, 42},   {64, 111, 39},
      {47, 224, 43},  {44, 225, 45},   {127, 127, 127}, {128, 128, 128}, {129, 129, 129},
      {260, 112, 40}, {261, 113, 41},  {262, 337, 46},  {521, 42, 130},  {34, 40, 2000},
      {38, 39, 2001}, {36, 113, 2006}, {37, 38, 4003},  {300, 3, 300},   {3, 300, 300},
      {300, 300, 3},  {1000, 1, 1},    {1, 1000, 1},    {1, 1, 1000},    {257, 260, 33},
  };
  const u64 small[] = {0, 1, 2, 3, 4, 5, 8, 9, 17};
  for (const u64 m : small)
    for (const u64 k : small)
      for (const u64 n : small) all.push_back({m, k, n});
  return all;
}

// A and B, as themselves and as a routine wants them stored.
template <class E>
struct operands {
  explicit operands(const shape& s, unsigned seed = 1)
      : a(s.m, s.k, 0), b(s.k, s.n, 0), sa(0, 0, 0), sb(0, 0, 0), gap((s.m + s.n) % 4) {
    a.fill_randomly(seed);
    b.fill_randomly(seed + 1);
  }
  void store_for(const routines& r) {
    sa = a.stored(r.a, gap);
    sb = b.stored(r.b, (gap + 1) % 4);
  }
  matrix<E> result() const { return matrix<E>(a.rows(), b.columns(), (gap + 2) % 4); }
  matrix<E> product(product_fn* entry, u64 indicator) const {
    __zorva_cpu_feature_indicator = indicator;
    matrix<E> c = result();
    entry(sa.data(), sb.data(), c.data(), a.rows(), a.columns(), b.columns(), sa.ld(), sb.ld(),
          c.ld());
    EXPECT_TRUE(c.surroundings_are_whole());
    return c;
  }
  matrix<E> accumulated(product_fn* kernel, const matrix<E>& onto, u64 indicator) const {
    __zorva_cpu_feature_indicator = indicator;
    matrix<E> c = onto.copy();
    kernel(sa.data(), sb.data(), c.data(), a.rows(), b.columns(), a.columns(), sa.ld(), sb.ld(),
           c.ld());
    EXPECT_TRUE(c.surroundings_are_whole());
    return c;
  }

  matrix<E> a, b, sa, sb;
  u64 gap;
};

template <class E>
matrix<E> zeros(const matrix<E>& like) {
  matrix<E> c = like.copy();
  for (u64 j = 0; j < c.columns(); ++j)
    for (u64 i = 0; i < c.rows(); ++i) c.at(i, j) = E{};
  return c;
}

// ---- The error of any order of summation --------------------------------------------------------

// The bound: k products and sums of unit roundoff u give an error of k u times the sum of the
// magnitudes, and little more (Higham, Accuracy and Stability of Numerical Algorithms, 3.1).
template <class E>
class reference {
  using part = std::conditional_t<sizeof(E) == 4 || std::is_same_v<E, std::complex<float>>, double,
                                  long double>;

 public:
  reference(const matrix<E>& a, const matrix<E>& b)
      : m_(a.rows()),
        terms_(a.columns() * parts),
        sums_(m_ * b.columns() * parts),
        magnitudes_(sums_.size()) {
    for (u64 j = 0; j < b.columns(); ++j)
      for (u64 k = 0; k < a.columns(); ++k)
        for (u64 i = 0; i < m_; ++i) add(i, j, a.at(i, k), b.at(k, j));
  }
  // Adds what C held before.
  void add_initial(const matrix<E>& c) {
    ++terms_;
    for (u64 j = 0; j < c.columns(); ++j)
      for (u64 i = 0; i < m_; ++i) add(i, j, c.at(i, j), E{1});
  }
  void compare(const matrix<E>& c, const shape& s, const routines& r) const {
    const part unit = sizeof(E) / parts == 4 ? 0x1p-24 : 0x1p-53;
    for (u64 j = 0; j < c.columns(); ++j)
      for (u64 i = 0; i < m_; ++i)
        for (u64 p = 0; p < parts; ++p) {
          const u64 at = (i + j * m_) * parts + p;
          const part value = reinterpret_cast<const scalar*>(&c.at(i, j))[p];
          const part error = std::abs(value - sums_[at]);
          ASSERT_LE(error, static_cast<part>(terms_ + 1) * unit * magnitudes_[at])
              << s << ' ' << r.a << '_' << r.b << " element " << i << ',' << j << " part " << p;
        }
  }

 private:
  static constexpr u64 parts = std::is_floating_point_v<E> ? 1 : 2;
  using scalar =
      std::conditional_t<std::is_same_v<E, float> || std::is_same_v<E, std::complex<float>>, float,
                         double>;
  void add(u64 i, u64 j, const E& a, const E& b) {
    const auto* const x = reinterpret_cast<const scalar*>(&a);
    const auto* const y = reinterpret_cast<const scalar*>(&b);
    const auto term = [&](u64 p, part value, part sign) {
      sums_[(i + j * m_) * parts + p] += sign * value;
      magnitudes_[(i + j * m_) * parts + p] += std::abs(value);
    };
    term(0, part{x[0]} * y[0], 1);
    if constexpr (parts == 2) {
      term(0, part{x[1]} * y[1], -1);
      term(1, part{x[0]} * y[1], 1);
      term(1, part{x[1]} * y[0], 1);
    }
  }
  u64 m_, terms_;
  std::vector<part> sums_, magnitudes_;
};

// ---- The orders that are contract ---------------------------------------------------------------

// C + A B over contraction indices from `first` to `last`, one rounded product after the other.
template <class E>
void add_in_order(matrix<E>& c, const operands<E>& x, u64 first, u64 last, u64 rows, u64 columns) {
  for (u64 j = 0; j < columns; ++j)
    for (u64 k = first; k < last; ++k)
      for (u64 i = 0; i < rows; ++i) c.at(i, j) += x.a.at(i, k) * x.b.at(k, j);
}

// The blocked product: the last K mod 112 contraction indices first, then blocks of 112, each block
// of a tile summed from zero; rows beyond a multiple of 4 by the general kernel, block by block;
// columns beyond a multiple of 4 by the matrix-vector routine.
matrix<double> blocked_model(const operands<double>& x, const routines& r) {
  const u64 m = x.a.rows(), k = x.a.columns(), n = x.b.columns(), m4 = m / 4 * 4, n4 = n / 4 * 4;
  const matrix<double>&a = x.sa, &b = x.sb;
  matrix<double> c = x.result(), tile = x.result();
  const auto a_at = [&](u64 i, u64 kk) { return &(r.a == 'n' ? a.at(i, kk) : a.at(kk, i)); };
  const auto b_at = [&](u64 kk, u64 j) { return &(r.b == 'n' ? b.at(kk, j) : b.at(j, kk)); };
  const u64 short_block = k % 112 == 0 ? 112 : k % 112;
  clear_r8(c.data(), m, n, c.ld());
  const auto block = [&](u64 first, u64 last) {
    clear_r8(tile.data(), m, n, tile.ld());
    add_in_order(tile, x, first, last, m4, n4);
    for (u64 j = 0; j < n4; ++j)
      for (u64 i = 0; i < m4; ++i) c.at(i, j) += tile.at(i, j);
    for (u64 j0 = 0; j0 < n4 && m4 < m; j0 += 2000)
      r.general(a_at(m4, first), b_at(first, j0), &c.at(m4, j0), m - m4,
                std::min(n4 - j0, u64{2000}), last - first, a.ld(), b.ld(), c.ld());
  };
  block(k - short_block, k);
  for (u64 first = 0; first < k - short_block; first += 112) block(first, first + 112);
  for (u64 j = n4; j < n; ++j) {
    const double* const column = b_at(0, j);
    if (r.a == 'n' && r.b == 'n') vector_nn(a.data(), column, &c.at(0, j), m, k, a.ld());
    if (r.a == 't' && r.b == 'n') vector_tn(a.data(), column, &c.at(0, j), k, m, a.ld());
    if (r.a == 'n' && r.b == 't') vector_nt(a.data(), column, &c.at(0, j), m, k, a.ld(), b.ld());
    if (r.a == 't' && r.b == 't') vector_tt(a.data(), column, &c.at(0, j), k, m, a.ld(), b.ld());
  }
  return c;
}

// ---- Tests --------------------------------------------------------------------------------------

template <class E>
class Product : public testing::Test {};
using element_types = testing::Types<float, double, std::complex<float>, std::complex<double>>;
TYPED_TEST_SUITE(Product, element_types);

TYPED_TEST(Product, IsRightAndSummedInOrder) {
  using E = TypeParam;
  for (const shape& s : shapes()) {
    operands<E> x(s);
    reference<E> expected(x.a, x.b);
    for (const routines& r : routines_of<E>()) {
      x.store_for(r);
      const matrix<E> c = x.product(r.entry, pair_form);
      expected.compare(c, s, r);
      // The generic variant clears and accumulates; so does a blocked kernel for what is small.
      const matrix<E> generic = x.product(r.entry, generic_form);
      const matrix<E> cleared = zeros(generic);
      ASSERT_TRUE(generic.same_bits(x.accumulated(r.general, cleared, pair_form)))
          << s << r.a << r.b;
      const bool small = r.blocked == nullptr || s.m < 34 || s.k < 38 || s.n < 38;
      ASSERT_TRUE(!small || c.same_bits(generic)) << s << ' ' << r.a << r.b;
      if constexpr (std::is_same_v<E, double>) {
        ASSERT_TRUE(small || c.same_bits(blocked_model(x, r))) << s << ' ' << r.a << r.b;
      }
    }
    matrix<E> initial = x.result();
    initial.fill_randomly(7);
    expected.add_initial(initial);
    for (const routines& r : routines_of<E>()) {
      x.store_for(r);
      const matrix<E> c = x.accumulated(r.general, initial, pair_form);
      expected.compare(c, s, r);
      if constexpr (std::is_floating_point_v<E>)
        if (r.a == 'n') {
          matrix<E> in_order = initial.copy();
          add_in_order(in_order, x, 0, s.k, s.m, s.n);
          ASSERT_TRUE(c.same_bits(in_order)) << s << ' ' << r.a << r.b;
        }
    }
    if (this->HasFatalFailure()) return;
  }
}

// What is not finite in a row of A or a column of B stays in that row or column of C.
TYPED_TEST(Product, KeepsNansAndInfinitiesToTheirRowsAndColumns) {
  using E = TypeParam;
  const double infinity = std::numeric_limits<double>::infinity();
  for (const shape& s : {shape{5, 6, 7}, {39, 113, 43}, {131, 130, 9}})
    for (const auto& [row, column] :
         {std::pair{u64{0}, u64{0}}, {s.m - 1, s.n - 1}, {s.m / 2, 2}}) {
      operands<E> sound(s), x(s);
      x.a.at(row, s.k / 2) = E(static_cast<float>(infinity));
      x.b.at(s.k - 1, column) = E(std::nanf(""));
      for (const routines& r : routines_of<E>()) {
        x.store_for(r);
        sound.store_for(r);
        for (const u64 form : {generic_form, pair_form}) {
          const matrix<E> c = x.product(r.entry, form), d = sound.product(r.entry, form);
          for (u64 j = 0; j < s.n; ++j)
            for (u64 i = 0; i < s.m; ++i)
              ASSERT_TRUE(i == row || j == column ? !std::isfinite(std::abs(c.at(i, j)))
                                                  : c.at(i, j) == d.at(i, j))
                  << s << ' ' << r.a << r.b << ' ' << i << ',' << j;
        }
      }
    }
}

struct form_row {
  const char* name;
  u64 indicator;
  bool (*available)();
};
constexpr form_row forms[] = {
    {"Generic", generic_form, [] { return true; }},
    {"Sse3", 0xff, [] { return __builtin_cpu_supports("sse3") != 0; }},
    {"Avx2", 0x9d97ff,
     [] { return __builtin_cpu_supports("avx2") != 0 && __builtin_cpu_supports("fma") != 0; }},
    {"Avx512", 0x9d97ff | u64{1} << 24 | u64{1} << 27 | u64{1} << 38,
     [] {
       return __builtin_cpu_supports("avx512f") != 0 && __builtin_cpu_supports("avx512dq") != 0 &&
              __builtin_cpu_supports("avx512vl") != 0;
     }},
};
std::ostream& operator<<(std::ostream& out, const form_row& f) { return out << f.name; }

class Form : public testing::TestWithParam<form_row> {
 protected:
  template <class E>
  void expect_same_bits() {
    const u64 wide = GetParam().indicator;
    for (const shape& s : shapes()) {
      operands<E> x(s, 3);
      matrix<E> initial = x.result();
      initial.fill_randomly(5);
      for (const routines& r : routines_of<E>()) {
        x.store_for(r);
        product_fn* const f = wide == generic_form ? r.generic : r.entry;
        ASSERT_TRUE(x.product(f, wide).same_bits(x.product(f, pair_form)))
            << s << ' ' << r.a << r.b << " entry, bytes of an element: " << sizeof(E);
        ASSERT_TRUE(x.accumulated(r.general, initial, wide)
                        .same_bits(x.accumulated(r.general, initial, pair_form)))
            << s << ' ' << r.a << r.b << " general, bytes of an element: " << sizeof(E);
      }
    }
  }
};

TEST_P(Form, GivesTheBitsOfThePairForm) {
  if (!GetParam().available()) GTEST_SKIP() << "this processor lacks the instructions";
  expect_same_bits<float>();
  expect_same_bits<double>();
  expect_same_bits<std::complex<float>>();
  expect_same_bits<std::complex<double>>();
}
INSTANTIATE_TEST_SUITE_P(Wide, Form, testing::ValuesIn(forms), name_of_row);

}  // namespace
}  // namespace zorvac::test
