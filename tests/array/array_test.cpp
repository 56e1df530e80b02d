// Compares what the array routines compute, bit for bit, and watches the memory around it: products
// in many shapes, all storages and all forms with plain loops in the stated order of summation;
// reductions of all types, operators and strides with the compiler's own arithmetic.
#include "zorvac/array.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cfenv>
#include <cmath>
#include <complex>
#include <csignal>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "support/bytes.h"
#include "support/guard_pages.h"
#include "support/masks.h"
#include "zorvac/cpu.h"

namespace zorvac::test {

using u32 = std::uint32_t;
using u64 = std::uint64_t;
using u128 = unsigned __int128;

// While a routine runs, malloc gives one buffer, which is full of NaNs and ends at a page that must
// not be touched, or no memory at all.
static const guarded_block heap(2000 * 896 + 0x3f300);
static struct {
  bool in_routine, no_memory, owed;  // owed: the buffer is not freed yet
  u64 asked;                         // bytes of the last request
} allocation;
extern "C" {
void* __real_malloc(std::size_t);
void* __wrap_malloc(std::size_t bytes) {
  if (!allocation.in_routine) return __real_malloc(bytes);
  allocation.asked = bytes;
  if (allocation.no_memory) return nullptr;
  allocation.owed = true;
  return std::memset(heap.end() - bytes, 0xff, bytes);
}
void __real_free(void*);
void __wrap_free(void* block) {
  if (!allocation.in_routine) return __real_free(block);
  if (block == heap.end() - allocation.asked) allocation.owed = false;
}
}

namespace {

// A column-major matrix, or any array, whose last element is `slack` bytes before a guard page. All
// bytes around its elements, and the elements before they are set, are 0xff: NaNs. Its elements are
// given column by column, without gaps.
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

  // Expects these elements, bit for bit, and nothing written around and between them.
  void expect(const std::vector<E>& expected, const std::string& of) const {
    const std::string all = image(expected);
    if (std::memcmp(block.begin(), all.data(), all.size()) == 0) return;
    std::vector<E> elements(expected.size());
    for (u64 i = 0; i < elements.size(); ++i)
      std::memcpy(&elements[i], block.begin() + place(i), sizeof(E));
    EXPECT_MATRIX(elements, expected, rows) << of;
    const bytes memory(block.begin(), block.size(), block.size() - from_end);
    EXPECT_BYTES(memory, image(elements)) << of << ": around or between the elements";
  }
  // The offset of an element in bytes.
  [[nodiscard]] u64 place(u64 element) const {
    return block.size() - from_end + (element / rows * ld + element % rows) * sizeof(E);
  }
  // The block with these elements in it.
  [[nodiscard]] std::string image(const std::vector<E>& elements) const {
    std::string memory(block.size(), '\xff');
    for (u64 at = 0; at < elements.size(); at += rows)
      std::memcpy(&memory[place(at)], &elements[at], rows * sizeof(E));
    return memory;
  }
  const u64 rows, ld, from_end;  // from_end in bytes
  const guarded_block block;
};

std::mt19937_64 random_bits;

// ---- Products -----------------------------------------------------------------------------------

// The order in which the terms of an element are added (docs/kernels.md): block after block. The
// sum of a block starts from zero and is then added to the element, or starts from the element.
struct summation {
  u64 block;
  bool from_zero, last_block_first = false;
  bool adds_negative = false;  // in complex products
};

// A and B, stored as used or transposed, and the matrix that their product is added to.
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

  // Each product and each sum is rounded by itself. For a complex product, the form for plain
  // x86-64 adds the negated term, and the others subtract it. Rounding up or down shows the
  // difference.
  static E multiply(E x, E y, bool adds_negative) {
    if constexpr (std::is_same_v<E, part>) {
      return x * y;
    } else {
      const part straight = x.real() * y.real();
      const part crossed = (adds_negative ? -x.imag() : x.imag()) * y.imag();
      return {adds_negative ? straight + crossed : straight - crossed,
              x.imag() * y.real() + x.real() * y.imag()};
    }
  }

