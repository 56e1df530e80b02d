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

namespace zorvac::test {

// Memory for one buffer, full of NaNs, and against a page that nobody may touch. What malloc was
// asked for last, whether that is still to be freed, and whether there is any.
static const guarded_block heap(2000 * 896 + 0x3f300);
static u64 asked;
static bool owed, no_memory;
extern "C" void* __wrap_malloc(std::size_t bytes) {
  asked = bytes;
  owed = !no_memory;
  return owed ? std::memset(heap.end() - bytes, 0xff, bytes) : nullptr;
}
extern "C" void __wrap_free(void* block) { owed = owed && block != heap.end() - asked; }

namespace {

// ---- The model: plain loops in the orders of summation that docs/kernels.md states --------------

// Terms are added up block after block, each from zero and then added to the element, or each onto
// the element.
struct summation {
  u64 block;
  bool from_zero, last_block_first = false;
};

template <class E>
using part = decltype(std::real(E{}));

template <class E>
std::vector<E> random_elements(u64 count) {
  static std::mt19937_64 random;
  std::uniform_real_distribution<part<E>> any(-1, 1);
  std::vector<E> result(count);
  auto* const parts = reinterpret_cast<part<E>*>(result.data());
  std::generate_n(parts, count * sizeof(E) / sizeof(part<E>), [&] { return any(random); });
  return result;
}

// A, B, in both of which the terms of an element of the product lie side by side, and what the
// product is added to.
template <class E>
struct problem {
  u64 m, k, n;
  std::vector<E> a = random_elements<E>(k * m), b = random_elements<E>(k * n);
  std::vector<E> onto = random_elements<E>(m * n);

  // What is not finite stays in its row or column of C, and no zero hides it. The NaN is the one
  // that processors make themselves, so that the bits of all are alike.
  void taint() {
    a[m / 2 * k + k / 2] = E(HUGE_VALF);
    b[(n - 1) * k + k / 2] = E{};
    b[n / 2 * k + k - 1] = E(-NAN);
  }

