// Products of all types and storages in every form: bit for bit those of the model, which are within
// the bound on the error of any order of summation.
#include <gtest/gtest.h>

#include <cmath>

#include "array/matrix.h"
#include "zorvac/cpu.h"

namespace zorvac::test {
namespace {

// Small ones, and the thresholds, blocks and panels with their neighbours.
std::vector<shape> shapes() {
  std::vector<shape> all{
      {33, 260, 40},  {34, 37, 38},    {34, 260, 37},   {34, 38, 38},    {35, 39, 39},
      {36, 40, 40},   {37, 41, 41},    {40, 112, 40},   {41, 113, 42},   {64, 111, 39},
      {47, 224, 43},  {44, 225, 45},   {127, 127, 127}, {128, 128, 128}, {129, 129, 129},
      {260, 112, 40}, {261, 113, 41},  {262, 337, 46},  {521, 42, 130},  {34, 40, 2000},
      {38, 39, 2001}, {36, 113, 2006}, {37, 38, 4003},  {300, 3, 300},   {3, 300, 300},
      {300, 300, 3},  {1000, 1, 1},    {1, 1000, 1},    {1, 1, 1000},    {257, 260, 33},
  };
  for (const u64 m : {0u, 1u, 2u, 3u, 4u, 5u, 8u, 9u, 17u})
    for (const u64 n : {0u, 1u, 2u, 3u, 4u, 5u, 8u, 9u, 17u})
      for (const u64 k : {0u, 1u, 3u, 4u, 9u}) all.push_back({m, k, n});
  return all;
}

// Products in wider precision: n terms of unit roundoff u give an error of n u times the sum of the
// magnitudes, and little more (Higham, Accuracy and Stability of Numerical Algorithms, 3.1).
template <class E>
class reference {
  using part = part_of<E>;
  using wide = std::conditional_t<sizeof(part) == 4, double, long double>;

 public:
  reference(const operands<E>& x, bool wanted)
      : s_(wanted ? x.s : shape{0, 0, 0}), sums_(s_.m * s_.n * parts<E>) {
    for (u64 i = 0; i < sums_.size(); ++i) {
      const u64 p = i % parts<E>, element = i / parts<E>;
      const u64 row = element % s_.m * s_.k, column = element / s_.m * s_.k;
      for (u64 k = 0; k < s_.k; ++k)
        for (u64 q = 0; q < parts<E>; ++q) {  // imaginary times imaginary is negative
          const wide term =
              at(x.a, (row + k) * parts<E> + q) * at(x.b, (column + k) * parts<E> + (p ^ q));
          sums_[i].first += q > p ? -term : term;
          sums_[i].second += std::abs(term);
        }
    }
  }
  // Whether `c` is as near to the product and `onto` as any order of summation comes.
  void expect_near(const elements<E>& c, const elements<E>& onto) const {
    for (u64 i = 0; i < sums_.size(); ++i) {
      const auto& [sum, magnitude] = sums_[i];
      const wide before = at(onto, i), unit = sizeof(part) == 4 ? 0x1p-24 : 0x1p-53;
      const auto terms = static_cast<wide>(s_.k * parts<E> + (before != 0 ? 1 : 0));
      ASSERT_LE(std::abs(at(c, i) - before - sum),
                (terms + 1) * unit * (magnitude + std::abs(before)))
          << s_ << i;
    }
  }

 private:
  static wide at(const elements<E>& from, u64 i) {
    return reinterpret_cast<const part*>(from.data())[i];
  }
  shape s_;
  std::vector<std::pair<wide, wide>> sums_;  // and sums of magnitudes
};

template <class E>
class Product : public testing::Test {};
using element_types = testing::Types<float, double, std::complex<float>, std::complex<double>>;
TYPED_TEST_SUITE(Product, element_types);

TYPED_TEST(Product, IsRightAndSummedInOrderInEveryForm) {
  using E = TypeParam;
  for (const shape& s : shapes()) {
    if (s.n > 2000 && !std::is_same_v<E, double>) continue;  // panels are of the blocked kernels
    operands<E> x(s);
    const reference<E> right(x, s.m * s.k * s.n <= 1u << 21);  // of larger ones the bits will do
    const elements<E> zeros(s.m * s.n), initial = random_elements<E>(s.m * s.n, 7);
    for (const routines& r : routines_of<E>) {
      x.store_for(r);
      const elements<E> product = x.added_to(zeros, r), added = x.added_to(initial, r);
      const bool by_blocks = r.blocked != nullptr && s.is_blocked();
      const elements<E> blocked = by_blocks ? x.blocked_product(r) : product;
      right.expect_near(blocked, zeros);
      right.expect_near(added, initial);
      if (this->HasFatalFailure()) return;
      for (const form& f : forms) {
        if (!f.available()) continue;
        SCOPED_TRACE(testing::Message() << s << r.a << '_' << r.b << ' ' << f.name);
        __zorva_cpu_feature_indicator = f.indicator;
        ASSERT_TRUE(x.run_entry(r.entry).holds(f.indicator == generic_form ? product : blocked));
        ASSERT_TRUE(x.run_kernel(r.general, x.result(initial)).holds(added));
      }
    }
  }
}

TEST(Forms, AreTestedWhereTheProcessorHasThem) {
  for (const form& f : forms)
    if (!f.available()) GTEST_SKIP() << "this processor lacks the instructions of " << f.name;
}

// What is not finite in a row of A or a column of B stays in that row or column of C.
TYPED_TEST(Product, KeepsNansAndInfinitiesToTheirRowsAndColumns) {
  using E = TypeParam;
  for (const shape& s : {shape{5, 6, 7}, {39, 113, 43}, {131, 130, 9}})
    for (const auto& [row, column] :
         {std::pair{u64{0}, u64{0}}, {s.m - 1, s.n - 1}, {s.m / 2, 2}}) {
      operands<E> sound(s), x(s);
      for (auto* const o : {&sound, &x}) std::fill_n(&o->b[(s.n - 1) * s.k], s.k, E{});
      x.a[row * s.k + s.k / 2] = E(std::numeric_limits<float>::infinity());
      x.b[column * s.k + s.k - 1] = E(std::nanf(""));
      for (const routines& r : routines_of<E>) {
        x.store_for(r);
        sound.store_for(r);
        for (const form& f : forms) {
          if (!f.available()) continue;
          __zorva_cpu_feature_indicator = f.indicator;
          const matrix<E> c = x.run_entry(r.entry), d = sound.run_entry(r.entry);
          for (u64 j = 0; j < s.n; ++j)
            for (u64 i = 0; i < s.m; ++i)
              ASSERT_TRUE(i == row || j == column ? !std::isfinite(std::abs(c.at(i, j)))
                                                  : c.at(i, j) == d.at(i, j))
                  << s << r.a << r.b << ' ' << f.name << ' ' << i << ',' << j;
        }
      }
    }
}

}  // namespace
}  // namespace zorvac::test
