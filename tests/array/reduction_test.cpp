// Reductions against models in wider integers and in the compiler's own arithmetic: every type with
// every operator, and every pair of codes that ends the process.
#include <gtest/gtest.h>

#include <cmath>
#include <csignal>
#include <cstring>
#include <limits>
#include <random>

#include "support/child.h"
#include "support/guard_pages.h"
#include "zorvac/array.h"

namespace zorvac::test {
namespace {

using quad = __float128;

constexpr std::uint64_t most = 40;  // elements

// An array that ends `slack` bytes before a page that nobody may touch, amid bytes of 0xa5.
class field {
 public:
  unsigned char* place(std::size_t bytes, std::size_t slack) {
    std::memset(block_.begin(), 0xa5, block_.size());
    begin_ = block_.end() - slack - bytes;
    end_ = begin_ + bytes;
    return begin_;
  }
  [[nodiscard]] bool surroundings_are_whole() const {
    const auto whole = [](const unsigned char* from, const unsigned char* to) {
      for (; from != to; ++from)
        if (*from != 0xa5) return false;
      return true;
    };
    return whole(begin_ - 64, begin_) && whole(end_, block_.end());
  }

 private:
  guarded_block block_{8192};
  unsigned char *begin_ = nullptr, *end_ = nullptr;
};

// ---- Identities ---------------------------------------------------------------------------------

struct words {
  std::uint64_t low, high;
};
struct type_row {
  std::uint32_t code;
  std::size_t bytes;  // of an element, or of one part of a complex one
  bool complex;
  std::uint32_t operators;
  words one, least, greatest;
};
constexpr std::uint64_t ones = ~std::uint64_t{0};
constexpr words quad_one = {0, 0x3fff000000000000}, quad_least = {ones, 0xfffeffffffffffff},
                quad_greatest = {ones, 0x7ffeffffffffffff};
constexpr type_row types[] = {
    {1, 1, false, 13, {1, 0}, {0, 0}, {0xff, 0}},
    {2, 1, false, 13, {1, 0}, {0x80, 0}, {0x7f, 0}},
    {3, 2, false, 13, {1, 0}, {0, 0}, {0xffff, 0}},
    {4, 2, false, 13, {1, 0}, {0x8000, 0}, {0x7fff, 0}},
    {5, 4, false, 13, {1, 0}, {0, 0}, {0xffffffff, 0}},
    {6, 4, false, 13, {1, 0}, {0x80000000, 0}, {0x7fffffff, 0}},
    {7, 8, false, 13, {1, 0}, {0, 0}, {ones, 0}},
    {8, 8, false, 13, {1, 0}, {0x8000000000000000, 0}, {0x7fffffffffffffff, 0}},
    {9, 4, false, 5, {0x3f800000, 0}, {0xff7fffff, 0}, {0x7f7fffff, 0}},
    {10, 8, false, 5, {0x3ff0000000000000, 0}, {0xffefffffffffffff, 0}, {0x7fefffffffffffff, 0}},
    {13, 16, false, 5, quad_one, quad_least, quad_greatest},
    {20, 4, true, 3, {0x3f800000, 0}, {}, {}},
    {21, 8, true, 3, {0x3ff0000000000000, 0}, {}, {}},
    {23, 16, true, 3, quad_one, {}, {}},
};
const type_row* row_of(std::uint32_t code) {
  for (const type_row& row : types)
    if (row.code == code) return &row;
  return nullptr;
}

// The identity of each operator: Least, Greatest, Filled with ones, 0 or 1.
constexpr char identities[] = " 010LG10F00010";

TEST(ReductionInit, WritesTheIdentityAndNothingElse) {
  field array;
  for (const type_row& type : types)
    for (std::uint32_t op = 1; op <= type.operators; ++op) {
      const char kind = identities[op];
      const words identity = kind == 'L'   ? type.least
                             : kind == 'G' ? type.greatest
                             : kind == 'F' ? words{ones, ones}
                             : kind == '1' ? type.one
                                           : words{0, 0};
      std::vector<unsigned char> element(type.bytes * (type.complex ? 2 : 1));
      std::memcpy(element.data(), &identity, type.bytes);
      for (std::uint64_t count = 0; count <= most; ++count)
        for (std::size_t slack = 0; slack <= 17; ++slack) {
          unsigned char* const target = array.place(count * element.size(), slack);
          __zorva_reduction_init_array(target, count, op, type.code);
          for (std::uint64_t i = 0; i < count; ++i)
            ASSERT_EQ(std::memcmp(target + i * element.size(), element.data(), element.size()), 0)
                << type.code << ' ' << op << ' ' << count << ' ' << slack << ' ' << i;
          ASSERT_TRUE(array.surroundings_are_whole())
              << type.code << ' ' << op << ' ' << count << ' ' << slack;
        }
    }
}

TEST(ReductionInit, FillsUnsignedBytesWithTheCountForOperatorZero) {
  std::vector<unsigned char> bytes(0x1ff, 1);
  __zorva_reduction_init_array(bytes.data(), 0x1fe, 0, 1);
  std::vector<unsigned char> expected(0x1fe, 0xfe);
  expected.push_back(1);
  EXPECT_EQ(bytes, expected);
}

// ---- Folds --------------------------------------------------------------------------------------

template <class T>
T combined(std::uint32_t op, T t, T p) {
  if constexpr (std::is_integral_v<T>) {
    using uint128 = unsigned __int128;
    const auto a = static_cast<uint128>(t), b = static_cast<uint128>(p);  // by their signs
    const uint128 results[] = {0,
                               a + b,
                               a * b,
                               a - b,
                               static_cast<uint128>(std::max(t, p)),
                               static_cast<uint128>(std::min(t, p)),
                               a & b,
                               a | b,
                               a & b,
                               a | b,
                               a ^ b,
                               a ^ b,
                               a == b,
                               a != b};
    return static_cast<T>(results[op]);
  } else {
    if (std::is_same_v<T, quad> && op > 3)  // t where they are not ordered, and p of two zeros
      return (op == 4 ? t <= p : t >= p) ? p : t;
    if (op == 4) return t > p ? t : p;  // p where they are not ordered, and of two zeros
    if (op == 5) return t < p ? t : p;
    return op == 1 ? t + p : op == 2 ? t * p : t - p;
  }
}

template <class T>
T random_value(std::mt19937_64& random) {
  if constexpr (std::is_integral_v<T>) {
    return static_cast<T>(random());
  } else {
    const auto high = static_cast<T>(static_cast<std::int64_t>(random()));
    return high + static_cast<T>(static_cast<std::int64_t>(random())) / 1e19f;
  }
}

// Operands from a short list of each kind that maximum and minimum treat apart, and random ones.
template <class T>
std::vector<T> operands(std::size_t count, std::uint32_t op, std::mt19937_64& random) {
  std::vector<T> list{T{0}, T{1}, static_cast<T>(-1)};
  if constexpr (!std::is_integral_v<T>)
    if (op == 4 || op == 5) {
      const auto infinity = static_cast<T>(INFINITY), nan = static_cast<T>(NAN);
      const auto least = static_cast<T>(sizeof(T) == 4 ? 0x1p-149 : 0x1p-1074);
      list.insert(list.end(), {-T{0}, nan, -nan, infinity, -infinity, least});
    }
  std::vector<T> result;
  while (result.size() < count)
    result.push_back(random() % 2 == 0 ? list[random() % list.size()] : random_value<T>(random));
  return result;
}

// What element or part `i` of the target must become.
template <class T>
T expected(const type_row& type, std::uint32_t op, const T* t, const T* p, std::size_t i,
           std::ptrdiff_t step) {
  if (!type.complex || op != 2) return combined(op, t[i], p[static_cast<std::ptrdiff_t>(i) * step]);
  const std::size_t real = i & ~std::size_t{1}, imaginary = real + 1;
  const T br = p[real], bi = p[imaginary];
  const T ar = type.code == 21 ? br : t[real], ai = type.code == 20 ? t[imaginary] : bi;
  const auto product = [](T a, T b) { return combined<T>(2, a, b); };
  return i == real ? combined<T>(3, product(ar, br), product(ai, bi))
                   : combined<T>(1, product(ar, bi), product(ai, br));
}

struct step_row {
  std::int32_t stride, strided;
};
constexpr step_row steps[] = {{7, 0}, {-1, 0}, {1, 1}, {2, -1}, {3, 1}, {0, 1}, {-1, 1}, {-3, 1}};

template <class T>
void check_folds(std::uint32_t code) {
  const type_row& type = *row_of(code);
  field target_field, partial_field;
  std::mt19937_64 random(code);
  for (std::uint32_t op = 1; op <= type.operators; ++op)
    for (std::uint64_t count = 0; count <= most; ++count)
      for (const step_row& s : steps) {
        const std::ptrdiff_t step = s.strided == 0 ? 1 : s.stride;
        const std::size_t parts = count * (type.complex ? 2 : 1);
        const bool side_by_side = type.complex && op == 2;
        const std::size_t walked = side_by_side ? 1 : static_cast<std::size_t>(std::abs(step));
        const std::size_t partials = parts == 0 ? 0 : (parts - 1) * walked + 1;
        const std::size_t first = side_by_side || step >= 0 || parts == 0 ? 0 : partials - 1;
        const std::vector<T> t = operands<T>(parts, op, random);
        const std::vector<T> p = operands<T>(partials, op, random);
        // Slacks that the element's size divides and that it does not; an array alone, and in step.
        for (const auto& [slack, partial_slack] :
             {std::pair{0u, 0u}, {3u, 5u}, {static_cast<unsigned>(sizeof(T)), 16u}, {8u, 1u}}) {
          unsigned char* const target = target_field.place(parts * sizeof(T), slack);
          unsigned char* const partial = partial_field.place(partials * sizeof(T), partial_slack);
          if (parts != 0) std::memcpy(target, t.data(), parts * sizeof(T));
          if (parts != 0) std::memcpy(partial, p.data(), partials * sizeof(T));
          __zorva_simd_reduction_final_array(target, partial + first * sizeof(T), count, s.stride,
                                             s.strided, op, code);
          for (std::size_t i = 0; i < parts; ++i) {
            const T want = expected(type, op, t.data(), p.data() + first, i, step);
            ASSERT_EQ(std::memcmp(target + i * sizeof(T), &want, sizeof(T)), 0)
                << "type " << code << " operator " << op << " count " << count << " stride "
                << s.stride << " flag " << s.strided << " slack " << slack << " element " << i;
          }
          ASSERT_TRUE(target_field.surroundings_are_whole());
          ASSERT_TRUE(parts == 0 || std::memcmp(partial, p.data(), partials * sizeof(T)) == 0);
        }
      }
}

TEST(ReductionFinal, CombinesIntegers) {
  check_folds<std::uint8_t>(1);
  check_folds<std::int8_t>(2);
  check_folds<std::uint16_t>(3);
  check_folds<std::int16_t>(4);
  check_folds<std::uint32_t>(5);
  check_folds<std::int32_t>(6);
  check_folds<std::uint64_t>(7);
  check_folds<std::int64_t>(8);
}
TEST(ReductionFinal, CombinesFloatingNumbers) {
  check_folds<float>(9);
  check_folds<double>(10);
  check_folds<quad>(13);
}
TEST(ReductionFinal, CombinesComplexNumbers) {
  check_folds<float>(20);
  check_folds<double>(21);
  check_folds<quad>(23);
}

// Folding an array into itself, and into its own neighbour, where each step feeds the next.
TEST(ReductionFinal, GoesElementByElementWhereArraysOverlap) {
  std::vector<std::int32_t> a(41, 1), b(41, 1);
  __zorva_simd_reduction_final_array(a.data(), a.data(), 41, 0, 0, 1, 6);
  EXPECT_EQ(a, std::vector<std::int32_t>(41, 2));
  __zorva_simd_reduction_final_array(b.data() + 1, b.data(), 40, 0, 0, 1, 6);
  for (std::int32_t i = 0; i < 41; ++i) EXPECT_EQ(b[static_cast<std::size_t>(i)], i + 1);
}

// ---- Codes that are not accepted ----------------------------------------------------------------

TEST(ReductionCodes, EndTheProcessOrDoNothing) {
  const outcome aborted{"", "", -1, SIGABRT}, returned{"", "", 0, 0};
  std::vector<std::uint32_t> codes{0xffffffff, 256, 1u << 31 | 6};
  for (std::uint32_t code = 0; code <= 28; ++code) codes.push_back(code);
  for (const std::uint32_t code : codes)
    for (const std::uint32_t op : {0u, 1u, 3u, 4u, 5u, 6u, 13u, 14u, 0xffffffffu}) {
      const type_row* const type = row_of(code);
      const bool accepted = type != nullptr && op != 0 && op <= type->operators;
      const bool integer = type != nullptr && type->operators == 13;
      const std::uint64_t count = (code + op) % 2 * 2;  // codes are judged whatever the count
      const outcome init = run_in_child([&] {
        alignas(16) unsigned char target[64] = {};
        __zorva_reduction_init_array(target, count, op, code);
      });
      EXPECT_EQ(init, accepted || (code == 1 && op == 0) ? returned : aborted) << code << ' ' << op;
      const outcome final = run_in_child([&] {
        unsigned char target[64], partial[64] = {1, 2, 3}, before[64];
        std::memset(target, 0x5a, sizeof target);
        std::memcpy(before, target, sizeof target);
        __zorva_simd_reduction_final_array(target, partial, count, 1, 1, op, code);
        if (!accepted && std::memcmp(target, before, sizeof target) != 0) _exit(1);
      });
      EXPECT_EQ(final, accepted || integer ? returned : aborted) << code << ' ' << op;
    }
}

}  // namespace
}  // namespace zorvac::test
