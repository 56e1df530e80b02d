// Comparisons, and conversions between quads and every other type up to 64 bits and the x87's.
#include <gtest/gtest.h>

#include <algorithm>

#include "operands.h"
#include "oracle.h"
#include "sweep.h"
#include "zorvac/quad.h"

namespace zorvac::test {
namespace {

using oracle::order;

TEST(Comparison, AgreesWithMpfr) {
  struct {
    const char* name;
    int (*call)(const void*, const void*);
    int less, equal, greater, unordered;
    bool quiet;
  } static const comparisons[] = {
      {"eqq", __eqq, 0, 1, 0, 0, true},
      {"neq", __neq, 1, 0, 1, 1, true},
      {"ltq", __ltq, 1, 0, 0, 0, false},
      {"leq", __leq, 1, 1, 0, 0, false},
      {"gtq", __gtq, 0, 0, 1, 0, false},
      {"geq", __geq, 0, 1, 1, 0, false},
      {"__compareq", __compareq, -1, 0, 1, 0, false},
      {"compareq", compareq, -1, 0, 1, 0, false},
  };
  sweep s(8'000'000);
  const under_rounding scope(up);
  const auto check = [&](bits a, bits b) {
    const order o = oracle::compare(a, b);
    for (const auto& c : comparisons) {
      const int result = o == order::less      ? c.less
                         : o == order::equal   ? c.equal
                         : o == order::greater ? c.greater
                                               : c.unordered;
      const unsigned flags = o == order::unordered && !c.quiet ? invalid : 0;
      s.expect(returned(scope, [&] { return c.call(&a, &b); }), {image(result), flags}, c.name, a,
               b);
    }
  };
  for (const bits a : boundary_operands())
    for (const bits b : boundary_operands()) check(a, b);
  random_operands random(6);
  for (int i = 0; i < 820'000; ++i) {
    const auto [a, b] = random.pair();
    check(a, b);
    // Neighbours, which differ in one of the last bits or in the sign only.
    check(a, bits_of(word_of(a) ^ uint128{1} << (i % 128)));
  }
}

// ---- From integers ----

TEST(FromInteger, IsExact) {
  sweep s(4'000'000);
  const under_rounding scope(up);
  const auto check = [&](uint128 n) {
    const auto i = static_cast<std::int32_t>(n);
    const auto u = static_cast<std::uint32_t>(n);
    const auto j = static_cast<std::int64_t>(n);
    const auto k = static_cast<std::uint64_t>(n);
    const auto expected = [](uint128 value, bool is_signed) {
      return oracle::from_integer(oracle::binary128, value, is_signed, up);
    };
    s.expect(stored(scope, [&](void* q) { __itoq(q, i); }), expected(static_cast<uint128>(i), true),
             i);
    s.expect(stored(scope, [&](void* q) { __utoq(q, u); }), expected(u, false), u);
    s.expect(stored(scope, [&](void* q) { __jtoq(q, j); }), expected(static_cast<uint128>(j), true),
             j);
    s.expect(stored(scope, [&](void* q) { __ktoq(q, k); }), expected(k, false), k);
  };
  check(0);
  for_each_boundary_integer(check);
  std::mt19937_64 random(7);
  for (int i = 0; i < 1'000'000; ++i) check(random() >> random() % 64);
}

// ---- To integers ----

// Numbers around every power of two up to 2^70, with eighths and with something below them.
template <class Check>
void for_each_number_near_integers(Check check) {
  for_each_boundary_integer([&](uint128 n) {
    if (n > uint128{1} << 71) return;
    for (unsigned eighths = 0; eighths < 8; ++eighths)
      for (const unsigned beyond : {0U, 1U}) {
        const uint128 fixed = n << 40 | uint128{eighths} << 37 | beyond;
        bits q = bits_of(oracle::from_integer(oracle::binary128, fixed, false, to_nearest).value);
        if (fixed != 0) q.high -= std::uint64_t{40} << 48;  // divided by 2^40
        check(q);
        check(negated(q));
      }
  });
  for (const bits q : boundary_operands()) check(q);
  random_operands random(8);
  for (int i = 0; i < 250'000; ++i) {
    const bits q = random();
    check(q);
    const std::uint64_t exponent = 0x3fff - 4 + static_cast<unsigned>(i % 72);
    check({q.low, (q.high & 0x8000'ffff'ffff'ffff) | exponent << 48});
  }
}

TEST(ToInteger, AgreesWithMpfr) {
  sweep s(14'000'000);
  for (const rounding mxcsr_mode : {to_nearest, up}) {  // which must not matter
    const under_rounding scope(mxcsr_mode);
    for_each_number_near_integers([&](bits q) {
      for (const int mode : {0, 1, 2, 3, 4, -1}) {
        s.expect(returned(scope, [&] { return __qtoi(&q, mode); }), oracle::to_signed(q, 32, mode),
                 "qtoi", q, mode);
        s.expect(returned(scope, [&] { return __qtoj(&q, mode); }), oracle::to_signed(q, 64, mode),
                 "qtoj", q, mode);
      }
      s.expect(returned(scope, [&] { return __qtou(&q); }), oracle::to_unsigned(q, 32), "qtou", q);
      s.expect(returned(scope, [&] { return __qtok(&q); }), oracle::to_unsigned(q, 64), "qtok", q);
    });
  }
}

// Oddities that compiled programs may rely on.
TEST(ToInteger, KeepsItsOddities) {
  const under_rounding scope(to_nearest);
  const auto quarters = [](int n) {
    bits q;
    __itoq(&q, n);
    if (n != 0) q.high -= std::uint64_t{2} << 48;
    return q;
  };
  const bits two_and_half = quarters(10), minus_half = quarters(-2), minus_one = quarters(-4);
  // An unknown mode is away from zero for 32 bits, toward zero for 64.
  EXPECT_EQ(__qtoi(&two_and_half, 5), 3);
  EXPECT_EQ(__qtoj(&two_and_half, 5), 2);
  // 2^32 to 2^33 wrap; 2^33 is too much.
  const bits wraps = quad(false, 0x3fff + 32, std::uint64_t{5} << 16);
  EXPECT_EQ(returned(scope, [&] { return __qtou(&wraps); }), (answer{5, 0}));
  const bits too_much = power_of_two(33);
  EXPECT_EQ(returned(scope, [&] { return __qtou(&too_much); }), (answer{0x8000'0000, invalid}));
  EXPECT_EQ(returned(scope, [&] { return __qtou(&minus_half); }), (answer{0, inexact}));
  EXPECT_EQ(returned(scope, [&] { return __qtou(&minus_one); }), (answer{0x8000'0000, invalid}));
}

// ---- Floating formats ----

TEST(FromFloating, IsExactAndQuiet) {
  sweep s(2'000'000);
  const under_rounding scope(up);
  const auto check_float = [&](uint128 w) {
    s.expect(stored(scope, [&](void* q) { __ftoq(q, value_of<float>(w)); }),
             oracle::widen(oracle::binary32, w), "ftoq", bits_of(w));
  };
  const auto check_double = [&](uint128 w) {
    s.expect(stored(scope, [&](void* q) { __dtoq(q, value_of<double>(w)); }),
             oracle::widen(oracle::binary64, w), "dtoq", bits_of(w));
  };
  for_each_word(oracle::binary32, check_float);
  for_each_word(oracle::binary64, check_double);
  std::mt19937_64 random(18);
  for (int i = 0; i < 1'000'000; ++i) {
    check_float(static_cast<std::uint32_t>(random()));
    check_double(random());
  }
}

// The x87 unit sees the operand: it quiets a signalling NaN and raises its own flags.
TEST(FromExtended, GoesThroughTheX87) {
  sweep s(1'000'000);
  const under_rounding scope(up);
  const auto convert = [&](uint128 w) {
    asm volatile("fnclex");
    answer a = stored(scope, [&](void* q) { __ltoq(q, value_of<long double>(w)); });
    EXPECT_EQ(a.flags, 0u);  // MXCSR
    a.flags = read_x87().status & all_flags;
    return a;
  };
  const auto check = [&](uint128 w) {
    answer expected = oracle::widen(oracle::x87, w);
    const bits q = bits_of(expected.value);
    const bool is_nan = word_of(q) << 1 > word_of(infinity) << 1;
    if (is_nan && (q.high & quiet_bit) == 0)
      expected = {expected.value | uint128{quiet_bit} << 64, invalid};
    if ((q.high & 0x7fff'0000'0000'0000) == 0 && word_of(q) << 1 != 0) expected.flags = denormal;
    s.expect(convert(w), expected, "ltoq", bits_of(w));
  };
  for_each_word(oracle::x87, check);
  std::mt19937_64 random(19);
  for (int i = 0; i < 1'000'000; ++i) {
    const auto top = static_cast<std::uint16_t>(random());
    const std::uint64_t leading = std::uint64_t{(top & 0x7fff) != 0} << 63;
    check(uint128{top} << 64 | leading | random() >> 1);
  }
  // A zero exponent with the leading one stored: the smallest normal number. A large exponent
  // without it: no number at all.
  const uint128 leading = uint128{1} << 63;
  EXPECT_EQ(convert(leading), (answer{word_of(smallest_normal), denormal}));
  EXPECT_EQ(convert(uint128{0x3fff} << 64 | 1), (answer{word_of(indefinite), invalid}));
}

// Around the target's limits, numbers that are at, beside and halfway between its own, for every
// place where its last bit can lie.
template <class Check>
void for_each_number_near(oracle::format to, Check check) {
  const int bias = (1 << (to.exponent_bits - 1)) - 1;
  std::vector<int> exponents = {0x3fff, 0x3fff + bias - 1, 0x3fff + bias, 0x3fff + bias + 1};
  for (int e = 0; e <= to.precision + 2; e += e < 3 || e > to.precision - 2 ? 1 : 7)
    exponents.push_back(0x3fff + 1 - bias - e);
  for (const int e : exponents)
    for (int cut = 1; cut < 112; ++cut)
      for (const uint128 kept : {uint128{0}, uint128{1}, ~uint128{0}, ~uint128{1}})
        for (const int beside : {-1, 0, 1})
          for (const uint128 lost : {uint128{0}, uint128{1} << (cut - 1)}) {
            const uint128 fraction = (kept << cut) + lost + static_cast<uint128>(beside);
            const bits f = bits_of(fraction & ((uint128{1} << 112) - 1));
            check(quad((cut & 1) != 0, static_cast<unsigned>(e > 0 ? e : 0), f.high, f.low));
          }
  for (const bits q : boundary_operands()) check(q);
  random_operands random(10);
  const int span = 2 * bias + to.precision + 6;
  for (int i = 0; i < 130'000; ++i) {
    const bits q = random();
    check(q);
    // The same fraction with an exponent that the target has, or nearly has.
    const int e = std::clamp(0x3fff - bias - to.precision - 2 + i % span, 0, 0x7ffe);
    check(quad((i & 1) != 0, static_cast<unsigned>(e), q.high & fraction_ones, q.low));
  }
}

template <class Narrow>
void check_narrowing(oracle::format to, Narrow narrow) {
  sweep s(1'000'000);
  for (const rounding mode : roundings) {
    const under_rounding scope(mode);
    for_each_number_near(to, [&](bits q) {
      s.expect(returned(scope, [&] { return narrow(&q); }), oracle::narrow(to, q, mode), mode, q);
    });
  }
  EXPECT_EQ(read_x87().status & all_flags, 0);
}

TEST(ToFloating, RoundsToSingle) { check_narrowing(oracle::binary32, __qtof); }
TEST(ToFloating, RoundsToDouble) { check_narrowing(oracle::binary64, __qtod); }
TEST(ToFloating, RoundsToExtended) { check_narrowing(oracle::x87, __qtol); }

}  // namespace
}  // namespace zorvac::test