  // The product added to `c`, by a plain loop.
  [[nodiscard]] std::vector<E> added(std::vector<E> c, const summation& order) const {
    const u64 start = order.last_block_first ? (k - 1) / order.block * order.block : 0;
    for (u64 i = 0; i < c.size(); ++i) {
      E sum = order.from_zero ? E{} : c[i];
      for (u64 nth = 0; nth < k; ++nth) {
        const u64 t = (start + nth) % k;
        if (order.from_zero && t % order.block == 0) c[i] += std::exchange(sum, E{});
        sum += multiply(left(i % m, t), right(i / m, t), order.adds_negative);
      }
      c[i] = order.from_zero ? c[i] + sum : sum;
    }
    return c;
  }
};

// Calls the routine of this name and compares the matrix that it writes.
template <class E, class... Words>
void expect(const std::string& name, const matrix<E>& c, const std::vector<E>& expected,
            Words... words) {
  const auto routine = reinterpret_cast<void (*)(Words...)>(dlsym(RTLD_DEFAULT, name.c_str()));
  allocation.asked = 0;
  allocation.in_routine = true;
  routine(words...);
  allocation.in_routine = false;
  c.expect(expected, name);
  EXPECT_FALSE(allocation.owed) << name << " does not free its buffer";
}

// The routines that pack panels (for each term the elements of four rows of A or four columns of B,
// with zeros up to a multiple of four terms) and the inner kernels. Arguments that the kernels must
// not read are null.
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

// Indicators, each of which allows one more form of the kernels, and how many this processor has.
constexpr u64 forms[] = {level::generic, level::sse2, level::sse3, level::avx2,
                         level::avx512_dq_vl};
const bool has_dq_vl = __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl");
const u64 known = u64{3} + (__builtin_cpu_supports("avx2") != 0) + has_dq_vl;

// All routines of one type and storage.
template <class E>
void expect_products(const std::string& type, const problem<E>& x) {
  const u64 m = x.m, k = x.k, n = x.n, gap = (m + n) % 4;
  const matrix<E> sa(x.ta ? k : m, x.ta ? m : k, (x.ta ? k : m) + gap, x.a);
  const matrix<E> sb(x.tb ? n : k, x.tb ? k : n, (x.tb ? n : k) + 3 - gap, x.b);
  const std::string a(1, "nt"[x.ta]), b(1, "nt"[x.tb]), name = type + '_' + a + '_' + b;

  const std::vector<E> zeros(m * n);
  struct {
    std::vector<E> product, added;
  } sums[2];  // the second one is for the form that adds the negated term
  for (const bool adds_negative : {false, true}) {
    const summation order{x.ta && !x.tb ? 128 : k + 1, x.ta, false, adds_negative};
    sums[adds_negative] = {x.added(zeros, order), x.added(x.onto, order)};
  }
  std::vector<E> blocked = sums[0].product;
  const bool packs = std::is_same_v<E, double> && m >= 34 && k >= 38 && n >= 38;
  if (packs) {
    const auto tiles = x.added(zeros, {112, true, true}), rest = x.added(zeros, {112, x.ta, true});
    for (u64 i = 0; i < m * (n / 4 * 4); ++i) blocked[i] = (i % m < m / 4 * 4 ? tiles : rest)[i];
  }
  const auto check = [&](const std::string& routine, const std::vector<E>& before,
                         const std::vector<E>& after, u64 bytes, u64 fifth, u64 sixth) {
    const matrix<E> c(m, n, m + (gap + 2) % 4, before);
    expect(routine, c, after, sa.data(), sb.data(), c.data(), m, fifth, sixth, sa.ld, sb.ld, c.ld);
    EXPECT_EQ(allocation.asked, bytes) << routine << " asks for memory";
  };
  for (u64 i = 0; i < known; ++i) {
    SCOPED_TRACE(testing::Message() << "indicator 0x" << std::hex << forms[i]);
    __zorva_cpu_feature_indicator = forms[i];
    const auto& [product, added] = sums[forms[i] <= level::sse2];
    const bool blocks = packs && forms[i] != level::generic;
    const u64 memory = blocks ? std::min(n, u64{2000}) * 896 + 0x3f300 : 0;
    check(name, {}, blocks ? blocked : product, memory, k, n);
    allocation.no_memory = true;
    check(name, {}, product, memory, k, n);
    allocation.no_memory = false;
    check(name + "_pst_General", x.onto, added, 0, n, k);
    if constexpr (std::is_same_v<E, double>)
      expect_packed(x, "__zorva_dgcopya" + a + "_xk64w", sa, "__zorva_dgcopyb" + b + "_psc", sb);
  }
  // Clearing works at any alignment, also of the elements.
  for (const u64 slack : {0u, 1u, 3u, 4u, 8u, 12u}) {
    const matrix<E> c(m, n, m + slack / 3, {}, slack);
    expect(type + "_n_n_pst_init", c, zeros, c.data(), m, n, c.ld);
  }
}

