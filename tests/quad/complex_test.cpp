// The a_ entry points and complex quads: thin layers, held against the entries they stand on and
// against the stated formulas, step by step, in the model.
#include <gtest/gtest.h>

#include <array>

#include "operands.h"
#include "oracle.h"
#include "sweep.h"
#include "zorvac/quad.h"

// What a caller's registers hold beyond a narrow argument is not part of it.
extern "C" {
void ctoq_wide(void*, std::int64_t) __asm__("a_ctoq");
void stoq_wide(void*, std::int64_t) __asm__("a_stoq");
void chtocq_wide(void*, std::int64_t) __asm__("a_chtocq");
void stocq_wide(void*, std::int64_t) __asm__("a_stocq");
}

namespace zorvac::test {
namespace {

using oracle::operation;

struct complex_quad {
  bits re, im;
  bool operator==(const complex_quad&) const = default;
};
std::ostream& operator<<(std::ostream& out, const complex_quad& z) {
  return out << '(' << z.re << ", " << z.im << ')';
}
constexpr complex_quad untouched{{0x5555'5555'5555'5555, 0x5555'5555'5555'5555},
                                 {0x5555'5555'5555'5555, 0x5555'5555'5555'5555}};

const std::vector<bits>& few_operands() {
  static const std::vector<bits> operands = [] {
    std::vector<bits> all = {zero,
                             negated(zero),
                             one,
                             negated(one),
                             smallest,
                             smallest_normal,
                             largest,
                             infinity,
                             negated(infinity),
                             signalling_nan,
                             quiet_nan,
                             power_of_two(9000),
                             power_of_two(-9000),
                             quad(false, 0x4000, 0x4000'0000'0000),
                             quad(false, 0x3fff, 1, 1),
                             power_of_two(31),
                             power_of_two(63, true)};
    random_operands random(11);
    for (int i = 0; i < 100; ++i) all.push_back(random());
    return all;
  }();
  return operands;
}

// ---- Forwarding ----

template <auto Alternate, auto Original>
void expect_same_result() {
  for (const rounding mode : roundings) {
    const under_rounding scope(mode);
    for (const bits a : few_operands())
      for (const bits b : few_operands()) {
        if constexpr (std::is_invocable_v<decltype(Original), void*, const void*, const void*>) {
          EXPECT_EQ(stored(scope, [&](void* q) { Alternate(q, &a, &b); }),
                    stored(scope, [&](void* q) { Original(q, &a, &b); }));
        } else if constexpr (std::is_invocable_r_v<int, decltype(Original), const void*,
                                                   const void*>) {
          EXPECT_EQ(returned(scope, [&] { return Alternate(&a, &b); }),
                    returned(scope, [&] { return Original(&a, &b); }));
        } else if constexpr (std::is_invocable_v<decltype(Original), const void*, int>) {
          const int rounding_argument = static_cast<int>(b.low % 7) - 1;
          EXPECT_EQ(returned(scope, [&] { return Alternate(&a, rounding_argument); }),
                    returned(scope, [&] { return Original(&a, rounding_argument); }));
        } else {
          EXPECT_EQ(returned(scope, [&] { return Alternate(&a); }),
                    returned(scope, [&] { return Original(&a); }));
          break;
        }
      }
  }
}
template <class Value, class Alternate, class Original>
void expect_same_quad(Alternate alternate, Original original) {
  for (const rounding mode : roundings) {
    const under_rounding scope(mode);
    for (const bits a : few_operands()) {
      const Value v = value_of<Value>(word_of(a));
      EXPECT_EQ(stored(scope, [&](void* q) { alternate(q, v); }),
                stored(scope, [&](void* q) { original(q, v); }));
    }
  }
}

TEST(AlternateEntries, GiveWhatTheirTargetsGive) {
  expect_same_result<a_addq, __addq>();
  expect_same_result<a_subq, __subq>();
  expect_same_result<a_mulq, __mulq>();
  expect_same_result<a_divq, __divq>();
  expect_same_result<a_eqq, __eqq>();
  expect_same_result<a_neq, __neq>();
  expect_same_result<a_ltq, __ltq>();
  expect_same_result<a_leq, __leq>();
  expect_same_result<a_gtq, __gtq>();
  expect_same_result<a_geq, __geq>();
  expect_same_result<compareq, __compareq>();
  expect_same_result<a_qtoi, __qtoi>();
  expect_same_result<a_qtoc, __qtoi>();
  expect_same_result<a_qtos, __qtoi>();
  expect_same_result<a_qtoj, __qtoj>();
  expect_same_result<a_qtof, __qtof>();
  expect_same_result<a_qtod, __qtod>();
  expect_same_result<a_qtol, __qtol>();
  expect_same_quad<std::int32_t>(a_itoq, __itoq);
  expect_same_quad<std::int64_t>(a_jtoq, __jtoq);
  expect_same_quad<float>(a_ftoq, __ftoq);
  expect_same_quad<double>(a_dtoq, __dtoq);
  expect_same_quad<long double>(a_ltoq, __ltoq);
  expect_same_quad<bits>([](void* q, bits a) { a_negq(q, &a); },
                         [](void* q, bits a) { __negq(q, &a); });
}

TEST(AlternateEntries, ExtendTheSignOfNarrowIntegers) {
  const under_rounding scope(to_nearest);
  for (const std::int64_t wide :
       {0x0L, 0x7fL, 0x80L, 0x1234'5678'9abc'7fffL, -0x123'8000L, 0xffL, 0xffffL, 0x1'0000L}) {
    const auto expected = [&](std::int64_t narrow) {
      return oracle::from_integer(oracle::binary128, static_cast<uint128>(narrow), true,
                                  to_nearest);
    };
    const auto byte = static_cast<std::int8_t>(wide);
    const auto half = static_cast<std::int16_t>(wide);
    EXPECT_EQ(stored(scope, [&](void* q) { ctoq_wide(q, wide); }), expected(byte)) << wide;
    EXPECT_EQ(stored(scope, [&](void* q) { stoq_wide(q, wide); }), expected(half)) << wide;

    complex_quad z = untouched;
    chtocq_wide(&z, wide);
    EXPECT_EQ(z, (complex_quad{bits_of(expected(byte).value), zero})) << wide;

    // Its low four bytes cleared, bytes 16 to 19 left alone.
    bits re = bits_of(expected(half).value);
    re.low &= ~std::uint64_t{0xffff'ffff};
    z = untouched;
    stocq_wide(&z, wide);
    EXPECT_EQ(z, (complex_quad{re, {0x5555'5555, 0}})) << wide;
  }
}

// ---- Complex arithmetic ----

// A computation in the model, which collects the flags of its steps.
struct computation {
  rounding mode;
  unsigned flags = 0;
  bits operator()(operation o, bits a, bits b) {
    const answer step = oracle::arithmetic(o, a, b, mode);
    flags |= step.flags;
    return bits_of(step.value);
  }
};

complex_quad sum(computation& c, operation o, const complex_quad& x, const complex_quad& y) {
  return {c(o, x.re, y.re), c(o, x.im, y.im)};
}
complex_quad product(computation& c, const complex_quad& x, const complex_quad& y) {
  constexpr operation mul = operation::multiply;
  const bits t0 = c(mul, x.re, y.re), t1 = c(mul, x.re, y.im);
  const bits t2 = c(mul, x.im, y.im), t3 = c(mul, x.im, y.re);
  return {c(operation::subtract, t0, t2), c(operation::add, t1, t3)};
}
// Through the reciprocal of the sum of squares, overflow and all.
complex_quad quotient(computation& c, const complex_quad& x, const complex_quad& y) {
  constexpr operation mul = operation::multiply;
  const bits d = c(operation::add, c(mul, y.re, y.re), c(mul, y.im, y.im));
  const bits r = c(operation::divide, one, d);
  const bits p = c(mul, x.re, y.re), q = c(mul, x.im, y.im);
  const bits s = c(mul, x.im, y.re), t = c(mul, x.re, y.im);
  return {c(mul, c(operation::add, p, q), r), c(mul, c(operation::subtract, s, t), r)};
}
complex_quad modelled(computation& c, operation o, const complex_quad& x, const complex_quad& y) {
  if (o == operation::multiply) return product(c, x, y);
  if (o == operation::divide) return quotient(c, x, y);
  return sum(c, o, x, y);
}

struct complex_routine {
  const char* name;
  operation computes;
  void (*call)(void*, const void*, const void*, const void*, const void*);
};
constexpr complex_routine complex_routines[] = {
    {"caddq", operation::add, __caddq},      {"a_caddq", operation::add, a_caddq},
    {"csubq", operation::subtract, __csubq}, {"a_csubq", operation::subtract, a_csubq},
    {"cmulq", operation::multiply, __cmulq}, {"a_cmulq", operation::multiply, a_cmulq},
    {"cdivq", operation::divide, __cdivq},   {"a_cdivq", operation::divide, a_cdivq},
};

TEST(ComplexArithmetic, FollowsItsFormulas) {
  std::mt19937_64 pick(12);
  const std::vector<bits>& operands = few_operands();
  const auto any = [&] {
    const std::size_t n = pick() % 2 != 0 ? operands.size() : 17;  // often a special one
    return complex_quad{operands[pick() % n], operands[pick() % n]};
  };
  for (const rounding mode : roundings) {
    const under_rounding scope(mode);
    for (int i = 0; i < 10'000; ++i) {
      const complex_quad x = any(), y = any();
      for (const complex_routine& r : complex_routines) {
        computation c{mode};
        const complex_quad expected = modelled(c, r.computes, x, y);
        complex_quad z = untouched;
        scope.restart();
        r.call(&z, &x.re, &x.im, &y.re, &y.im);
        ASSERT_EQ(flag_names(scope.raised()), flag_names(c.flags)) << r.name << x << y;
        ASSERT_EQ(z, expected) << r.name << x << y;
      }
    }
  }
}

// Products and quotients are complete before anything is stored; sums store the real part before
// they read the imaginary parts.
TEST(ComplexArithmetic, MayOverlapItsOperands) {
  const complex_quad x{power_of_two(1), power_of_two(2)}, y{power_of_two(5), power_of_two(9)};
  for (const complex_routine& r : complex_routines) {
    const bool sums = r.computes == operation::add || r.computes == operation::subtract;
    for (int at = 0; at < 4; ++at) {  // the part that the real result replaces
      std::array<bits, 5> parts{x.re, x.im, y.re, y.im, zero};
      const std::array<bits, 5> before = parts;
      r.call(&parts[static_cast<std::size_t>(at)], &parts[0], &parts[1], &parts[2], &parts[3]);
      computation c{to_nearest};
      complex_quad expected = modelled(c, r.computes, x, y);
      if (sums && at == 1) expected.im = c(r.computes, expected.re, y.im);
      if (sums && at == 3) expected.im = c(r.computes, x.im, expected.re);
      for (std::size_t i = 0; i < 5; ++i) {
        const auto place = static_cast<std::size_t>(at);
        const bits want = i == place ? expected.re : i == place + 1 ? expected.im : before[i];
        EXPECT_EQ(parts[i], want) << r.name << " into part " << at << ", part " << i;
      }
    }
  }
}

TEST(ComplexArithmetic, NegatesBothParts) {
  const under_rounding scope(down);
  for (const auto negate : {__cnegq, a_cnegq})
    for (const bits a : few_operands()) {
      complex_quad z = untouched;
      const bits b = signalling_nan;
      negate(&z, &a, &b);
      EXPECT_EQ(z, (complex_quad{negated(a), negated(b)}));
    }
  EXPECT_EQ(scope.raised(), 0u);
}

// Numeric equality in the __ forms, bitwise in the a_ forms: a difference that is meant.
TEST(ComplexComparison, IsNumericOrBitwise) {
  const under_rounding scope(up);
  const auto numerically_equal = [](bits a, bits b) {
    return oracle::compare(a, b) == oracle::order::equal;
  };
  std::vector<bits> operands(few_operands().begin(), few_operands().begin() + 14);
  operands.push_back(bits_of(word_of(one) + 1));  // each 32-bit word
  operands.push_back(bits_of(word_of(one) + (uint128{1} << 33)));
  operands.push_back(bits_of(word_of(one) + (uint128{1} << 65)));
  operands.push_back(bits_of(word_of(one) + (uint128{1} << 97)));
  for (const bits ar : operands)
    for (const bits br : operands)
      for (const bits ai : operands)
        for (const bits bi : operands) {
          const int numeric = numerically_equal(ar, br) && numerically_equal(ai, bi);
          const int bitwise = ar == br && ai == bi;
          EXPECT_EQ(__ceqq(&ar, &ai, &br, &bi), numeric) << ar << ai << br << bi;
          EXPECT_EQ(__cneq(&ar, &ai, &br, &bi), 1 - numeric) << ar << ai << br << bi;
          EXPECT_EQ(a_ceqq(&ar, &ai, &br, &bi), bitwise) << ar << ai << br << bi;
          EXPECT_EQ(a_cneq(&ar, &ai, &br, &bi), 1 - bitwise) << ar << ai << br << bi;
        }
  EXPECT_EQ(scope.raised(), 0u);
}

// ---- Complex conversions ----

TEST(ComplexConversion, ToComplexQuad) {
  const under_rounding scope(up);
  for (const bits a : few_operands()) {
    const auto widened = [](oracle::format f, auto v) {
      return bits_of(oracle::widen(f, image(v)).value);
    };
    const auto counted = [](std::int64_t n) {
      return bits_of(
          oracle::from_integer(oracle::binary128, static_cast<uint128>(n), true, up).value);
    };
    const auto given = [](auto store) {
      complex_quad z = untouched;
      store(&z);
      return z;
    };
    const auto f = value_of<std::array<float, 2>>(word_of(a));
    const auto d = value_of<std::array<double, 2>>(word_of(a));
    const auto i = static_cast<std::int32_t>(a.high >> 20);
    const auto j = static_cast<std::int64_t>(a.high);
    using oracle::binary32, oracle::binary64;
    EXPECT_EQ(given([&](void* z) { a_ctocq(z, f.data()); }),
              (complex_quad{widened(binary32, f[0]), widened(binary32, f[1])}));
    EXPECT_EQ(given([&](void* z) { a_cdtocq(z, d.data()); }),
              (complex_quad{widened(binary64, d[0]), widened(binary64, d[1])}));
    EXPECT_EQ(given([&](void* z) { a_ftocq(z, f[1]); }),
              (complex_quad{widened(binary32, f[1]), zero}));
    EXPECT_EQ(given([&](void* z) { a_dtocq(z, d[1]); }),
              (complex_quad{widened(binary64, d[1]), zero}));
    EXPECT_EQ(given([&](void* z) { a_itocq(z, i); }), (complex_quad{counted(i), zero}));
    EXPECT_EQ(given([&](void* z) { a_jtocq(z, j); }), (complex_quad{counted(j), zero}));
    // Its low four bytes cleared, bytes 16 to 19 left alone.
    EXPECT_EQ(given([&](void* z) { a_qtocq(z, &a); }),
              (complex_quad{{a.low & ~std::uint64_t{0xffff'ffff}, a.high}, {0x5555'5555, 0}}));
  }
  EXPECT_EQ(scope.raised(), 0u);
}

TEST(ComplexConversion, FromComplexQuad) {
  for (const rounding mode : roundings) {
    const under_rounding scope(mode);
    for (const bits re : few_operands()) {
      const complex_quad z{re, quad(true, 0x4005, 0x1234'5678'9abc, 77)};
      const auto single = [&](bits q) { return oracle::narrow(oracle::binary32, q, mode); };
      const auto twice = [&](bits q) { return oracle::narrow(oracle::binary64, q, mode); };
      EXPECT_EQ(returned(scope, [&] { return a_cqtof(&z); }), single(re));
      EXPECT_EQ(returned(scope, [&] { return a_cqtod(&z); }), twice(re));
      const answer i = oracle::to_signed(re, 32, 0);
      EXPECT_EQ(returned(scope, [&] { return a_cqtoi(&z); }), i);
      EXPECT_EQ(returned(scope, [&] { return a_cqtoch(&z); }), i);
      EXPECT_EQ(returned(scope, [&] { return a_cqtos(&z); }), i);
      EXPECT_EQ(returned(scope, [&] { return a_cqtoj(&z); }), oracle::to_signed(re, 64, 0));
      EXPECT_EQ(stored(scope, [&](void* q) { a_cqtoq(q, &z); }), (answer{word_of(re), 0}));

      std::array<std::uint32_t, 4> floats{0, 0, 0x5555, 0x5555};
      scope.restart();
      a_cqtoc(floats.data(), &z);
      EXPECT_EQ(scope.raised(), single(re).flags | single(z.im).flags);
      EXPECT_EQ(floats, (std::array<std::uint32_t, 4>{
                            static_cast<std::uint32_t>(single(re).value),
                            static_cast<std::uint32_t>(single(z.im).value), 0x5555, 0x5555}));
      std::array<std::uint64_t, 3> doubles{0, 0, 0x5555};
      scope.restart();
      a_cqtocd(doubles.data(), &z);
      EXPECT_EQ(scope.raised(), twice(re).flags | twice(z.im).flags);
      EXPECT_EQ(doubles, (std::array<std::uint64_t, 3>{
                             static_cast<std::uint64_t>(twice(re).value),
                             static_cast<std::uint64_t>(twice(z.im).value), 0x5555}));
    }
  }
}

// The first float is stored before the imaginary part is read: here it becomes its last four bytes.
TEST(ComplexConversion, StoresTheRealPartFirst) {
  const under_rounding scope(to_nearest);
  complex_quad z{power_of_two(3), power_of_two(4)};
  a_cqtoc(&z.im, &z);
  EXPECT_EQ(z.im.low, image(std::array<float, 2>{8, 16}));
  EXPECT_EQ(scope.raised(), inexact);
}

}  // namespace
}  // namespace zorvac::test
