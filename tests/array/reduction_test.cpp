// Reductions against the compiler's own arithmetic: every type with every operator at all strides and
// alignments, and every pair of codes that ends the process.
#include <gtest/gtest.h>

#include <algorithm>
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
  constexpr u32 last[24] = {0, 13, 13, 13, 13, 13, 13, 13, 13, 5, 5, 0,
                            0, 5,  0,  0,  0,  0,  0,  0,  3,  3, 0, 3};
  return type < 24 ? last[type] : 0;
}

template <class T>
T identity(u32 op) {
  T least = std::numeric_limits<T>::lowest(), greatest = std::numeric_limits<T>::max();
  if constexpr (std::is_same_v<T, quad>) {
    greatest = 0x1p16383L + (quad{0x1p16383L} - 0x1p16271L);
    least = -greatest;
  }
  const T identities[] = {0, 0, 1, 0, least, greatest, 1, 0, static_cast<T>(-1), 0, 0, 0, 1, 0};
  return identities[op];
}

template <class T>
T combined(u32 op, T t, T p) {
  if constexpr (std::is_integral_v<T>) {
    const auto a = static_cast<unsigned __int128>(t), b = static_cast<unsigned __int128>(p);
    const auto most = std::max(t, p), least = std::min(t, p);
    const unsigned __int128 sum = a + b, product = a * b, difference = a - b;
    const T results[] = {0,        T(sum),   T(product), T(difference), most,     least,  T(a & b),
                         T(a | b), T(a & b), T(a | b),   T(a ^ b),      T(a ^ b), t == p, t != p};
    return results[op];
  } else {
    // Of two zeros p; where they are not ordered p, too, but of quads t.
    const T most = t > p ? t : p, least = t < p ? t : p;
    const T results[] = {0, t + p, t * p, t - p, most, least, t <= p ? p : t, t >= p ? p : t};
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

// Random values, and some that operators treat apart.
template <class T>
elements<T> operands(u64 count, u32 op, std::mt19937_64& random) {
  const double list[] = {0, 1, -1, -0.0, NAN, -NAN, HUGE_VAL, -HUGE_VAL, 1e-310};
  elements<T> result(count);
  for (T& x : result) {
    x = static_cast<T>(static_cast<std::int64_t>(random()));
    const double special = list[random() % (std::is_integral_v<T> || op < 4 ? 3 : 9)];
    if (random() % 2 == 0) x = static_cast<T>(special);
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
  __zorva_simd_reduction_final_array(target.data(), first, count, stride, strided, op, type);
  ASSERT_TRUE(target.holds(expected) && partial.holds(stored));
  __zorva_reduction_init_array(target.data(), count, op, type);
  ASSERT_TRUE(target.holds(filled));
}

// Types in the order of their codes, from `type` on.
template <class T, class... Others>
void check_from(u32 type) {
  std::mt19937_64 random(type);
  for (u32 op = 1; op <= last_operator(type); ++op)
    for (u64 count = 0; count <= 40; ++count)
      for (const std::int32_t stride : {-3, -1, 0, 1, 2, 3, 7}) {
        check<T>(type, op, count, stride, stride != 7, random);
        ASSERT_FALSE(testing::Test::HasFailure())
            << type << ' ' << op << ' ' << count << ' ' << stride;
      }
  if constexpr (sizeof...(Others) > 0) check_from<Others...>(type + 1);
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
  std::int32_t a[41] = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1}, b[41] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  __zorva_simd_reduction_final_array(a + 1, a, 9, 0, 0, 1, 6);
  EXPECT_EQ(std::memcmp(a, b, sizeof a), 0);
}

// Codes that are not accepted end the process, whatever the count; but folds of integers do nothing,
// and operator 0 fills unsigned bytes with the count.
TEST(Reduction, JudgesItsCodes) {
  const matrix<unsigned char> memory(0x1fe, 1, 0x1fe);
  const auto outcome_of = [&](auto routine, auto... words) {
    return run_in_child([&] {
      routine(memory.data(), words...);
      _exit(*memory.data());
    });
  };
  const outcome aborted{"", "", -1, SIGABRT}, filled{"", "", 0xfe, 0}, unchanged{"", "", 0xff, 0};
  for (u32 i = 0; i < 64; ++i)
    for (const u32 op : {0u, 1u, 3u, 4u, 5u, 6u, 13u, 14u, 0xffffffffu}) {
      const u32 type = i < 32 ? i : i << 26 | 6;
      if (op != 0 && op <= last_operator(type)) continue;
      SCOPED_TRACE(testing::Message() << type << ' ' << op);
      EXPECT_EQ(outcome_of(__zorva_reduction_init_array, op == 0 ? 0x1fe : i % 2, op, type),
                type == 1 && op == 0 ? filled : aborted);
      EXPECT_EQ(outcome_of(__zorva_simd_reduction_final_array, "12345678", i % 2, 1, 1, op, type),
                last_operator(type) == 13 ? unchanged : aborted);
    }
}

}  // namespace
}  // namespace zorvac::test
