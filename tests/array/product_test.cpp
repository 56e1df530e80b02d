// Every exported routine that matrix products are made of, over all shapes, storages and forms: what
// it leaves is bit for bit what the model says, in a C that was full of NaNs and with nothing around
// it touched, from operands that end where memory ends.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <array>
#include <string>

#include "array/matrix.h"
#include "array/model.h"
#include "zorvac/array.h"
#include "zorvac/cpu.h"

// What the last call of malloc was for, the block it gave while that is not freed, and whether there
// is any memory.
static std::size_t asked;
static void* block;
static bool no_memory;
extern "C" {
void* __real_malloc(std::size_t bytes);
void __real_free(void* freed);
void* __wrap_malloc(std::size_t bytes) {
  asked = bytes;
  return block = no_memory ? nullptr : __real_malloc(bytes);
}
void __wrap_free(void* freed) {
  if (freed == block) block = nullptr;
  __real_free(freed);
}
}

namespace zorvac::test {
namespace {

// Indicators, each with one more form of the kernels that the processor may have.
std::vector<u64> forms() {
  std::vector<u64> all{1, 0x7f, 0xff};
  if (__builtin_cpu_supports("avx2")) all.push_back(0x9d97ff);
  if (__builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl"))
    all.push_back(0x9d97ff | u64{1} << 24 | u64{1} << 27 | u64{1} << 38);
  return all;
}
TEST(Forms, AreAllTested) {
  if (forms().size() < 5) GTEST_SKIP() << "this processor has the first " << forms().size();
}

// Calls the routine of this name; tells how many bytes it allocated and freed.
template <class... Words>
std::size_t call(const std::string& name, Words... words) {
  const auto routine = reinterpret_cast<void (*)(Words...)>(dlsym(RTLD_DEFAULT, name.c_str()));
  asked = 0;
  block = nullptr;
  routine(words...);
  EXPECT_EQ(block, nullptr) << name;
  return asked;
}

template <class E>
elements<E> transposed(const elements<E>& from, u64 rows) {
  elements<E> to(from.size());
  for (u64 i = 0; i < from.size(); ++i) to[i % rows * (from.size() / rows) + i / rows] = from[i];
  return to;
}

// Panels of four lanes, which are rows of A or columns of B: for each k the four of them, with zeros
// up to a multiple of four terms.
template <class E>
elements<E> panels(const elements<E>& lanes, u64 k) {
  const u64 count = k == 0 ? 0 : lanes.size() / k / 4 * 4, padded = (k + 3) / 4 * 4;
  elements<E> p(count * padded);
  for (u64 i = 0; i < count * k; ++i) p[i / k / 4 * 4 * padded + i % k * 4 + i / k % 4] = lanes[i];
  return p;
}

void expect_panels(const std::string& copy, u64 x, u64 y, const matrix<double>& source,
                   const elements<double>& expected) {
  const matrix<double> packed(expected.size(), 1, expected.size());
  call(copy, x, y, source.data(), source.ld, packed.data());
  EXPECT_TRUE(packed.holds(expected)) << copy;
}

// An inner kernel, on packed operands. What it does not read need not be there.
void expect_tiles(const char* kernel, const problem<double>& x, const u64* terms,
                  const elements<double>& before, const elements<double>& onto) {
  const elements<double> a = panels(x.a, x.k), b = panels(x.b, x.k);
  const u64 strip_size = (x.k + 3) / 4 * 32;
  const matrix<double> pa(a.size(), 1, a.size(), a), pb(b.size(), 1, b.size(), b);
  const matrix<double> c(x.m, x.n, x.m + 1, before), strip(strip_size, 1, strip_size);
  call(kernel, &x.m, &x.n, terms, pa.data(), pb.data(), nullptr, c.data(), &c.ld, strip.data(),
       nullptr);
  for (u64 j = 0; j < x.n; ++j) settle_nans(c.data() + j * c.ld, x.m);
  EXPECT_TRUE(c.holds(x.added(onto, [](u64, u64) { return summation{112, true}; }))) << kernel;
}

// All routines of one type and storage.
template <class E>
void expect_products(const problem<E>& x, const std::string& type, bool ta, bool tb) {
  constexpr bool is_r8 = std::is_same_v<E, double>;
  const u64 m = x.m, k = x.k, n = x.n, gap = (m + n) % 4;
  const u64 lda = (ta ? k : m) + gap, ldb = (tb ? n : k) + 3 - gap, ldc = m + (gap + 2) % 4;
  const matrix<E> sa(ta ? k : m, ta ? m : k, lda, ta ? x.a : transposed(x.a, k));
  const matrix<E> sb(tb ? n : k, tb ? k : n, ldb, tb ? transposed(x.b, k) : x.b);
  const std::string a(1, "nt"[ta]), b(1, "nt"[tb]), name = type + '_' + a + '_' + b;

  const summation order{ta && !tb ? 128 : k, ta};
  const auto general = [&](u64, u64) { return order; };
  const auto by_blocks = [&](u64 i, u64 j) {
    const bool in_tiles = i < m / 4 * 4;
    return j < n / 4 * 4 ? summation{112, in_tiles || ta, true} : order;
  };
  const elements<E> none, zeros(m * n), product = x.added(zeros, general);
  const elements<E> added = x.added(x.onto, general);
  const bool packs = is_r8 && m >= 34 && k >= 38 && n >= 38;
  const elements<E> blocked = packs ? x.added(zeros, by_blocks) : product;
  const u64 memory = packs ? std::min(n, u64{2000}) * 896 + 0x3f300 : 0;
  const bool is_small = m * k * n <= 1u << 18;
  EXPECT_TRUE(!is_small || (x.is_near(added, x.onto) && x.is_near(blocked, zeros))) << name;

  const auto expect = [&](const std::string& routine, const elements<E>& before,
                          const elements<E>& expected, u64 bytes, auto... words) {
    const matrix<E> c(m, n, ldc, before);
    const std::size_t allocated = call(routine, sa.data(), sb.data(), c.data(), words...);
    for (u64 j = 0; j < n; ++j) settle_nans(c.data() + j * ldc, m);
    EXPECT_TRUE(c.holds(expected) && allocated == bytes) << routine;
  };
  for (const u64 indicator : forms()) {
    SCOPED_TRACE(indicator);
    __zorva_cpu_feature_indicator = indicator;
    const bool fast = indicator != 1;
    expect(name, none, fast ? blocked : product, fast ? memory : 0, m, k, n, lda, ldb, ldc);
    expect(name + ".A", none, product, 0, m, k, n, lda, ldb, ldc);
    expect(name + "_pst_General", x.onto, added, 0, m, n, k, lda, ldb, ldc);
    if constexpr (is_r8) {
      expect(name + ".J", none, blocked, memory, m, k, n, lda, ldb, ldc);
      expect(name + "_XK64w", none, blocked, memory, m, n, k, lda, ldb, ldc);
      no_memory = true;
      expect(name + "_XK64w", none, product, memory, m, n, k, lda, ldb, ldc);
      no_memory = false;
      const u64 rows = ta ? k : m, columns = ta ? m : k, padded = (k + 3) / 4 * 4;
      if (n == 1) expect("MATMUL_v_" + a + b + "_pst", none, product, 0, rows, columns, lda, ldb);
      if (m % 4 != 0 || n % 4 != 0 || k > 112) continue;
      expect_tiles("__zorva_dinnerz_roll_xk64w", x, &padded, none, zeros);
      if (padded == 112) expect_tiles("__zorva_dinner_xk64w", x, nullptr, x.onto, x.onto);
    }
  }
  if constexpr (is_r8) {
    expect_panels("__zorva_dgcopya" + a + "_xk64w", m, k, sa, panels(x.a, k));
    expect_panels("__zorva_dgcopyb" + b + "_psc", k, n, sb, panels(x.b, k));
  }
}

template <class E>
class Product : public testing::Test {
 protected:
  const std::string type_ = std::string(is_complex<E> ? "_MATMUL_c" : "_MATMUL_r") +
                            (sizeof(part_of<E>) == 4 ? '4' : '8');
};
using element_types = testing::Types<float, double, std::complex<float>, std::complex<double>>;
TYPED_TEST_SUITE(Product, element_types);

TYPED_TEST(Product, IsSummedInTheStatedOrderByEveryRoutine) {
  // Thresholds, blocks and panels with their neighbours, and small ones.
  std::vector<std::array<u64, 3>> shapes{
      {33, 113, 38},   {34, 37, 38},   {34, 38, 37},   {34, 38, 38},   {35, 39, 39},
      {36, 112, 40},   {37, 113, 43},  {40, 128, 41},  {47, 224, 43},  {44, 225, 45},
      {129, 129, 129}, {260, 112, 40}, {261, 113, 41}, {521, 42, 130}, {16, 337, 260},
      {20, 109, 36},   {300, 3, 300},  {3, 300, 300},  {1000, 1, 1},   {1, 1000, 1},
      {1, 1, 1000},    {130, 257, 1},  {34, 40, 2000}, {38, 39, 2001}, {36, 113, 4003}};
  for (const u64 m : {0, 1, 2, 3, 4, 5, 8, 17, 31})
    for (const u64 n : {0, 1, 2, 3, 4, 9})
      for (const u64 k : {0, 1, 4, 9}) shapes.push_back({m, k, n});
  for (const auto& [m, k, n] : shapes) {
    SCOPED_TRACE(testing::Message() << m << " x " << k << " x " << n);
    const problem<TypeParam> x(m, k, n);
    for (const bool ta : {false, true})
      for (const bool tb : {false, true}) expect_products(x, this->type_, ta, tb);
    if (this->HasFailure()) return;
  }
}

// At any alignment, of the element too.
TYPED_TEST(Product, IsClearedColumnByColumn) {
  for (u64 rows = 0; rows <= 35; ++rows)
    for (const u64 columns : {0, 1, 2, 5})
      for (const u64 gap : {0, 1, 4})
        for (const u64 slack : {0, 1, 3, 4, 8, 12}) {
          const matrix<TypeParam> c(rows, columns, rows + gap, {}, slack);
          call(this->type_ + "_n_n_pst_init", c.data(), rows, columns, c.ld);
          ASSERT_TRUE(c.holds(elements<TypeParam>(rows * columns))) << rows << ' ' << slack;
        }
}

}  // namespace
}  // namespace zorvac::test
