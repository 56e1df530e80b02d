#ifndef ZORVAC_TESTS_QUAD_OPERANDS_H
#define ZORVAC_TESTS_QUAD_OPERANDS_H
// Operands where binary128 arithmetic can go wrong, in the manner of the classical test suites:
// boundary exponents with sparse significands, every alignment of two significands, results on
// both edges of the exponent range; and seeded random ones that favour the same places.
#include <functional>
#include <random>
#include <utility>
#include <vector>

#include "oracle.h"

namespace zorvac::test {

// One of each kind, for what is tried in many ways.
constexpr bits notable_operands[] = {
    // clang-format off
    zero, negated(zero), one, negated(one), smallest, smallest_normal, largest, infinity,
    negated(infinity), signalling_nan, quiet_nan, power_of_two(1), power_of_two(-1),
    power_of_two(9000), power_of_two(-9000), quad(false, 0x4000, quiet_bit),
    quad(false, 1, quiet_bit), quad(false, 0, 0x1234), quad(false, 0x3f90, 1),
    quad(true, 0x3fff, 1, 1)
    // clang-format on
};

class random_operands {
 public:
  explicit random_operands(std::uint64_t seed) : random_(seed) {}
  bits operator()();
  // Half of the pairs are unrelated, half meet where some operation is delicate.
  std::pair<bits, bits> pair();

 private:
  std::uint64_t below(std::uint64_t n) { return random_() % n; }
  uint128 fraction();
  unsigned exponent();
  std::mt19937_64 random_;
};

// Pairs for arithmetic and comparison.
void for_each_pair(const std::function<void(bits, bits)>& visit);

using visitor = std::function<void(uint128)>;

// Quads for every conversion: near integers, and near and halfway between the numbers of each
// smaller format, where its last bit lies and around its limits.
void for_each_quad(const visitor& visit);

// Words of a format, with more bits above: exponents near the ends and where values are integers,
// every 13th besides; fractions that reach both their ends, and random ones.
void for_each_word(oracle::format f, const visitor& visit);

// Powers of two and their neighbours, ties and their neighbours behind as many bits as each format
// has, random ones of any length, and the negatives of all, modulo 2^128.
void for_each_integer(const visitor& visit);

}  // namespace zorvac::test
#endif
