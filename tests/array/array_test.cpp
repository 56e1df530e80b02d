// What the array routines compute, bit for bit, amid memory that is watched: products over all
// shapes, storages and forms against plain loops in the stated orders of summation; reductions over
// all types, operators and strides against the compiler's own arithmetic.
#include "zorvac/array.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <csignal>
#include <cstring>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "support/guard_pages.h"
#include "zorvac/cpu.h"

namespace zorvac::test {

using u32 = std::uint32_t;
using u64 = std::uint64_t;
using u128 = unsigned __int128;
using quad = __float128;

// Memory for one buffer of a routine, full of NaNs, against a page that nobody may touch: what
// malloc was asked for last, whether that is still to be freed, and whether there is any.
static const guarded_block heap(2000 * 896 + 0x3f300);
static u64 asked;
static bool called, owed, no_memory;
extern "C" {
void* __real_malloc(std::size_t);
void* __wrap_malloc(std::size_t bytes) {
  if (!called) return __real_malloc(bytes);
  asked = bytes;
  owed = !no_memory;
  return owed ? std::memset(heap.end() - bytes, 0xff, bytes) : nullptr;
}
void __real_free(void*);
void __wrap_free(void* block) {
  if (!called) return __real_free(block);
  owed = owed && block != heap.end() - asked;
}
}

namespace {

// A column-major matrix, or any array, whose last element is `slack` bytes away from a guard page.
// All around its elements, and they themselves while nothing is put there, are bytes of 0xff: NaNs.
// Its elements are told column by column, without gaps.
template <class E>
struct matrix {
  matrix(u64 m, u64 n, u64 leading, const std::vector<E>& from = {}, u64 slack = 0)
      : rows(m),
        ld(leading),
        from_end(slack + (m * n == 0 ? 0 : ((n - 1) * ld + m) * sizeof(E))),
        block(from_end + 64) {
    std::memcpy(block.begin(), image(from).data(), block.size());
  }
  [[nodiscard]] E* data() const { return reinterpret_cast<E*>(block.end() - from_end); }

  // The block with these elements in it, and whether it is so, bit for bit.
  [[nodiscard]] std::string image(const std::vector<E>& elements) const {
    std::string bytes(block.size(), '\xff');
    for (u64 at = 0; at < elements.size(); at += rows)
      std::memcpy(bytes.end().base() - from_end + at / rows * ld * sizeof(E), &elements[at],
                  rows * sizeof(E));
    return bytes;
  }
  [[nodiscard]] bool holds(const std::vector<E>& elements) const {
    return std::memcmp(block.begin(), image(elements).data(), block.size()) == 0;
  }
  const u64 rows, ld, from_end;
  const guarded_block block;
};

std::mt19937_64 random_bits;

// ---- Products -----------------------------------------------------------------------------------

// The order in which the terms of an element are added up: block after block, each from zero and
// then added to the element, or each onto the element (docs/kernels.md).
struct summation {
  u64 block;
  bool from_zero, last_block_first = false;
};

// A and B, stored as they are or transposed, and what their product is added to.
template <class E>
struct problem {
  using part = decltype(std::real(E{}));
  static std::vector<E> random_elements(u64 count) {
    std::uniform_real_distribution<part> any(-1, 1);
    std::vector<E> result(count);
    auto* const parts = reinterpret_cast<part*>(result.data());
    for (u64 i = 0; i < count * sizeof(E) / sizeof(part); ++i)
      if (random_bits() % 8 != 0) parts[i] = any(random_bits);
    return result;
  }
  u64 m, k, n;
  bool ta = false, tb = false;
  std::vector<E> a = random_elements(m * k), b = random_elements(k * n);
  std::vector<E> onto = random_elements(m * n);

  [[nodiscard]] E left(u64 i, u64 t) const { return a[ta ? t + i * k : i + t * m]; }
  [[nodiscard]] E right(u64 j, u64 t) const { return b[tb ? j + t * n : t + j * k]; }

