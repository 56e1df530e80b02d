// Random operands.
#include <algorithm>
#include <bit>
#include <random>

#include "quads.h"

namespace zorvac::test {
namespace {

constexpr word ones(int n) { return n == 0 ? 0 : ~word{0} >> (128 - n); }

class generator {
 public:
  explicit generator(kind takes) : takes_(takes) {
    if (takes == kind::binary32) fraction_bits_ = 23, special_ = 0xff;
    if (takes == kind::binary64) fraction_bits_ = 52, special_ = 0x7ff;
    if (takes == kind::extended) fraction_bits_ = 63;
  }

  operands operator()() {
    const word mode = static_cast<word>(below(6) - 1);  // of rounding, two of them unknown
    if (takes_ != kind::pair && takes_ != kind::four) return {operand(), mode};
    const auto [ar, br] = related();
    const auto [ai, bi] = related();
    return takes_ == kind::pair ? operands{ar, br} : operands{ar, ai, br, bi};
  }

 private:
  int below(int n) { return static_cast<int>(random_() % static_cast<unsigned>(n)); }
  word any() { return word{random_()} << 64 | random_(); }

  // As it lies in memory: in the x87's format with the leading one, now and then the wrong one;
  // above a narrow number anything.
  word number(bool negative, int exponent, word fraction) {
    const bool stores_leading_one = takes_ == kind::extended;
    const bool leading_one = stores_leading_one && (exponent != 0) != (below(32) == 0);
    const int exponent_at = fraction_bits_ + stores_leading_one,
              sign_at = exponent_at + std::popcount(static_cast<unsigned>(special_));
    return (any() << 1 | word{negative}) << sign_at | static_cast<word>(exponent) << exponent_at |
           word{leading_one} << fraction_bits_ | (fraction & ones(fraction_bits_));
  }

  // Single bits, runs of ones, and few leading bits, with a tie behind them, or what lies beside.
  word digits(int width) {
    const word bit = word{1} << below(width), other = word{1} << below(width),
               run = ones(below(width + 1)) ^ ones(below(width + 1)),
               beside = static_cast<word>(below(5) - 2);
    const word shapes[] = {0, bit, bit ^ other, ~bit, run, any() * bit, any() * bit, any()};
    return (shapes[below(8)] + (below(2) != 0 ? beside : 0)) & ones(width);
  }

  // At or near the ends of the range, of this format and of narrower ones, and where integers are.
  int exponent() {
    const int bias = special_ / 2, reach = below(2) == 0 ? 2 : 135;
    const int centres[] = {0,         bias - 1074, bias - 149,  bias,
                           bias + 64, bias + 127,  bias + 1023, special_};
    const int near = centres[below(8)] + below(2 * reach + 1) - reach;
    return below(8) == 0 ? below(special_) : std::clamp(near, 0, special_);
  }

  word operand() {
    if (takes_ != kind::integer) return number(below(2) != 0, exponent(), digits(fraction_bits_));
    const word n = digits(1 + below(128));
    return below(2) != 0 ? n : -n;
  }

  // Two quads that may meet where an operation is delicate.
  std::array<word, 2> related() {
    const word a = operand(), b = operand();
    const int ea = static_cast<int>(magnitude(a) >> 112), near = below(261) - 130;
    const int bias = special_ / 2, huge = special_ + bias - ea;
    // Sums; products, tiny and huge; quotients.
    const int exponents[] = {ea + near, bias - ea + near, huge + near / 32, bias + ea + near,
                             ea - bias - near / 32};
    const int eb = exponents[below(5)];
    const word met = eb < 0 || eb > special_ ? b : number(b >> 127 != 0, eb, below(2) != 0 ? a : b);
    const word product = bits(load<__float128>(&a) * load<__float128>(&b)),  // of a quotient
        almost = product + static_cast<word>(below(5) - 2);
    const std::array<word, 2> pairs[] = {
        {a, a}, {a, a ^ word{1} << below(128)}, {almost, b}, {a, b}, {a, met}};
    return pairs[std::min(below(10), 4)];
  }

  kind takes_;
  int fraction_bits_ = 112, special_ = 0x7fff;  // of the format; the latter infinity's exponent
  std::mt19937_64 random_{4};
};

}  // namespace

std::function<operands()> operands_for(kind takes) { return generator(takes); }

}  // namespace zorvac::test