constexpr struct {
  int mode;
  const char* name;
} modes[] = {{FE_TONEAREST, "to nearest"},
             {FE_DOWNWARD, "down"},
             {FE_UPWARD, "up"},
             {FE_TOWARDZERO, "toward zero"}};

template <class E>
void expect_type(const std::string& type) {
  u32 run = 0;
  // Rows of A, terms, columns of B.
  // clang-format off
  std::vector<std::array<u64, 3>> shapes{
      // The smallest blocked product, and products that are just too small for that.
      {34, 38, 38}, {33, 113, 38}, {34, 37, 38}, {34, 38, 37},
      // Blocks of 112 terms, with and without a rest; 4 x 4 tiles, with rows and columns left over.
      {36, 112, 40}, {37, 113, 43}, {47, 224, 43}, {44, 225, 45},
      // Blocks of 260 rows; panels of 2000 columns.
      {260, 112, 40}, {261, 113, 41}, {521, 38, 40}, {34, 38, 2000}, {35, 39, 2001}, {36, 40, 2006},
      // The general kernels' blocks of 128 terms and 64 columns, and few columns.
      {129, 129, 70}, {16, 337, 90}, {20, 109, 72}, {130, 257, 1},
      // One extent is large or small.
      {300, 3, 90}, {3, 300, 300}, {1000, 1, 1}, {1, 1000, 1}, {1, 1, 1000},
      // A, B or C has more than 4 MB: of doubles only.
      {100, 5300, 1}, {101, 5300, 3}, {4, 799, 670}, {750, 3, 720}};
  // clang-format on
  for (const u64 m : {0u, 1u, 2u, 3u, 4u, 5u, 8u, 11u, 17u, 22u, 31u})
    for (const u64 n : {0u, 1u, 2u, 3u, 4u, 9u})
      for (const u64 k : {0u, 1u, 4u, 9u}) shapes.push_back({m, k, n});
  for (const auto& [m, k, n] : shapes) {
    const bool large = m * k > 500'000 || k * n > 500'000 || m * n > 500'000;
    // Only blocked kernels have panels of columns.
    if ((large || n >= 2000) && !std::is_same_v<E, double>) continue;
    random_bits.seed(m << 40 | k << 20 | n);  // each shape has its own values
    ++run;                                    // so that a storage gets every mode
    problem<E> x{m, k, n};
    // An infinity or NaN affects only its row or column of C, and no zero hides it. The NaN is the
    // one that processors make themselves, so all NaNs have the same bits.
    if (m > 2 && n > 2 && k != 0 && k % 3 == 0) {
      x.a[x.a.size() / 2] = E(HUGE_VALF);
      x.b[x.b.size() / 3] = E(-NAN);
    }
    for (const u32 storage : {0u, 1u, 2u, 3u}) {
      x.ta = storage / 2 != 0;
      x.tb = storage % 2 != 0;
      const auto& [mode, rounding] = modes[++run % std::size(modes)];
      SCOPED_TRACE(testing::Message()
                   << m << " x " << k << " times " << k << " x " << n << ", rounded " << rounding);
      std::fesetround(mode);
      expect_products(type, x);
      std::fesetround(FE_TONEAREST);
      if (testing::Test::HasFailure()) return;
    }
  }
  if (known < std::size(forms)) GTEST_SKIP() << "but in " << known << " forms only";
}
TEST(Product, IsSummedInTheStatedOrder_r4) { expect_type<float>("_MATMUL_r4"); }
TEST(Product, IsSummedInTheStatedOrder_r8) { expect_type<double>("_MATMUL_r8"); }
TEST(Product, IsSummedInTheStatedOrder_c4) { expect_type<std::complex<float>>("_MATMUL_c4"); }
TEST(Product, IsSummedInTheStatedOrder_c8) { expect_type<std::complex<double>>("_MATMUL_c8"); }

