// Complex quads: thin layers, held against the stated formulas, step by step, in the model.
#include <gtest/gtest.h>

#include <array>

#include "operands.h"
#include "zorvac/quad.h"

namespace zorvac::test {
namespace {

using oracle::operation;

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
constexpr operation add = operation::add, sub = operation::subtract, mul = operation::multiply,
                    div = operation::divide;

// x.re, x.im, y.re, y.im, and two parts that are no operand.
using parts = std::array<bits, 6>;

// What each routine stores from part `at` on. A sum stores its real part before it reads the
// imaginary ones; products and quotients are complete before anything is stored. A quotient goes
// through the reciprocal of the sum of squares, overflow and all.
parts modelled(computation& c, operation o, const parts& before, std::size_t at) {
  parts p = before;
  const auto& [xr, xi, yr, yi, unused_1, unused_2] = before;
  if (o == mul) {
    const bits t0 = c(mul, xr, yr), t1 = c(mul, xr, yi), t2 = c(mul, xi, yi), t3 = c(mul, xi, yr);
    p[at] = c(sub, t0, t2);
    p[at + 1] = c(add, t1, t3);
  } else if (o == div) {
    const bits r = c(div, one, c(add, c(mul, yr, yr), c(mul, yi, yi)));
    const bits p1 = c(mul, xr, yr), q = c(mul, xi, yi), s = c(mul, xi, yr), t = c(mul, xr, yi);
    p[at] = c(mul, c(add, p1, q), r);
    p[at + 1] = c(mul, c(sub, s, t), r);
  } else {
    p[at] = c(o, xr, yr);
    p[at + 1] = c(o, p[1], p[3]);
  }
  return p;
}

struct complex_routine {
  const char* name;
  operation computes;
  void (*call)(void*, const void*, const void*, const void*, const void*);
};
constexpr complex_routine routines[] = {
    {"caddq", add, __caddq},   {"a_caddq", add, a_caddq}, {"csubq", sub, __csubq},
    {"a_csubq", sub, a_csubq}, {"cmulq", mul, __cmulq},   {"a_cmulq", mul, a_cmulq},
    {"cdivq", div, __cdivq},   {"a_cdivq", div, a_cdivq},
};

TEST(ComplexArithmetic, FollowsItsFormulasWhereverItStores) {
  std::mt19937_64 pick(12);
  random_operands random(11);
  const auto any = [&] {
    return pick() % 2 != 0 ? random() : notable_operands[pick() % std::size(notable_operands)];
  };
  for (const rounding mode : roundings) {
    const under_rounding scope(mode);
    for (int i = 0; i < 20'000; ++i) {
      const parts before = {any(), any(), any(), any(), zero, zero};
      const std::size_t at = i % 2 == 0 ? 4 : pick() % 4;
      for (const complex_routine& r : routines) {
        computation c{mode};
        const parts expected = modelled(c, r.computes, before, at);
        parts p = before;
        scope.restart();
        r.call(&p[at], &p[0], &p[1], &p[2], &p[3]);
        ASSERT_EQ(flag_names(scope.raised()), flag_names(c.flags)) << r.name << i;
        for (std::size_t k = 0; k < p.size(); ++k)
          ASSERT_EQ(p[k], expected[k]) << r.name << " part " << k << " of " << before[0]
                                       << before[1] << before[2] << before[3];
      }
    }
  }
}

// Negation of both parts; equality, numeric in the __ forms, bitwise in the a_ forms, a difference
// that is meant. None raises a flag.
TEST(ComplexComparison, IsNumericOrBitwise) {
  const under_rounding scope(up);
  std::vector<bits> operands(notable_operands, notable_operands + 11);
  for (const int bit : {0, 33, 65, 97})  // of each 32-bit word
    operands.push_back(bits_of(word_of(one) ^ uint128{1} << bit));
  const auto equal = [](bits a, bits b) { return oracle::compare(a, b) == oracle::order::equal; };
  for (const bits ar : operands)
    for (const bits ai : operands) {
      for (const bits br : operands)
        for (const bits bi : operands) {
          const int numeric = equal(ar, br) && equal(ai, bi), bitwise = ar == br && ai == bi;
          EXPECT_EQ(__ceqq(&ar, &ai, &br, &bi), numeric) << ar << ai << br << bi;
          EXPECT_EQ(__cneq(&ar, &ai, &br, &bi), 1 - numeric) << ar << ai << br << bi;
          EXPECT_EQ(a_ceqq(&ar, &ai, &br, &bi), bitwise) << ar << ai << br << bi;
          EXPECT_EQ(a_cneq(&ar, &ai, &br, &bi), 1 - bitwise) << ar << ai << br << bi;
        }
      for (const auto negate : {__cnegq, a_cnegq}) {
        bits z[2];
        negate(z, &ar, &ai);
        EXPECT_EQ(z[0], negated(ar));
        EXPECT_EQ(z[1], negated(ai));
      }
    }
  EXPECT_EQ(scope.raised(), 0u);
}

// The first float is stored before the imaginary part is read: here it becomes its last four bytes.
TEST(ComplexConversion, StoresTheRealPartFirst) {
  const under_rounding scope(to_nearest);
  bits z[2] = {power_of_two(3), power_of_two(4)};
  a_cqtoc(&z[1], z);
  EXPECT_EQ(z[1].low, image(std::array<float, 2>{8, 16}));
  EXPECT_EQ(scope.raised(), inexact);
}

}  // namespace
}  // namespace zorvac::test
