// Boundary and random operands.
#include "operands.h"

namespace zorvac::test {
namespace {

constexpr uint128 fraction_mask = (uint128{1} << 112) - 1;
constexpr int no_exponent = 0x7fff;  // of a number

bits assemble(bool negative, int exponent, uint128 fraction) {
  return bits_of(uint128{negative} << 127 | static_cast<uint128>(exponent) << 112 |
                 (fraction & fraction_mask));
}

// Bits at both ends, around the word boundary and around the widths of the narrower formats.
constexpr uint128 sparse_fractions[] = {
    0,
    1,
    2,
    3,
    uint128{1} << 63,
    uint128{1} << 64,
    uint128{1} << 111,
    uint128{1} << 110,
    uint128{1} << 59 | 1,
    (uint128{1} << 88) - 1,
    uint128{3} << 48,
    fraction_mask,
    fraction_mask - 1,
    fraction_mask << 1,
    fraction_mask << 59,
    fraction_mask << 60,
    fraction_mask << 88,
    fraction_mask ^ uint128{1} << 64,
};

}  // namespace

std::vector<bits> boundary_operands() {
  static constexpr int exponents[] = {0,      1,      2,           0x3fff - 65,  0x3fff - 1,
                                      0x3fff, 0x4000, 0x4000 + 62, 0x4000 + 112, 0x7ffd,
                                      0x7ffe, 0x7fff};
  std::vector<bits> operands;
  for (const bool negative : {false, true})
    for (const int e : exponents)
      for (const uint128 f : sparse_fractions) operands.push_back(assemble(negative, e, f));
  return operands;
}

std::vector<operand_pair> aligned_pairs() {
  std::vector<std::pair<int, int>> exponents;
  for (int d = -130; d <= 130; ++d) {
    exponents.emplace_back(0x4000, 0x4000 + d);             // sum: every alignment
    exponents.emplace_back(d > 0 ? d : 0, d < 0 ? -d : 0);  // and among the subnormals
    exponents.emplace_back(0x2000, 0x1fff + d);             // product with biased exponent d
    exponents.emplace_back(0x1000, 0x4fff - d);             // quotient with biased exponent d
  }
  for (int d = -3; d <= 3; ++d) {
    exponents.emplace_back(0x6000, 0x5ffe + d);  // product at the edge of overflow
    exponents.emplace_back(0x6000, 0x2001 + d);  // quotient
    exponents.emplace_back(0x7ffe, 0x7ffb + d);  // sum
  }
  std::vector<operand_pair> pairs;
  unsigned signs = 0;
  for (const auto& [x, y] : exponents)
    for (const uint128 f : sparse_fractions)
      for (const uint128 g : sparse_fractions) {
        ++signs;
        pairs.emplace_back(assemble((signs & 1) != 0, x, f), assemble((signs / 3 & 1) != 0, y, g));
      }
  return pairs;
}

uint128 random_operands::fraction() {
  const uint128 any = uint128{random_()} << 64 | random_();
  switch (below(6)) {
    case 0:
      return uint128{1} << below(112) ^ uint128 { 1 } << below(112);  // two bits
    case 1:
      return (fraction_mask >> below(113)) ^ (fraction_mask >> below(113));  // a run of ones
    case 2:
      return any << below(112);  // few leading bits: ties
    case 3:
      return fraction_mask - (any & fraction_mask) / (uint128{1} << below(112));
    default:
      return any & fraction_mask;
  }
}

unsigned random_operands::exponent() {
  static constexpr unsigned edges[] = {0, 1, 0x3fff, 0x7ffe};
  switch (below(4)) {
    case 0:
      return static_cast<unsigned>(edges[below(4)] + below(4)) & 0x7fff;
    case 1:
      return static_cast<unsigned>(0x3fff - 130 + below(260));
    default:
      return static_cast<unsigned>(below(0x8000));
  }
}

bits random_operands::operator()() {
  return assemble(below(2) != 0, static_cast<int>(exponent()), fraction());
}

operand_pair random_operands::pair() {
  const bits a = (*this)(), b = (*this)();
  const int ea = static_cast<int>(a.high >> 48 & 0x7fff);
  const int near = static_cast<int>(below(261)) - 130;
  const auto with_exponent = [&](int e) -> operand_pair {
    if (e < 0 || e >= no_exponent) return {a, b};
    return {a, bits_of((word_of(b) & ~(uint128{0x7fff} << 112)) | static_cast<uint128>(e) << 112)};
  };
  switch (below(8)) {
    case 0:
      return with_exponent(ea + near);  // sums
    case 1:
      return with_exponent(0x3fff - ea + near);  // products around the smallest normal number
    case 2:
      return with_exponent(ea + 0x3fff + near);  // quotients there
    case 3: {                                    // quotients that are almost exact
      const answer product = oracle::arithmetic(oracle::operation::multiply, a, b, to_nearest);
      return {bits_of(product.value + below(5) - 2), b};
    }
    default:
      return {a, b};
  }
}

}  // namespace zorvac::test