// A form that is chosen by a part of its mask would end by SIGILL here on a processor that lacks
// the rest.
TEST(Product, TakesAFormByItsWholeMask) {
  for (const u64 takes : {level::avx2, level::avx512_dq_vl})
    for (u64 bit = 1; bit != 0; bit <<= 1) {
      if ((takes & bit) == 0) continue;
      __zorva_cpu_feature_indicator = takes ^ bit;
      SCOPED_TRACE(testing::Message() << "indicator 0x" << std::hex << (takes ^ bit));
      const matrix<double> a(4, 1, 4, {1, 2, 3, 4}), b(1, 1, 1, {5}), c(4, 1, 4, {1, 1, 1, 1});
      expect("_MATMUL_r8_n_n_pst_General", c, {6, 11, 16, 21}, a.data(), b.data(), c.data(), 4L, 1L,
             1L, 4L, 1L, 4L);
    }
}

TEST(Product, OfNoRowsIsDoneAtOnceForAnyNumberOfColumns) {
  for (const char* const name : {"_MATMUL_r4_n_n.A", "_MATMUL_r8_t_n.A", "_MATMUL_c8_t_t.A"})
    expect<float>(name, {0, 0, 0}, {}, nullptr, nullptr, nullptr, 0L, 3L, 1L << 40, 3L, 3L, 3L);
}

// ---- Reductions ---------------------------------------------------------------------------------

// The identity of an operator, and its result for t and p.
template <class T>
struct operation {
  const char* name;
  T start, result;
};

template <class T, class Wide = std::conditional_t<std::is_integral_v<T>, u128, T>>
operation<T> stated(u32 op, T t, T p) {
  constexpr bool is_integer = std::is_integral_v<T>, is_quad = std::is_same_v<T, __float128>;
  T least = std::numeric_limits<T>::lowest(), greatest = std::numeric_limits<T>::max();
  if constexpr (is_quad) least = -(greatest = 0x1p16383L * (2 - __float128{0x1p-112L}));
  // The result of two zeros is p. If either is a NaN it is p, but t for quads.
  const bool keeps = is_quad && !(t <= p) && !(t >= p);
  const T larger = t > p || keeps ? t : p, smaller = t < p || keeps ? t : p;
  const auto a = Wide(t), b = Wide(p);
  const u128 x = is_integer ? u128(t) : 0, y = is_integer ? u128(p) : 0;
  const operation<T> operations[] = {
      {"sum", 0, T(a + b)},
      {"product", 1, T(a * b)},
      {"difference", 0, T(a - b)},
      {"maximum", least, larger},
      {"minimum", greatest, smaller},
      {"logical and", 1, T(x & y)},
      {"logical or", 0, T(x | y)},
      {"bitwise and", T(-1), T(x & y)},
      {"bitwise or", 0, T(x | y)},
      {"bitwise exclusive or", 0, T(x ^ y)},
      {"exclusive or", 0, T(x ^ y)},
      {"equivalence", 1, T(t == p)},
      {"non-equivalence", 0, T(t != p)},
  };
  return operations[op - 1];  // the codes begin at 1
}

