// Random operands from a seed.
#include <algorithm>
#include <bit>

#include "quads.h"

namespace zorvac::test {
namespace {

using enum kind;

constexpr word ones(int n) { return n == 0 ? 0 : ~word{0} >> (128 - n); }

struct generator {
  kind takes;
  bool is_32 = takes == binary32, is_64 = takes == binary64;
  int fraction_bits = is_32 ? 23 : is_64 ? 52 : takes == extended ? 63 : 112;
  int special = is_32 ? 0xff : is_64 ? 0x7ff : 0x7fff;  // infinity's exponent
  case_random random;

  operands any_operands() {
    const auto [ar, br] = related();
    const auto [ai, bi] = related();
    if (takes == four) return {ar, ai, below(2) != 0 ? br : addend(ar, ai), bi};
    if (takes == pair) return {ar, br};
    return {operand(), static_cast<word>(below(6) - 1)};  // rounding modes, two of them unknown
  }

  int below(int n) { return static_cast<int>(random.below(static_cast<unsigned>(n))); }
  word any() { return word{random()} << 64 | random(); }

  // A number as in memory. The x87's format has the leading one, which is sometimes wrong. The bits
  // above a narrow number are random.
  word number(bool negative, int exponent, word fraction) {
    const bool leading_one = takes == extended && (exponent != 0) != (below(32) == 0);
    const int exponent_at = fraction_bits + (takes == extended),
              sign_at = exponent_at + std::popcount(static_cast<unsigned>(special));
    return (any() << 1 | word{negative}) << sign_at | static_cast<word>(exponent) << exponent_at |
           word{leading_one} << fraction_bits | (fraction & ones(fraction_bits));
  }

  // Single bits, runs of ones, and few leading bits; half of them changed by up to 2.
  word digits(int width) {
    const word bit = word{1} << below(width), other = word{1} << below(width),
               run = ones(below(width + 1)) ^ ones(below(width + 1)),
               beside = static_cast<word>(below(5) - 2);
    const word shapes[] = {0, bit, bit ^ other, ~bit, run, any() * bit, any() * bit, any()};
    return (shapes[below(8)] + (below(2) != 0 ? beside : 0)) & ones(width);
  }

  // At or near the ends of the range of this format and of narrower ones, and near the integers.
  int exponent() {
    const int bias = special / 2, reach = below(2) == 0 ? 2 : 135;
    const int centres[] = {0,         bias - 1074, bias - 149,  bias,
                           bias + 64, bias + 127,  bias + 1023, special};
    const int near = centres[below(8)] + below(2 * reach + 1) - reach;
    return below(8) == 0 ? below(special) : std::clamp(near, 0, special);
  }

  word operand() {
    if (takes != integer) return number(below(2) != 0, exponent(), digits(fraction_bits));
    const word n = digits(1 + below(128));
    return below(2) != 0 ? n : -n;
  }

  // A number so near to -ab that all but the last bits of the product cancel, or of a size that
  // decides how the product is rounded.
  word addend(word a, word b) {
    const word product = bits(load<__float128>(&a) * load<__float128>(&b));
    const int far[] = {0, 0, 112, 113, 114, 226};
    const word away = static_cast<word>(far[below(6)]) << 112;
    const word near = magnitude(product) > away ? product - away : product;
    return (below(2) != 0 ? near : near ^ sign) + static_cast<word>(below(3));
  }

  // Two quads that may be a difficult case of an operation.
  std::array<word, 2> related() {
    const word a = operand(), b = operand();
    const int ea = static_cast<int>(magnitude(a) >> 112), near = below(261) - 130;
    const int bias = special / 2, huge = special + bias - ea;
    // Sums; products, tiny and huge; quotients.
    const int exponents[] = {ea + near, bias - ea + near, huge + near / 32, bias + ea + near,
                             ea - bias - near / 32};
    const int eb = exponents[below(5)];
    const word met = eb < 0 || eb > special ? b : number(b >> 127 != 0, eb, below(2) != 0 ? a : b),
               product = bits(load<__float128>(&a) * load<__float128>(&b)),  // for a quotient
        almost = product + static_cast<word>(below(5) - 2);
    const std::array<word, 2> pairs[] = {
        {a, a}, {a, a ^ word{1} << below(128)}, {almost, b}, {a, b}, {a, met}};
    return pairs[std::min(below(10), 4)];
  }
};

}  // namespace

operands random_operands(kind takes, std::uint64_t seed) {
  return generator{.takes = takes, .random = case_random(seed)}.any_operands();
}

}  // namespace zorvac::test
