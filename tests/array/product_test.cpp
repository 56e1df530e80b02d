// Every exported routine that matrix products are made of, over all shapes, storages and forms: what
// it leaves is bit for bit what the model says, in a C that was full of NaNs and with nothing around
// it touched, from operands that end where memory ends.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <random>
#include <string>

#include "array/matrix.h"
#include "zorvac/cpu.h"

// What the last call of malloc asked for, what it got, until that is freed, and whether it gets any.
static std::size_t asked;
static void* block;
static bool no_memory;
extern "C" {
void* __real_malloc(std::size_t bytes);
void* __wrap_malloc(std::size_t bytes) {
  asked = bytes;
  return block = no_memory ? nullptr : __real_malloc(bytes);
}
void __real_free(void* freed);
void __wrap_free(void* freed) {
  if (freed == block) block = nullptr;
  __real_free(freed);
}
}

namespace zorvac::test {
namespace {

// ---- The model: plain loops in the orders of summation that docs/kernels.md states --------------

// Terms are added up block after block, each from zero and then added to the element, or each onto
// the element.
struct summation {
  u64 block;
  bool from_zero, last_block_first = false;
};

template <class E>
elements<E> random_elements(u64 count) {
  static std::mt19937_64 random;
  std::uniform_real_distribution<float> part(-1, 1);
  elements<E> result(count);
  for (E& x : result)
    if constexpr (std::is_floating_point_v<E>)
      x = E{part(random)} * part(random);
    else
      x = E(part(random), part(random)) * E(part(random), part(random)) / E(2);
  return result;
}

// A, B, in both of which the terms of an element of the product lie side by side, and what the
// product is added to.
template <class E>
struct problem {
  u64 m, k, n;
  elements<E> a = random_elements<E>(k * m), b = random_elements<E>(k * n);
  elements<E> onto = random_elements<E>(m * n);