// Part i of the complex product, which differs from type to type.
constexpr u32 product_code = 2, complex_float = 20, complex_double = 21, complex_quad = 23;
template <class T>
T part_of_product(u32 type, const std::vector<T>& t, const std::vector<T>& p, u64 i) {
  const T re = (type == complex_double ? p : t)[i & ~u64{1}],
          im = (type == complex_float ? t : p)[i | 1];
  const T straight = re * p[i], crossed = im * p[i ^ 1];  // each rounded
  return i % 2 == 0 ? straight - crossed : straight + crossed;
}

// Random values and special ones. Only maximum and minimum get the last six special ones.
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

// Folds a partial array into a target, then initialises the target. The stride is that of the
// partial array, in elements.
constexpr std::int32_t not_to_count = 7;
template <class T>
void expect_fold(u32 type, u32 op, u64 count, std::int32_t stride) {
  SCOPED_TRACE(testing::Message() << stated<T>(op, 0, 0).name << " of type " << type << ", count "
                                  << count << ", stride " << stride);
  // Each case has its own values, whatever ran before.
  random_bits.seed(((type * 16 + op) * 64 + count) * 16 + static_cast<u32>(stride + 3));
  const bool is_complex = type >= complex_float, is_product = is_complex && op == product_code;
  const u64 parts = is_complex ? 2 * count : count;
  const std::int32_t step = is_product || stride == not_to_count ? 1 : stride;
  const std::vector<T> t = operands<T>(parts, op), p = operands<T>(parts, op);
  const matrix<T> target(parts, 1, parts, t, random_bits() % 18);
  const matrix<T> partial(1, parts, static_cast<u64>(std::abs(step)), p, random_bits() % 18);

  // A negative stride begins at the last element; with a stride of 0 all elements are the last one.
  const u64 begin = step > 0 || parts == 0 ? 0 : parts - 1;
  const auto direction = static_cast<u64>((step > 0) - (step < 0));  // modulo 2^64
  std::vector<T> folded(parts), filled(parts);
  for (u64 i = 0; i < parts; ++i) {
    const auto [name, start, result] = stated(op, t[i], p[begin + i * direction]);
    folded[i] = is_product ? part_of_product(type, t, p, i) : result;
    filled[i] = is_complex && i % 2 != 0 ? T{} : start;
  }
  const T* const first = partial.data() + begin * partial.ld;
  __zorva_simd_reduction_final_array(target.data(), first, count, stride, stride != not_to_count,
                                     op, type);
  target.expect(folded, "what is folded");
  partial.expect(p, "the partial array, afterwards");
  __zorva_reduction_init_array(target.data(), count, op, type);
  target.expect(filled, "what is initialised");
}

// The types in the order of their codes, each with the last operator that it takes.
struct element_type {
  u32 last_operator;
  void (*expect)(u32 type, u32 op, u64 count, std::int32_t stride);
};
constexpr u32 last_of_integers = 13, last_of_floats = 5, last_of_complex = 3;
const std::map<u32, element_type> types = {
    {1, {last_of_integers, expect_fold<std::uint8_t>}},
    {2, {last_of_integers, expect_fold<std::int8_t>}},
    {3, {last_of_integers, expect_fold<std::uint16_t>}},
    {4, {last_of_integers, expect_fold<std::int16_t>}},
    {5, {last_of_integers, expect_fold<std::uint32_t>}},
    {6, {last_of_integers, expect_fold<std::int32_t>}},
    {7, {last_of_integers, expect_fold<std::uint64_t>}},
    {8, {last_of_integers, expect_fold<std::int64_t>}},
    {9, {last_of_floats, expect_fold<float>}},
    {10, {last_of_floats, expect_fold<double>}},
    {13, {last_of_floats, expect_fold<__float128>}},
    {complex_float, {last_of_complex, expect_fold<float>}},
    {complex_double, {last_of_complex, expect_fold<double>}},
    {complex_quad, {last_of_complex, expect_fold<__float128>}},
};

