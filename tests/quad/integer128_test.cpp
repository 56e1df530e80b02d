// Conversions between 128-bit integers and every floating format.
#include <gtest/gtest.h>

#include <algorithm>

#include "operands.h"
#include "oracle.h"
#include "sweep.h"
#include "zorvac/quad.h"

namespace zorvac::test {
namespace {

template <class Unsigned, class Signed>
void check_to_integer(oracle::format from, Unsigned to_unsigned, Signed to_signed) {
  sweep s(2'000'000);
  for (const rounding mode : {to_nearest, down}) {  // which must not matter
    const under_rounding scope(mode);
    const auto check = [&](uint128 w) {
      s.expect(returned(scope, [&] { return to_unsigned(w); }), oracle::to_128(from, w, false),
               "unsigned", bits_of(w));
      s.expect(returned(scope, [&] { return to_signed(w); }), oracle::to_128(from, w, true),
               "signed", bits_of(w));
    };
    for_each_word(from, check);
    // Random words whose exponents are those of numbers from 1/16 to 2^132, as far as there are.
    std::mt19937_64 random(20);
    const int exponent_at = from.precision - 1 + from.leading_one_stored;
    const int bias = (1 << (from.exponent_bits - 1)) - 1;
    const uint128 ones = (uint128{1} << exponent_at) - 1;
    for (int i = 0; i < 500'000; ++i) {
      const int exponent = std::min(bias - 4 + i % 137, 2 * bias + 1);
      const auto top = static_cast<uint128>(exponent | (i & 1) << from.exponent_bits);
      const uint128 leading = uint128{from.leading_one_stored} << (exponent_at - 1);
      check(top << exponent_at | leading | ((uint128{random()} << 64 | random()) & ones));
    }
  }
}

TEST(Integer128, FromSingle) {
  check_to_integer(
      oracle::binary32, [](uint128 w) { return __fton(value_of<float>(w)); },
      [](uint128 w) { return __ftom(value_of<float>(w)); });
}
TEST(Integer128, FromDouble) {
  check_to_integer(
      oracle::binary64, [](uint128 w) { return __dton(value_of<double>(w)); },
      [](uint128 w) { return __dtom(value_of<double>(w)); });
}
TEST(Integer128, FromExtended) {
  check_to_integer(
      oracle::x87, [](uint128 w) { return __lton(value_of<long double>(w)); },
      [](uint128 w) { return __ltom(value_of<long double>(w)); });
}
TEST(Integer128, FromQuad) {
  check_to_integer(
      oracle::binary128, [](uint128 w) { return __qton(&w); },
      [](uint128 w) { return __qtom(&w); });
}

// -2^127 would fit, but the range test looks at the exponent alone.
TEST(Integer128, RejectsTheMostNegative) {
  const under_rounding scope(to_nearest);
  const bits q = power_of_two(127, true);
  EXPECT_EQ(returned(scope, [&] { return __qtom(&q); }), (answer{uint128{1} << 127, invalid}));
  EXPECT_EQ(returned(scope, [&] { return __ftom(-0x1p127F); }),
            (answer{uint128{1} << 127, invalid}));
}

// Integers where a target's rounding changes: all lengths, with ties and their neighbours behind
// 24, 53, 64 and 113 bits, and random ones.
template <class Check>
void for_each_integer(Check check) {
  check(uint128{0});
  for_each_boundary_integer(check);
  std::mt19937_64 random(13);
  const auto any = [&] { return uint128{random()} << 64 | random(); };
  for (const int precision : {24, 53, 64, 113})
    for (int lost = 1; lost <= 128 - precision; ++lost)
      for (int i = 0; i < 20; ++i) {
        const uint128 leading = uint128{1} << (precision - 1);
        const uint128 kept =
            i < 4 ? 2 * leading - 1 - static_cast<uint128>(i) : leading | (any() & (leading - 1));
        for (const int beside : {-1, 0, 1})
          for (const uint128 tail : {uint128{0}, uint128{1} << (lost - 1)}) {
            const uint128 n = (kept << lost) + tail + static_cast<uint128>(beside);
            check(n);
            check(-n);
          }
      }
  for (int i = 0; i < 250'000; ++i) check(any() >> random() % 128);
}

TEST(Integer128, ToFloating) {
  sweep s(8'000'000);
  for (const rounding mode : roundings) {
    const under_rounding scope(mode);
    for_each_integer([&](uint128 n) {
      const auto m = static_cast<int128>(n);
      const auto expected = [&](oracle::format to, bool is_signed) {
        return oracle::from_integer(to, n, is_signed, mode);
      };
      s.expect(returned(scope, [&] { return __ntof(n); }), expected(oracle::binary32, false),
               "ntof", mode, bits_of(n));
      s.expect(returned(scope, [&] { return __mtof(m); }), expected(oracle::binary32, true), "mtof",
               mode, bits_of(n));
      s.expect(returned(scope, [&] { return __ntod(n); }), expected(oracle::binary64, false),
               "ntod", mode, bits_of(n));
      s.expect(returned(scope, [&] { return __mtod(m); }), expected(oracle::binary64, true), "mtod",
               mode, bits_of(n));
      s.expect(returned(scope, [&] { return __ntol(n); }), expected(oracle::x87, false), "ntol",
               mode, bits_of(n));
      s.expect(returned(scope, [&] { return __mtol(m); }), expected(oracle::x87, true), "mtol",
               mode, bits_of(n));
      s.expect(stored(scope, [&](void* q) { __ntoq(q, n); }), expected(oracle::binary128, false),
               "ntoq", mode, bits_of(n));
      s.expect(stored(scope, [&](void* q) { __mtoq(q, m); }), expected(oracle::binary128, true),
               "mtoq", mode, bits_of(n));
    });
  }
  EXPECT_EQ(read_x87().status & all_flags, 0);
}

}  // namespace
}  // namespace zorvac::test
