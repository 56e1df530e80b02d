// Reductions against the compiler's own arithmetic: every type with every operator at all strides and
// alignments, and every pair of codes that ends the process.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <csignal>
#include <limits>
#include <map>
#include <random>

#include "array/matrix.h"
#include "support/child.h"
#include "zorvac/array.h"

namespace zorvac::test {
namespace {

using u32 = std::uint32_t;
using u128 = unsigned __int128;
using quad = __float128;

template <class T>
T identity(u32 op) {
  T least = std::numeric_limits<T>::lowest(), greatest = std::numeric_limits<T>::max();
  if constexpr (std::is_same_v<T, quad>)
    least = -(greatest = std::bit_cast<quad>(~(u128{0x8001} << 112)));
  const T identities[] = {0, 0, 1, 0, least, greatest, 1, 0, static_cast<T>(-1), 0, 0, 0, 1, 0};
  return identities[op];
}

template <class T>
T combined(u32 op, T t, T p) {
  // Of two zeros p; where they are not ordered p, too, but of quads t.
  const bool keeps = std::is_same_v<T, quad> && !(t <= p) && !(t >= p);
  const T most = t > p || keeps ? t : p, least = t < p || keeps ? t : p;
  if constexpr (std::is_integral_v<T>) {
    const u128 a = static_cast<u128>(t), b = static_cast<u128>(p);
    const T results[] = {0,        T(a + b), T(a * b), T(a - b), most,     least,  T(a & b),
                         T(a | b), T(a & b), T(a | b), T(a ^ b), T(a ^ b), t == p, t != p};
    return results[op];
  } else {
    const T results[] = {0, t + p, t * p, t - p, most, least};
    return results[op];
  }
}

// Part i of the complex product that each type has for its own.
template <class T>
T part_of_product(u32 type, const std::vector<T>& t, const std::vector<T>& p, u64 i) {
  const T re = (type == 21 ? p : t)[i & ~u64{1}], im = (type == 20 ? t : p)[i | 1];
  const T straight = re * p[i], crossed = im * p[i ^ 1];  // each rounded
  return i % 2 == 0 ? straight - crossed : straight + crossed;
}

std::mt19937_64 random_bits;

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
  const std::vector<T> t = operands<T>(parts, op), stored = operands<T>(parts, op);
  const matrix<T> target(parts, 1, parts, t, random_bits() % 18);
  const matrix<T> partial(1, parts, static_cast<u64>(std::abs(step)), stored, random_bits() % 18);

  std::vector<T> p = stored, expected(parts), filled(parts);
  if (step < 0) std::reverse(p.begin(), p.end());
  if (step == 0) std::fill(p.begin(), p.end(), p.empty() ? T{} : p.back());
  for (u64 i = 0; i < parts; ++i) {
    expected[i] = is_product ? part_of_product(type, t, p, i) : combined(op, t[i], p[i]);
    filled[i] = is_complex && i % 2 != 0 ? T{} : identity<T>(op);
  }
  const T* const first = partial.data() + (step < 0 && parts != 0 ? (parts - 1) * partial.ld : 0);
  __zorva_simd_reduction_final_array(target.data(), first, count, stride, strided, op, type);
  EXPECT_TRUE(target.holds(expected) && partial.holds(stored));
  __zorva_reduction_init_array(target.data(), count, op, type);
  EXPECT_TRUE(target.holds(filled));
}

// By their codes the types: the last of the operators that they take, from 1 on.
struct row {
  u32 operators;
  void (*check)(u32 type, u32 op, u64 count, std::int32_t stride);
};
const std::map<u32, row> types{{1, {13, check<std::uint8_t>}},  {2, {13, check<std::int8_t>}},
                               {3, {13, check<std::uint16_t>}}, {4, {13, check<std::int16_t>}},
                               {5, {13, check<std::uint32_t>}}, {6, {13, check<std::int32_t>}},
                               {7, {13, check<std::uint64_t>}}, {8, {13, check<std::int64_t>}},
                               {9, {5, check<float>}},          {10, {5, check<double>}},
                               {13, {5, check<quad>}},          {20, {3, check<float>}},
                               {21, {3, check<double>}},        {23, {3, check<quad>}}};

TEST(Reduction, CombinesAndInitialises) {
  for (const auto& [type, row] : types)
    for (u32 op = 1; op <= row.operators; ++op)
      for (u64 count = 0; count <= 40; ++count)
        for (const int stride : {-3, -1, 0, 1, 2, 3, 7}) {
          row.check(type, op, count, stride);
          ASSERT_FALSE(HasFailure()) << type << ' ' << op << ' ' << count << ' ' << stride;
        }
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
    for (const u32 op : {0u, 1u, 3u, 4u, 5u, 6u, 13u, 14u, ~0u}) {
      const u32 type = i < 32 ? i : i << 26 | 6;
      const u32 operators = types.contains(type) ? types.at(type).operators : 0;
      if (op != 0 && op <= operators) continue;
      SCOPED_TRACE(testing::Message() << type << ' ' << op);
      EXPECT_EQ(outcome_of(__zorva_reduction_init_array, op == 0 ? 0x1fe : i % 2, op, type),
                type == 1 && op == 0 ? filled : aborted);
      EXPECT_EQ(outcome_of(__zorva_simd_reduction_final_array, "12345678", i % 2, 1, 1, op, type),
                operators == 13 ? unchanged : aborted);
    }
}

}  // namespace
}  // namespace zorvac::test
