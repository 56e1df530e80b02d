#ifndef ZORVAC_TESTS_QUAD_OPERANDS_H
#define ZORVAC_TESTS_QUAD_OPERANDS_H
// Operands where binary128 arithmetic can go wrong, in the manner of the classical test suites:
// boundary exponents with sparse significands, every alignment of two significands, results on
// both edges of the exponent range; and seeded random ones that favour the same places.
#include <random>
#include <utility>
#include <vector>

#include "binary128.h"
#include "oracle.h"

namespace zorvac::test {

using operand_pair = std::pair<bits, bits>;

// Single operands: all boundary exponents x sparse significands x signs; NaNs and infinities.
std::vector<bits> boundary_operands();

// Pairs of numbers whose exponents differ by -130 to 130, whose product's or quotient's exponent
// lies within 130 of the smallest normal one, or at the edge of overflow.
std::vector<operand_pair> aligned_pairs();

class random_operands {
 public:
  explicit random_operands(std::uint64_t seed) : random_(seed) {}
  bits operator()();
  // Half of the pairs are unrelated, half meet where some operation is delicate.
  operand_pair pair();

 private:
  std::uint64_t below(std::uint64_t n) { return random_() % n; }
  uint128 fraction();
  unsigned exponent();
  std::mt19937_64 random_;
};

// Every power of two and its neighbours, and the negatives of all, modulo 2^128.
template <class Check>
void for_each_boundary_integer(Check check) {
  for (int k = 0; k < 128; ++k)
    for (int d = -2; d <= 2; ++d)
      for (const int sign : {1, -1}) {
        const uint128 n = (uint128{1} << k) + static_cast<uint128>(d);
        check(sign > 0 ? n : -n);
      }
}

// Words of a format: exponents near the ends and where values are integers, every 13th besides;
// with fractions that reach both their ends, and random ones.
template <class Check>
void for_each_word(oracle::format f, Check check) {
  const int fraction_bits = f.precision - 1;
  const uint128 ones = (uint128{1} << fraction_bits) - 1, top = uint128{1} << (fraction_bits - 1);
  std::mt19937_64 random(9);
  const auto any = [&] { return (uint128{random()} << 64 | random()) & ones; };
  const int exponents = 1 << f.exponent_bits, bias = exponents / 2 - 1;
  for (int e = 0; e < exponents; ++e) {
    const bool edge = e < 100 || e > exponents - 100 || (e > bias - 5 && e < bias + 135);
    if (!edge && e % 13 != 0) continue;
    for (const bool negative : {false, true})
      for (const uint128 fraction : {uint128{0}, uint128{1}, uint128{2}, ones, ones - 1, top,
                                     top | 1, top - 1, top >> 1, ones >> 3, any(), any(), any()}) {
        const uint128 leading = f.leading_one_stored && e != 0 ? uint128{1} << fraction_bits : 0;
        const int exponent_at = fraction_bits + f.leading_one_stored;
        check(uint128{negative} << (exponent_at + f.exponent_bits) |
              static_cast<uint128>(e) << exponent_at | leading | fraction);
      }
  }
}

}  // namespace zorvac::test
#endif