// The indicators of the baseline and, where the processor has it, AVX2.
const u64 reduction_levels[] = {level::generic, known > 3 ? level::avx2 : level::generic};

TEST(Reduction, CombinesAndInitialises) {
  std::vector<u64> counts(41);
  std::iota(counts.begin(), counts.end(), 0);
  counts.insert(counts.end(), {64, 95, 100});
  for (const u64 indicator : reduction_levels) {
    __zorva_cpu_feature_indicator = indicator;
    SCOPED_TRACE(testing::Message() << "indicator 0x" << std::hex << indicator);
    for (const auto& [code, type] : types)
      for (u32 op = 1; op <= type.last_operator; ++op)
        for (const u64 count : counts)
          for (const std::int32_t stride : {-3, -1, 0, 1, 2, 3, not_to_count}) {
            type.expect(code, op, count, stride);
            ASSERT_FALSE(HasFailure());
          }
  }
}

// Elements are combined one after the other, so a result may be the partial element of a later one.
TEST(Reduction, OfOverlappingArraysIsInOrder) {
  constexpr u64 count = 40, room = 20;
  constexpr u32 unsigned_32 = 5, sum_code = 1;
  for (const u64 indicator : reduction_levels)
    for (u64 begin = 0; begin <= 2 * room; ++begin) {
      SCOPED_TRACE(testing::Message() << "indicator 0x" << std::hex << indicator << std::dec
                                      << ", the partial array begins at element " << begin
                                      << ", the target at " << room);
      __zorva_cpu_feature_indicator = indicator;
      std::vector<u32> seen(count + 2 * room);
      std::iota(seen.begin(), seen.end(), 1);
      std::vector<u32> expected = seen;
      for (u64 i = 0; i < count; ++i) expected[room + i] += expected[begin + i];
      __zorva_simd_reduction_final_array(&seen[room], &seen[begin], count, 1, 1, sum_code,
                                         unsigned_32);
      EXPECT_ELEMENTS(seen, expected);
    }
}

// Codes that are not accepted end the process without a message, whatever the count. There are two
// exceptions: a fold of integers does nothing, and operator 0 fills unsigned bytes with the low
// byte of the count.
TEST(Reduction, ChecksItsCodes) {
  const matrix<unsigned char> memory(0x1fe, 1, 0x1fe);
  const auto t = memory.data();
  const std::function<bool(int)> aborts = testing::KilledBySignal(SIGABRT);
  for (u32 i = 0; i < 36; ++i)
    for (const u32 op : {0u, 1u, 4u, 6u, 14u, ~0u}) {
      const u32 type = i < 32 ? i : i << 26 | 6;  // the last ones are valid except for high bits
      const u32 last = types.contains(type) ? types.at(type).last_operator : 0;
      if (op != 0 && op <= last) continue;
      SCOPED_TRACE(testing::Message() << "type " << type << ", operator " << op);
      const u32 count = op == 0 ? 0x1fe : i % 2;
      EXPECT_EXIT((__zorva_reduction_init_array(t, count, op, type), _exit(*t)),
                  (type == 1 && op == 0 ? testing::ExitedWithCode(0xfe) : aborts), testing::Eq(""));
      EXPECT_EXIT(
          (__zorva_simd_reduction_final_array(t, "1234567", i % 2, 1, 1, op, type), _exit(*t)),
          (last == last_of_integers ? testing::ExitedWithCode(0xff) : aborts), testing::Eq(""));
    }
}

}  // namespace
}  // namespace zorvac::test