  // The product added to `c`, by a plain loop. Each product and each sum is rounded by itself.
  [[nodiscard]] std::vector<E> added(std::vector<E> c, const summation& order) const {
    using wide = std::complex<long double>;
    const u64 start = order.last_block_first ? (k - 1) / order.block * order.block : 0;
    for (u64 i = 0; i < c.size(); ++i) {
      wide error(c[i]);
      E sum = order.from_zero ? E{} : c[i];
      for (u64 nth = 0; nth < k; ++nth) {
        const u64 t = (start + nth) % k;
        const E x = left(i % m, t), y = right(i / m, t);
        if (order.from_zero && t % order.block == 0) c[i] += std::exchange(sum, E{});
        sum += x * y;
        error += wide(x) * wide(y);
      }
      c[i] = order.from_zero ? c[i] + sum : sum;
      // In any order, n terms of unit roundoff u, none above 1, give an error of n u n in each
      // part, and little more (Higham, Accuracy and Stability of Numerical Algorithms, 3.1).
      const auto n_u_n = std::pow(2.0L * k + 2, 2) * std::numeric_limits<part>::epsilon();
      EXPECT_FALSE(std::abs(error - wide(c[i])) > n_u_n);
    }
    return c;
  }
};

// What the routine of this name makes of a matrix.
template <class E, class... Words>
void expect(const std::string& name, const matrix<E>& c, const std::vector<E>& expected,
            Words... words) {
  const auto routine = reinterpret_cast<void (*)(Words...)>(dlsym(RTLD_DEFAULT, name.c_str()));
  asked = 0;
  called = true;
  routine(words...);
  called = false;
  EXPECT_TRUE(c.holds(expected) && !owed) << name;
}

// The copies of panels: for each term the elements of four rows of A or four columns of B, with
// zeros up to a multiple of four terms; and the inner kernels. What these do not read is not there.
void expect_packed(const problem<double>& x, const std::string& copy_a, const matrix<double>& a,
                   const std::string& copy_b, const matrix<double>& b) {
  const u64 m = x.m, k = x.k, n = x.n, padded = (k + 3) / 4 * 4;
  std::vector<double> packed_a(m / 4 * 4 * padded), packed_b(n / 4 * 4 * padded);
  for (u64 t = 0; t < k; ++t) {
    for (u64 i = 0; i < m / 4 * 4; ++i) packed_a[(i / 4 * padded + t) * 4 + i % 4] = x.left(i, t);
    for (u64 j = 0; j < n / 4 * 4; ++j) packed_b[(j / 4 * padded + t) * 4 + j % 4] = x.right(j, t);
  }
  const matrix<double> pa(packed_a.size(), 1, 0), pb(packed_b.size(), 1, 0);
  expect(copy_a, pa, packed_a, m, k, a.data(), a.ld, pa.data());
  expect(copy_b, pb, packed_b, k, n, b.data(), b.ld, pb.data());

  if (m % 4 != 0 || n % 4 != 0 || k > 112) return;
  const std::vector<double> once = x.added(std::vector<double>(m * n), {112, true});
  const matrix<double> c(m, n, m + 1), strip(8 * padded, 1, 0);
  expect("__zorva_dinnerz_roll_xk64w", c, once, &m, &n, &padded, pa.data(), pb.data(), nullptr,
         c.data(), &c.ld, strip.data(), nullptr);
  if (padded != 112) return;
  expect("__zorva_dinner_xk64w", c, x.added(once, {112, true}), &m, &n, nullptr, pa.data(),
         pb.data(), nullptr, c.data(), &c.ld, strip.data(), nullptr);
}

// Indicators, each with one more form of the kernels; as many of them as the processor has.
constexpr u64 forms[] = {1, 0x7f, 0xff, 0x9d97ff, 0x40'099d'97ff};
const bool has_dq_vl = __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl");
const u64 known = has_dq_vl ? 5 : __builtin_cpu_supports("avx2") ? 4 : 3;

// All routines of one type and storage.
template <class E>
void expect_products(const std::string& type, const problem<E>& x) {
  const u64 m = x.m, k = x.k, n = x.n, gap = (m + n) % 4;
  const matrix<E> sa(x.ta ? k : m, x.ta ? m : k, (x.ta ? k : m) + gap, x.a);
  const matrix<E> sb(x.tb ? n : k, x.tb ? k : n, (x.tb ? n : k) + 3 - gap, x.b);
  const std::string a(1, "nt"[x.ta]), b(1, "nt"[x.tb]), name = type + '_' + a + '_' + b;

  const summation order{x.ta && !x.tb ? 128 : k + 1, x.ta};
  const std::vector<E> zeros(m * n), product = x.added(zeros, order),
                                     added = x.added(x.onto, order);
  std::vector<E> blocked = product;
  const bool packs = std::is_same_v<E, double> && m >= 34 && k >= 38 && n >= 38;
  if (packs) {
    const auto tiles = x.added(zeros, {112, true, true}), rest = x.added(zeros, {112, x.ta, true});
    for (u64 i = 0; i < m * (n / 4 * 4); ++i) blocked[i] = (i % m < m / 4 * 4 ? tiles : rest)[i];
  }
  const auto check = [&](const std::string& routine, const std::vector<E>& before,
                         const std::vector<E>& after, u64 bytes, u64 fifth, u64 sixth) {
    const matrix<E> c(m, n, m + (gap + 2) % 4, before);
    expect(routine, c, after, sa.data(), sb.data(), c.data(), m, fifth, sixth, sa.ld, sb.ld, c.ld);
    EXPECT_EQ(asked, bytes) << routine;
  };
  for (u64 form = 0; form < known; ++form) {
    SCOPED_TRACE(form);
    __zorva_cpu_feature_indicator = forms[form];
    const u64 memory = packs && form != 0 ? std::min(n, u64{2000}) * 896 + 0x3f300 : 0;
    check(name, {}, memory != 0 ? blocked : product, memory, k, n);
    no_memory = true;
    check(name, {}, product, memory, k, n);
    no_memory = false;
    check(name + "_pst_General", x.onto, added, 0, n, k);
    if constexpr (std::is_same_v<E, double>)
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
  // clang-format off
  std::vector<problem<E>> shapes{
      {33, 113, 38}, {34, 37, 38}, {34, 38, 37}, {34, 38, 38}, {36, 112, 40}, {37, 113, 43},
      {47, 224, 43}, {44, 225, 45}, {129, 129, 70}, {260, 112, 40}, {261, 113, 41}, {521, 38, 40},
      {16, 337, 90}, {20, 109, 72}, {300, 3, 90}, {3, 300, 300}, {1000, 1, 1}, {1, 1000, 1},
      {1, 1, 1000}, {130, 257, 1}, {34, 38, 2000}, {35, 39, 2001}, {36, 40, 2006}};
  // clang-format on
  for (const u64 m : {0u, 1u, 2u, 3u, 4u, 5u, 8u, 11u, 17u, 22u, 31u})
    for (const u64 n : {0u, 1u, 2u, 3u, 4u, 9u})
      for (const u64 k : {0u, 1u, 4u, 9u}) shapes.push_back({m, k, n});
  for (problem<E>& x : shapes) {
    if (x.n >= 2000 && !std::is_same_v<E, double>) continue;  // panels are of the blocked kernels
    // What is not finite stays in its row or column of C, and no zero hides it. The NaN is the one
    // that processors make themselves, so that the bits of all are alike.
    if (x.m > 2 && x.n > 2 && x.k != 0 && x.k % 3 == 0) {
      x.a[x.a.size() / 2] = E(HUGE_VALF);
      x.b[x.b.size() / 3] = E(-NAN);
    }
    for (const u32 storage : {0u, 1u, 2u, 3u}) {
      x.ta = storage / 2 != 0;
      x.tb = storage % 2 != 0;
      expect_products(type, x);
    }
    ASSERT_FALSE(testing::Test::HasFailure()) << x.m << " x " << x.k << " x " << x.n;
  }
  if (known < std::size(forms)) GTEST_SKIP() << "but in " << known << " forms only";
}
TEST(Product, IsSummedInTheStatedOrder_r4) { expect_type<float>("_MATMUL_r4"); }
TEST(Product, IsSummedInTheStatedOrder_r8) { expect_type<double>("_MATMUL_r8"); }
TEST(Product, IsSummedInTheStatedOrder_c4) { expect_type<std::complex<float>>("_MATMUL_c4"); }
TEST(Product, IsSummedInTheStatedOrder_c8) { expect_type<std::complex<double>>("_MATMUL_c8"); }

TEST(Product, OfNoRowsIsDoneAtOnceForAnyNumberOfColumns) {
  for (const char* const name : {"_MATMUL_r4_n_n.A", "_MATMUL_r8_t_n.A", "_MATMUL_c8_t_t.A"})
    expect<float>(name, {0, 0, 0}, {}, nullptr, nullptr, nullptr, 0L, 3L, 1L << 40, 3L, 3L, 3L);
}

// ---- Reductions ---------------------------------------------------------------------------------

// What an operator starts from and what it makes of t and p.
template <class T, class Wide = std::conditional_t<std::is_integral_v<T>, u128, T>>
std::pair<T, T> stated(u32 op, T t, T p) {
  constexpr bool is_integer = std::is_integral_v<T>, is_quad = std::is_same_v<T, quad>;
  T least = std::numeric_limits<T>::lowest(), greatest = std::numeric_limits<T>::max();
  if constexpr (is_quad) least = -(greatest = 0x1p16383L * (2 - quad{0x1p-112L}));
  // Of two zeros p; where they are not ordered p, too, but of quads t.
  const bool keeps = is_quad && !(t <= p) && !(t >= p);
  const T larger = t > p || keeps ? t : p, smaller = t < p || keeps ? t : p;
  const auto a = Wide(t), b = Wide(p);
  const u128 x = is_integer ? u128(t) : 0, y = is_integer ? u128(p) : 0;
  // clang-format off
  const std::pair<T, T> operators[] = {
      {}, {0, T(a + b)}, {1, T(a * b)}, {0, T(a - b)}, {least, larger}, {greatest, smaller},
      {1, T(x & y)}, {0, T(x | y)}, {T(-1), T(x & y)}, {0, T(x | y)}, {0, T(x ^ y)}, {0, T(x ^ y)},
      {1, T(t == p)}, {0, T(t != p)}};
  // clang-format on
  return operators[op];
}

// Part i of the complex product that each type has for its own.
template <class T>
T part_of_product(u32 type, const std::vector<T>& t, const std::vector<T>& p, u64 i) {
  const T re = (type == 21 ? p : t)[i & ~u64{1}], im = (type == 20 ? t : p)[i | 1];
  const T straight = re * p[i], crossed = im * p[i ^ 1];  // each rounded
  return i % 2 == 0 ? straight - crossed : straight + crossed;
}

// Random values, and some that operators treat apart.
template <class T>
std::vector<T> operands(u64 count, u32 op) {
  const double list[] = {0, 1, -1, -0.0, NAN, -NAN, HUGE_VAL, -HUGE_VAL, 1e-310};
  std::vector<T> result(count);
  for (T& x : result) {
    x = static_cast<T>(static_cast<std::int64_t>(random_bits()));
    const double special = list[random_bits() % (std::is_integral_v<T> || op < 4 ? 3 : 9)];
    if (random_bits() % 2 == 0) x = static_cast<T>(special);
  }
  return result;
}

// Folds a partial array into a target, by steps of 1 where the stride is not to count, and
// initialises the target.
template <class T>
void check(u32 type, u32 op, u64 count, std::int32_t stride) {
  const bool is_complex = type >= 20, is_product = is_complex && op == 2;
  const u64 parts = is_complex ? 2 * count : count;
  const std::int32_t strided = stride != 7, step = is_product || !strided ? 1 : stride;
  const std::vector<T> t = operands<T>(parts, op), p = operands<T>(parts, op);
  const matrix<T> target(parts, 1, parts, t, random_bits() % 18);
  const matrix<T> partial(1, parts, static_cast<u64>(std::abs(step)), p, random_bits() % 18);

  std::vector<T> expected(parts), filled(parts);
  for (u64 i = 0; i < parts; ++i) {
    const u64 met = step > 0 ? i : parts - 1 - (step < 0 ? i : 0);
    const auto [start, result] = stated(op, t[i], p[met]);
    expected[i] = is_product ? part_of_product(type, t, p, i) : result;
    filled[i] = is_complex && i % 2 != 0 ? T{} : start;
  }
  const T* const first = partial.data() + (step < 0 && parts != 0 ? (parts - 1) * partial.ld : 0);
  __zorva_simd_reduction_final_array(target.data(), first, count, stride, strided, op, type);
  EXPECT_TRUE(target.holds(expected) && partial.holds(p));
  __zorva_reduction_init_array(target.data(), count, op, type);
  EXPECT_TRUE(target.holds(filled));
}

// By their codes the types: how many of the operators they take, and their check.
// clang-format off
const std::map<u32, std::pair<u32, void (*)(u32, u32, u64, std::int32_t)>> types{
    {1, {13, check<std::uint8_t>}}, {2, {13, check<std::int8_t>}}, {3, {13, check<std::uint16_t>}},
    {4, {13, check<std::int16_t>}}, {5, {13, check<std::uint32_t>}}, {9, {5, check<float>}},
    {6, {13, check<std::int32_t>}}, {7, {13, check<std::uint64_t>}}, {10, {5, check<double>}},
    {8, {13, check<std::int64_t>}}, {13, {5, check<quad>}}, {20, {3, check<float>}},
    {21, {3, check<double>}}, {23, {3, check<quad>}}};
// clang-format on

TEST(Reduction, CombinesAndInitialises) {
  for (const auto& [type, row] : types)
    for (u32 op = 1; op <= row.first; ++op)
      for (u64 count = 0; count <= 40; ++count)
        for (const int stride : {-3, -1, 0, 1, 2, 3, 7}) {
          row.second(type, op, count, stride);
          ASSERT_FALSE(HasFailure()) << type << ' ' << op << ' ' << count << ' ' << stride;
        }
}

// Codes that are not accepted end the process, whatever the count, without a message; but folds of
// integers do nothing, and operator 0 fills unsigned bytes with the count.
TEST(Reduction, JudgesItsCodes) {
  const matrix<unsigned char> memory(0x1fe, 1, 0x1fe);
  const auto t = memory.data();
  const auto is = [](int how) { return [how](int status) { return (status & ~0x80) == how; }; };
  for (u32 i = 0; i < 36; ++i)
    for (const u32 op : {0u, 1u, 4u, 6u, 14u, ~0u}) {
      const u32 type = i < 32 ? i : i << 26 | 6, count = op == 0 ? 0x1fe : i % 2;
      const u32 operators = types.contains(type) ? types.at(type).first : 0;
      if (op != 0 && op <= operators) continue;
      SCOPED_TRACE(testing::Message() << type << ' ' << op);
      EXPECT_EXIT((__zorva_reduction_init_array(t, count, op, type), _exit(*t)),
                  is(type == 1 && op == 0 ? 0xfe00 : SIGABRT), testing::Eq(""));
      EXPECT_EXIT(
          (__zorva_simd_reduction_final_array(t, "1234567", i % 2, 1, 1, op, type), _exit(*t)),
          is(operators == 13 ? 0xff00 : SIGABRT), testing::Eq(""));
    }
}

}  // namespace
}  // namespace zorvac::test