  // What is not finite stays in its row or column of C, and no zero hides it. The NaN is the one
  // that processors make themselves, so that the bits of all are alike.
  void taint() {
    a[m / 2 * k + k / 2] = E(HUGE_VALF);
    b[(n - 1) * k + k / 2] = E{};
    b[n / 2 * k + k - 1] = E(-NAN);
  }
  // The product added to `c`, each element in the order that `order(i, j)` says.
  template <class Order>
  [[nodiscard]] elements<E> added(elements<E> c, const Order& order) const {
    for (u64 i = 0; i < c.size(); ++i)
      c[i] = sum(c[i], a.data() + i % m * k, b.data() + i / m * k, order(i % m, i / m));
    return c;
  }
  // Each product and each sum is rounded by itself.
  static E product(const E& x, const E& y) {
    if constexpr (std::is_floating_point_v<E>)
      return x * y;
    else
      return E(x.real() * y.real() - x.imag() * y.imag(),
               x.real() * y.imag() + x.imag() * y.real());
  }
  [[nodiscard]] E sum(E element, const E* x, const E* y, const summation& order) const {
    const u64 blocks = k == 0 ? 0 : (k - 1) / order.block + 1;
    for (u64 i = 0; i < blocks; ++i) {
      const u64 first = (order.last_block_first ? (i + blocks - 1) % blocks : i) * order.block;
      E part = order.from_zero ? E{} : element;
      for (u64 t = first; t < k && t < first + order.block; ++t) part += product(x[t], y[t]);
      element = order.from_zero ? element + part : part;
    }
    return element;
  }
};

// In any order, n terms of unit roundoff u, none above 1, give an error of n u n in each part, and
// little more (Higham, Accuracy and Stability of Numerical Algorithms, 3.1).
TEST(Model, IsNearTheProductInWiderPrecision) {
  using wide = std::complex<long double>;
  const problem<std::complex<double>> x{5, 400, 4};
  for (const summation& order : {summation{400, false}, {128, true}, {112, true, true}}) {
    const auto c = x.added(x.onto, [&](u64, u64) { return order; });
    for (u64 i = 0; i < c.size(); ++i) {
      wide error = wide(c[i]) - wide(x.onto[i]);
      for (u64 t = 0; t < 400; ++t)
        error -= wide(x.a[i % 5 * 400 + t]) * wide(x.b[i / 5 * 400 + t]);
      EXPECT_LE(std::abs(error), 2 * 0x1p-53L * 801 * 802) << i;
    }
  }
}

// ---- The routines -------------------------------------------------------------------------------

// Indicators, each with one more form of the kernels that the processor may have.
elements<u64> forms() {
  elements<u64> all{1, 0x7f, 0xff};
  if (__builtin_cpu_supports("avx2")) all.push_back(0x9d97ff);
  if (__builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl"))
    all.push_back(0x9d97ff | u64{1} << 24 | u64{1} << 27 | u64{1} << 38);
  return all;
}

// What the routine of this name makes of a matrix.
template <class E, class... Words>
void expect(const std::string& name, const matrix<E>& c, const elements<E>& expected,
            Words... words) {
  const auto routine = reinterpret_cast<void (*)(Words...)>(dlsym(RTLD_DEFAULT, name.c_str()));
  asked = 0;
  block = nullptr;
  routine(words...);
  EXPECT_EQ(block, nullptr) << name;
  EXPECT_TRUE(c.holds(expected)) << name;
}

template <class E>
elements<E> transposed(const elements<E>& from, u64 rows) {
  elements<E> to(from.size());
  for (u64 i = 0; i < from.size(); ++i) to[i % rows * (from.size() / rows) + i / rows] = from[i];
  return to;
}

// Panels of four lanes, which are rows of A or columns of B: for each k the four of them, with zeros
// up to a multiple of four terms.
elements<double> panels(const elements<double>& lanes, u64 k) {
  const u64 count = k == 0 ? 0 : lanes.size() / k / 4 * 4, padded = (k + 3) / 4 * 4;
  elements<double> p(count * padded);
  for (u64 i = 0; i < count * k; ++i) p[i / k / 4 * 4 * padded + i % k * 4 + i / k % 4] = lanes[i];
  return p;
}

// The copies of panels, and the inner kernels on them. What a kernel does not read need not be there.
void expect_packed(const problem<double>& x, const std::string& copy_a, const matrix<double>& a,
                   const std::string& copy_b, const matrix<double>& b) {
  const elements<double> a_panels = panels(x.a, x.k), b_panels = panels(x.b, x.k);
  const u64 m = x.m, k = x.k, n = x.n, padded = (k + 3) / 4 * 4;
  const matrix<double> pa(a_panels.size(), 1, 0), pb(b_panels.size(), 1, 0);
  expect(copy_a, pa, a_panels, m, k, a.data(), a.ld, pa.data());
  expect(copy_b, pb, b_panels, k, n, b.data(), b.ld, pb.data());

  if (m % 4 != 0 || n % 4 != 0 || k > 112) return;
  const auto from_zero = [](u64, u64) { return summation{112, true}; };
  const elements<double> once = x.added(elements<double>(m * n), from_zero);
  const matrix<double> c(m, n, m + 1), strip(8 * padded, 1, 0);
  expect("__zorva_dinnerz_roll_xk64w", c, once, &m, &n, &padded, pa.data(), pb.data(), nullptr,
         c.data(), &c.ld, strip.data(), nullptr);
  if (padded != 112) return;
  expect("__zorva_dinner_xk64w", c, x.added(once, from_zero), &m, &n, nullptr, pa.data(), pb.data(),
         nullptr, c.data(), &c.ld, strip.data(), nullptr);
}

// All routines of one type and storage.
template <class E>
void expect_products(const std::string& type, const problem<E>& x, bool ta, bool tb) {
  constexpr bool is_r8 = std::is_same_v<E, double>;
  const u64 m = x.m, k = x.k, n = x.n, gap = (m + n) % 4;
  const u64 lda = (ta ? k : m) + gap, ldb = (tb ? n : k) + 3 - gap, ldc = m + (gap + 2) % 4;
  const matrix<E> sa(ta ? k : m, ta ? m : k, lda, ta ? x.a : transposed(x.a, k));
  const matrix<E> sb(tb ? n : k, tb ? k : n, ldb, tb ? transposed(x.b, k) : x.b);
  const std::string a(1, "nt"[ta]), b(1, "nt"[tb]), name = type + '_' + a + '_' + b;

  const summation order{ta && !tb ? 128 : k, ta};
  const auto general = [&](u64, u64) { return order; };
  const auto by_blocks = [&](u64 i, u64 j) {
    return j < n / 4 * 4 ? summation{112, ta || i < m / 4 * 4, true} : order;
  };
  const bool packs = is_r8 && m >= 34 && k >= 38 && n >= 38;
  const elements<E> none, zeros(m * n), product = x.added(zeros, general);
  const elements<E> added = x.added(x.onto, general);
  const elements<E> blocked = packs ? x.added(zeros, by_blocks) : product;
  const u64 memory = packs ? std::min(n, u64{2000}) * 896 + 0x3f300 : 0;

  const auto check = [&](const std::string& routine, const elements<E>& before,
                         const elements<E>& expected, u64 bytes, auto... words) {
    const matrix<E> c(m, n, ldc, before);
    expect(routine, c, expected, sa.data(), sb.data(), c.data(), words...);
    EXPECT_EQ(asked, bytes) << routine;
  };
  for (const u64 indicator : forms()) {
    SCOPED_TRACE(indicator);
    __zorva_cpu_feature_indicator = indicator;
    const bool fast = indicator != 1;
    check(name, none, fast ? blocked : product, fast ? memory : 0, m, k, n, lda, ldb, ldc);
    check(name + ".A", none, product, 0, m, k, n, lda, ldb, ldc);
    check(name + "_pst_General", x.onto, added, 0, m, n, k, lda, ldb, ldc);
    if constexpr (is_r8) {
      check(name + ".J", none, blocked, memory, m, k, n, lda, ldb, ldc);
      check(name + "_XK64w", none, blocked, memory, m, n, k, lda, ldb, ldc);
      no_memory = true;
      check(name + "_XK64w", none, product, memory, m, n, k, lda, ldb, ldc);
      no_memory = false;
      const u64 rows = ta ? k : m, columns = ta ? m : k;
      if (n == 1) check("MATMUL_v_" + a + b + "_pst", none, product, 0, rows, columns, lda, ldb);
      expect_packed(x, "__zorva_dgcopya" + a + "_xk64w", sa, "__zorva_dgcopyb" + b + "_psc", sb);
    }
  }
}

template <class E>
void expect_type(const std::string& type) {
  // Thresholds, blocks and panels with their neighbours, and small ones.
  std::vector<problem<E>> shapes{
      {33, 113, 38},  {34, 37, 38},   {34, 38, 37},   {34, 38, 38},   {35, 39, 39},
      {36, 112, 40},  {37, 113, 43},  {40, 128, 41},  {47, 224, 43},  {44, 225, 45},
      {129, 129, 70}, {260, 112, 40}, {261, 113, 41}, {521, 41, 40},  {16, 337, 90},
      {20, 109, 36},  {300, 3, 90},   {3, 300, 300},  {1000, 1, 1},   {1, 1000, 1},
      {1, 1, 1000},   {130, 257, 1},  {34, 40, 2000}, {38, 39, 2001}, {36, 40, 4003}};
  for (const u64 m : {0u, 1u, 2u, 3u, 4u, 5u, 8u, 17u, 31u})
    for (const u64 n : {0u, 1u, 2u, 3u, 4u, 9u})
      for (const u64 k : {0u, 1u, 4u, 9u}) shapes.push_back({m, k, n});
  for (problem<E>& x : shapes) {
    if (x.n > 2000 && !std::is_same_v<E, double>) continue;  // panels are of the blocked kernels
    if (x.m > 2 && x.n > 2 && x.k != 0 && x.k % 3 == 0) x.taint();
    for (const bool ta : {false, true})
      for (const bool tb : {false, true}) expect_products(type, x, ta, tb);
    ASSERT_FALSE(testing::Test::HasFailure()) << x.m << " x " << x.k << " x " << x.n;
  }
  // Clearing, at any alignment, of the element too.
  for (u64 rows = 0; rows <= 35; ++rows)
    for (const u64 columns : {0u, 1u, 2u, 5u})
      for (const u64 slack : {0u, 1u, 3u, 4u, 8u, 12u}) {
        const matrix<E> c(rows, columns, rows + slack / 3, {}, slack);
        const elements<E> zeros(rows * columns);
        expect(type + "_n_n_pst_init", c, zeros, c.data(), rows, columns, c.ld);
      }
  if (forms().size() < 5) GTEST_SKIP() << "but in " << forms().size() << " forms of 5 only";
}
TEST(Product, IsSummedInTheStatedOrder_r4) { expect_type<float>("_MATMUL_r4"); }
TEST(Product, IsSummedInTheStatedOrder_r8) { expect_type<double>("_MATMUL_r8"); }
TEST(Product, IsSummedInTheStatedOrder_c4) { expect_type<std::complex<float>>("_MATMUL_c4"); }
TEST(Product, IsSummedInTheStatedOrder_c8) { expect_type<std::complex<double>>("_MATMUL_c8"); }

TEST(Product, OfNoRowsIsDoneAtOnceForAnyNumberOfColumns) {
  constexpr u64 none = 0, few = 3, many = u64{1} << 40;
  const matrix<float> nothing(none, none, none);
  for (const char* const name : {"_MATMUL_r4_n_n.A", "_MATMUL_r8_t_n.A", "_MATMUL_c8_t_t.A"})
    expect(name, nothing, {}, nullptr, nullptr, nullptr, none, few, many, few, few, few);
}

}  // namespace
}  // namespace zorvac::test
