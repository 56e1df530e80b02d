// Reductions against the compiler's own arithmetic: every type with every operator at all strides and
// alignments, and every pair of codes that ends the process.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <csignal>
#include <limits>
#include <random>

#include "array/matrix.h"
#include "support/child.h"
#include "zorvac/array.h"

namespace zorvac::test {
namespace {

using u32 = std::uint32_t;
using quad = __float128;

// Types take the operators from 1 to this one.
constexpr u32 last_operator(u32 type) {
  constexpr u32 last[] = {0, 13, 13, 13, 13, 13, 13, 13, 13, 5, 5, 0,
                          0, 5,  0,  0,  0,  0,  0,  0,  3,  3, 0, 3};
  return type < std::size(last) ? last[type] : 0;
}

template <class T>
const T greatest = std::numeric_limits<T>::max();
template <>
const quad greatest<quad> = std::bit_cast<quad>(std::array<u64, 2>{~u64{0}, 0x7ffeffffffffffff});

template <class T>
T identity(u32 op) {
  const T least = std::is_integral_v<T> ? std::numeric_limits<T>::lowest() : -greatest<T>;
  const T identities[] = {0, 0, 1, 0, least, greatest<T>, 1, 0, static_cast<T>(-1), 0, 0, 0, 1, 0};
  return identities[op];
}

template <class T>
T combined(u32 op, T t, T p) {
  if constexpr (std::is_integral_v<T>) {
    const auto a = static_cast<unsigned __int128>(t), b = static_cast<unsigned __int128>(p);
    const T results[] = {0,        T(a + b), T(a * b), T(a - b), std::max(t, p), std::min(t, p),
                         T(a & b), T(a | b), T(a & b), T(a | b), T(a ^ b),       T(a ^ b),
                         t == p,   t != p};
    return results[op];
  } else {
    // Of two zeros p; where they are not ordered p, too, but of quads t.
    const T results[] = {
        0, t + p, t * p, t - p, t > p ? t : p, t < p ? t : p, t <= p ? p : t, t >= p ? p : t};
    return results[std::is_same_v<T, quad> && op > 3 ? op + 2 : op];
  }
}

// Part i of the complex product that each type has for its own.
template <class T>
T part_of_product(u32 type, const elements<T>& t, const elements<T>& p, u64 i) {
  const T re = (type == 21 ? p : t)[i & ~u64{1}], im = (type == 20 ? t : p)[i | 1];
  const T straight = re * p[i], crossed = im * p[i ^ 1];  // each rounded
  return i % 2 == 0 ? straight - crossed : straight + crossed;
}

// Values that operators treat apart, and random ones.
template <class T>
elements<T> operands(u64 count, u32 op, std::mt19937_64& random) {
  elements<T> list{0, 1, static_cast<T>(-1)};
  if constexpr (!std::is_integral_v<T>)
    if (op > 3)
      for (const double x : {-0.0, double{NAN}, -double{NAN}, HUGE_VAL, -HUGE_VAL, 1e-310})
        list.push_back(static_cast<T>(x));
  elements<T> result(count);
  for (T& x : result) {
    x = static_cast<T>(static_cast<std::int64_t>(random()));
    if constexpr (!std::is_integral_v<T>) x += static_cast<T>(random()) / 1e19f;
    if (random() % 2 == 0) x = list[random() % list.size()];
  }
  return result;
}

template <class T>
void check(u32 type, u32 op, u64 count, std::int32_t stride, bool strided,
           std::mt19937_64& random) {
  const bool is_complex = type >= 20, is_product = is_complex && op == 2;
  const u64 parts = is_complex ? 2 * count : count;
  const std::int32_t step = is_product || !strided ? 1 : stride;
  const elements<T> t = operands<T>(parts, op, random), stored = operands<T>(parts, op, random);
  const matrix<T> target(parts, 1, parts, t, random() % 18);
  const matrix<T> partial(1, parts, static_cast<u64>(std::abs(step)), stored, random() % 18);

  elements<T> p = stored, expected(parts), filled(parts);
  if (step < 0) std::reverse(p.begin(), p.end());
  if (step == 0) std::fill(p.begin(), p.end(), p.empty() ? T{} : p.back());
  for (u64 i = 0; i < parts; ++i) {
    expected[i] = is_product ? part_of_product(type, t, p, i) : combined(op, t[i], p[i]);
    filled[i] = is_complex && i % 2 != 0 ? T{} : identity<T>(op);
  }
  const T* const first = partial.data() + (step < 0 && parts != 0 ? (parts - 1) * partial.ld : 0);
  __zorva_simd_reduction_final_array(target.data(), first, count, stride, strided ? -1 : 0, op,
                                     type);
  ASSERT_TRUE(target.holds(expected) && partial.holds(stored));
  __zorva_reduction_init_array(target.data(), count, op, type);
  ASSERT_TRUE(target.holds(filled));
}

template <class... Types>
void check_from(u32 type) {
  const auto check_all = [&]<class T>(T) {
    std::mt19937_64 random(type);
    for (u32 op = 1; op <= last_operator(type); ++op)
      for (u64 count = 0; count <= 40; ++count)
        for (const std::int32_t stride : {1, 2, 3, 0, -1, -3})
          for (const bool strided : {true, false}) {
            SCOPED_TRACE(testing::Message() << type << ' ' << op << ' ' << count << ' ' << stride);
            if (!testing::Test::HasFailure()) check<T>(type, op, count, stride, strided, random);
          }
    ++type;
  };
  (check_all(Types{}), ...);
}

TEST(Reduction, CombinesAndInitialises) {
  check_from<std::uint8_t, std::int8_t, std::uint16_t, std::int16_t, std::uint32_t, std::int32_t,
             std::uint64_t, std::int64_t, float, double>(1);
  check_from<quad>(13);
  check_from<float, double>(20);
  check_from<quad>(23);
}

// Into an array's own neighbour, where each step feeds the next.
TEST(Reduction, GoesElementByElement) {
  elements<std::int32_t> a(41, 1);
  __zorva_simd_reduction_final_array(&a[1], &a[0], 40, 0, 0, 1, 6);
  for (std::int32_t i = 0; i < 41; ++i) EXPECT_EQ(a[static_cast<u64>(i)], i + 1);
}

TEST(Reduction, FillsUnsignedBytesWithTheCountForOperatorZero) {
  const matrix<char> bytes(0x1fe, 1, 0x1fe);
  __zorva_reduction_init_array(bytes.data(), 0x1fe, 0, 1);
  EXPECT_TRUE(bytes.holds(elements<char>(0x1fe, '\xfe')));
}

// Codes that are not accepted end the process, whatever the count; but folds of integers do nothing.
TEST(Reduction, JudgesItsCodes) {
  elements<u32> types{0xffffffff, 256, 1u << 31 | 6};
  for (u32 type = 0; type <= 28; ++type) types.push_back(type);
  const matrix<char> memory(64, 1, 64);
  const outcome aborted{"", "", -1, SIGABRT}, unchanged{"", "", 7, 0};
  for (const u32 type : types)
    for (const u32 op : {0u, 1u, 3u, 4u, 5u, 6u, 13u, 14u, 0xffffffffu}) {
      if (op != 0 && op <= last_operator(type)) continue;
      SCOPED_TRACE(testing::Message() << type << ' ' << op);
      const u64 count = (type + op) % 2 * 2;
      const outcome init =
          run_in_child([&] { __zorva_reduction_init_array(memory.data(), count, op, type); });
      EXPECT_TRUE(init == aborted || (type == 1 && op == 0));
      const outcome fold = run_in_child([&] {
        __zorva_simd_reduction_final_array(memory.data(), memory.data(), count, 1, 1, op, type);
        _exit(memory.holds({}) ? 7 : 0);
      });
      EXPECT_EQ(fold, last_operator(type) == 13 ? unchanged : aborted);
    }
}

}  // namespace
}  // namespace zorvac::test