  // The product added to `c`, each element in the order that `order(i, j)` says. Each product and
  // each sum is rounded by itself.
  template <class Order>
  [[nodiscard]] std::vector<E> added(std::vector<E> c, const Order& order) const {
    using wide = std::complex<long double>;
    for (u64 i = 0; i < c.size(); ++i) {
      const E *const x = a.data() + i % m * k, *const y = b.data() + i / m * k;
      const summation s = order(i % m, i / m);
      const u64 blocks = (k + s.block - 1) / s.block;
      wide error(c[i]);
      for (u64 n_th = 0; n_th < blocks; ++n_th) {
        const u64 first = (s.last_block_first ? n_th + blocks - 1 : n_th) % blocks * s.block;
        E sum = s.from_zero ? E{} : c[i];
        for (u64 t = first; t < k && t < first + s.block; ++t) {
          sum += x[t] * y[t];
          error += wide(x[t]) * wide(y[t]);
        }
        c[i] = s.from_zero ? c[i] + sum : sum;
      }
      // In any order, n terms of unit roundoff u, none above 1, give an error of n u n in each part,
      // and little more (Higham, Accuracy and Stability of Numerical Algorithms, 3.1).
      const auto terms = static_cast<long double>(2 * k + 2);
      EXPECT_FALSE(std::abs(error - wide(c[i])) >
                   terms * terms * std::numeric_limits<part<E>>::epsilon());
    }
    return c;
  }
};

// ---- The routines -------------------------------------------------------------------------------

// What the routine of this name makes of a matrix.
template <class E, class... Words>
void expect(const std::string& name, const matrix<E>& c, const std::vector<E>& expected,
            Words... words) {
  const auto routine = reinterpret_cast<void (*)(Words...)>(dlsym(RTLD_DEFAULT, name.c_str()));
  asked = 0;
  routine(words...);
  EXPECT_TRUE(c.holds(expected) && !owed) << name;
}

template <class E>
std::vector<E> transposed(const std::vector<E>& from, u64 rows) {
  std::vector<E> to(from.size());
  for (u64 i = 0; i < from.size(); ++i) to[i % rows * (from.size() / rows) + i / rows] = from[i];
  return to;
}

// Panels of four lanes, which are rows of A or columns of B: for each k the four of them, with zeros
// up to a multiple of four terms.
std::vector<double> panels(const std::vector<double>& lanes, u64 k) {
  const u64 count = k == 0 ? 0 : lanes.size() / k / 4 * 4, padded = (k + 3) / 4 * 4;
  std::vector<double> p(count * padded);
  for (u64 i = 0; i < count * k; ++i) p[i / k / 4 * 4 * padded + i % k * 4 + i / k % 4] = lanes[i];
  return p;
}

// The copies of panels, and the inner kernels on them. What a kernel does not read need not be there.
void expect_packed(const problem<double>& x, const std::string& copy_a, const matrix<double>& a,
                   const std::string& copy_b, const matrix<double>& b) {
  const std::vector<double> a_panels = panels(x.a, x.k), b_panels = panels(x.b, x.k);
  const u64 m = x.m, k = x.k, n = x.n, padded = (k + 3) / 4 * 4;
  const matrix<double> pa(a_panels.size(), 1, 0), pb(b_panels.size(), 1, 0);
  expect(copy_a, pa, a_panels, m, k, a.data(), a.ld, pa.data());
  expect(copy_b, pb, b_panels, k, n, b.data(), b.ld, pb.data());

  if (m % 4 != 0 || n % 4 != 0 || k > 112) return;
  const auto from_zero = [](u64, u64) { return summation{112, true}; };
  const std::vector<double> once = x.added(std::vector<double>(m * n), from_zero);
  const matrix<double> c(m, n, m + 1), strip(8 * padded, 1, 0);
  expect("__zorva_dinnerz_roll_xk64w", c, once, &m, &n, &padded, pa.data(), pb.data(), nullptr,
         c.data(), &c.ld, strip.data(), nullptr);
  if (padded != 112) return;
  expect("__zorva_dinner_xk64w", c, x.added(once, from_zero), &m, &n, nullptr, pa.data(), pb.data(),
         nullptr, c.data(), &c.ld, strip.data(), nullptr);
}

// Indicators, each with one more form of the kernels than the one before; the processor has `known`.
constexpr u64 forms[] = {1, 0x7f, 0xff, 0x9d97ff, 0x40'099d'97ff};
const u64 known =
    __builtin_cpu_supports("avx2") == 0                                                  ? 3
    : __builtin_cpu_supports("avx512dq") == 0 || __builtin_cpu_supports("avx512vl") == 0 ? 4
                                                                                         : 5;

// All routines of one type and storage.
template <class E>
void expect_products(const std::string& type, const problem<E>& x, bool ta, bool tb) {
  constexpr bool is_r8 = std::is_same_v<E, double>;
  const u64 m = x.m, k = x.k, n = x.n, gap = (m + n) % 4;
  const matrix<E> sa(ta ? k : m, ta ? m : k, (ta ? k : m) + gap, ta ? x.a : transposed(x.a, k));
  const matrix<E> sb(tb ? n : k, tb ? k : n, (tb ? n : k) + 3 - gap, tb ? transposed(x.b, k) : x.b);
  const std::string a(1, "nt"[ta]), b(1, "nt"[tb]), name = type + '_' + a + '_' + b;

  const summation order{ta && !tb ? 128 : k + 1, ta};
  const auto general = [&](u64, u64) { return order; };
  const auto by_blocks = [&](u64 i, u64 j) {
    return j < n / 4 * 4 ? summation{112, ta || i < m / 4 * 4, true} : order;
  };
  const bool packs = is_r8 && m >= 34 && k >= 38 && n >= 38;
  const std::vector<E> zeros(m * n), product = x.added(zeros, general);
  const std::vector<E> blocked = packs ? x.added(zeros, by_blocks) : product;
  const std::vector<E> added = x.added(x.onto, general);

  const auto check = [&](const std::string& routine, const std::vector<E>& before,
                         const std::vector<E>& expected, u64 bytes, u64 second, u64 third) {
    const matrix<E> c(m, n, m + (gap + 2) % 4, before);
    expect(routine, c, expected, sa.data(), sb.data(), c.data(), m, second, third, sa.ld, sb.ld,
           c.ld);
    EXPECT_EQ(asked, bytes) << routine;
  };
  for (u64 form = 0; form < known; ++form) {
    SCOPED_TRACE(form);
    __zorva_cpu_feature_indicator = forms[form];
    const u64 memory = packs && form != 0 ? std::min(n, u64{2000}) * 896 + 0x3f300 : 0;
    check(name, {}, form != 0 ? blocked : product, memory, k, n);
    no_memory = true;
    check(name, {}, product, memory, k, n);
    no_memory = false;
    check(name + "_pst_General", x.onto, added, 0, n, k);
    if constexpr (is_r8)
      expect_packed(x, "__zorva_dgcopya" + a + "_xk64w", sa, "__zorva_dgcopyb" + b + "_psc", sb);
  }
  // Clearing, at any alignment, of the element too.
  for (const u64 slack : {0u, 1u, 3u, 4u, 8u, 12u}) {
    const matrix<E> c(m, n, m + slack / 3, {}, slack);
    expect(type + "_n_n_pst_init", c, zeros, c.data(), m, n, c.ld);
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
  for (const u64 m : {0u, 1u, 2u, 3u, 4u, 5u, 8u, 11u, 17u, 22u, 31u})
    for (const u64 n : {0u, 1u, 2u, 3u, 4u, 9u})
      for (const u64 k : {0u, 1u, 4u, 9u}) shapes.push_back({m, k, n});
  for (problem<E>& x : shapes) {
    if (x.n > 2000 && !std::is_same_v<E, double>) continue;  // panels are of the blocked kernels
    if (x.m > 2 && x.n > 2 && x.k != 0 && x.k % 3 == 0) x.taint();
    for (const bool ta : {false, true})
      for (const bool tb : {false, true}) expect_products(type, x, ta, tb);
    ASSERT_FALSE(testing::Test::HasFailure()) << x.m << " x " << x.k << " x " << x.n;
  }
  if (known < std::size(forms)) GTEST_SKIP() << "but in " << known << " forms only";
}
TEST(Product, IsSummedInTheStatedOrder_r4) { expect_type<float>("_MATMUL_r4"); }
TEST(Product, IsSummedInTheStatedOrder_r8) { expect_type<double>("_MATMUL_r8"); }
TEST(Product, IsSummedInTheStatedOrder_c4) { expect_type<std::complex<float>>("_MATMUL_c4"); }
TEST(Product, IsSummedInTheStatedOrder_c8) { expect_type<std::complex<double>>("_MATMUL_c8"); }

TEST(Product, OfNoRowsIsDoneAtOnceForAnyNumberOfColumns) {
  const u64 none = 0, few = 3, many = u64{1} << 40;
  for (const char* const name : {"_MATMUL_r4_n_n.A", "_MATMUL_r8_t_n.A", "_MATMUL_c8_t_t.A"})
    expect<float>(name, {0, 0, 0}, {}, nullptr, nullptr, nullptr, none, few, many, few, few, few);
}

}  // namespace
}  // namespace zorvac::test
