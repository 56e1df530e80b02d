// Comparisons, and conversions between quads and every other type.
#include <gtest/gtest.h>

#include "operands.h"
#include "routines.h"
#include "sweep.h"

namespace zorvac::test {
namespace {

TEST(Comparison, AgreesWithMpfr) {
  sweep s(10'000'000);
  const under_rounding scope(up);
  for_each_pair([&](bits a, bits b) {
    const oracle::order o = oracle::compare(a, b);
    for (const comparison_row& row : comparisons)
      for (const auto routine : row.routines)
        s.expect(returned(scope, [&] { return routine(&a, &b); }), modelled(row, o), row.name, a,
                 b);
  });
}

struct conversions {
  const char* name;
  const std::vector<conversion_row>& rows;
  void (*for_each_operand)(const visitor&);
};
const conversions tables[] = {
    {"OfQuads", of_quads, for_each_quad},
    {"OfSingles", of_singles, [](const visitor& v) { for_each_word(oracle::binary32, v); }},
    {"OfDoubles", of_doubles, [](const visitor& v) { for_each_word(oracle::binary64, v); }},
    {"OfExtended", of_extended, [](const visitor& v) { for_each_word(oracle::x87, v); }},
    {"OfIntegers", of_integers, for_each_integer},
};
class Conversions : public testing::TestWithParam<conversions> {};
INSTANTIATE_TEST_SUITE_P(Quad, Conversions, testing::ValuesIn(tables),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_P(Conversions, AgreeWithMpfr) {
  sweep s(1'000'000 * static_cast<long>(GetParam().rows.size()));
  for (const rounding mode : roundings) {
    const under_rounding scope(mode);
    GetParam().for_each_operand([&](uint128 w) {
      for (const conversion_row& row : GetParam().rows) {
        const answer expected = row.model(w, mode);
        for (const auto routine : row.routines)
          s.expect(routine(scope, w), expected, row.name, mode, bits_of(w));
      }
    });
  }
  EXPECT_EQ(read_x87().status & all_flags, 0);
}

// An exponent of zero with the leading one stored, the smallest normal number; and a large exponent
// without it, which is no number at all to the x87, and 1 + 2^-63 to a conversion without it.
TEST(OfExtended, UnusualEncodings) {
  const under_rounding scope(up);
  const auto to_quad = of_extended[0].routines[0], to_integer = of_extended[1].routines[0];
  const uint128 one_without_leading_one = uint128{0x3fff} << 64 | 1;
  EXPECT_EQ(to_quad(scope, uint128{1} << 63), (answer{word_of(smallest_normal), denormal}));
  EXPECT_EQ(to_quad(scope, one_without_leading_one), (answer{word_of(indefinite), invalid}));
  EXPECT_EQ(to_integer(scope, one_without_leading_one), (answer{1, inexact}));
}

}  // namespace
}  // namespace zorvac::test
