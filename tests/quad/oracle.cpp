// The model: unpack to MPFR, operate with an unbounded exponent range, settle into the format.
#include "oracle.h"

#include <mpfr.h>

#include <array>

namespace zorvac::test::oracle {
namespace {

static_assert(sizeof(mp_limb_t) == 8);
constexpr mpfr_rnd_t mpfr_mode[] = {MPFR_RNDN, MPFR_RNDD, MPFR_RNDU, MPFR_RNDZ};

constexpr int bias(format f) { return (1 << (f.exponent_bits - 1)) - 1; }
constexpr int fraction_bits(format f) { return f.precision - !f.leading_one_stored; }
constexpr uint128 low_bits(int n) { return n >= 128 ? ~uint128{0} : (uint128{1} << n) - 1; }

// An MPFR number in its own storage, of at most 128 bits.
class real {
 public:
  explicit real(int precision) : precision_(precision) {
    mpfr_custom_init_set(&x_, MPFR_ZERO_KIND, 0, precision, limbs_.data());
  }
  // significand * 2^exponent, exactly.
  real(bool negative, uint128 significand, int exponent, int precision) : real(precision) {
    if (significand == 0) {
      mpfr_set_zero(&x_, negative ? -1 : 1);
      return;
    }
    const int zeros = (significand >> 64) != 0
                          ? std::countl_zero(static_cast<std::uint64_t>(significand >> 64))
                          : 64 + std::countl_zero(static_cast<std::uint64_t>(significand));
    store(significand << zeros);
    mpfr_custom_init_set(&x_, negative ? -MPFR_REGULAR_KIND : MPFR_REGULAR_KIND,
                         exponent + 128 - zeros, precision, limbs_.data());
  }
  real(const real&) = delete;
  real& operator=(const real&) = delete;

  mpfr_ptr get() { return &x_; }
  [[nodiscard]] mpfr_srcptr get() const { return &x_; }
  // The significand of a regular number, its leading one at bit 127.
  [[nodiscard]] uint128 significand() const {
    return precision_ <= 64 ? uint128{limbs_[0]} << 64 : uint128{limbs_[1]} << 64 | limbs_[0];
  }

 private:
  void store(uint128 top_aligned) {
    const bits w = bits_of(top_aligned);
    if (precision_ <= 64)
      limbs_ = {w.high, 0};
    else
      limbs_ = {w.low, w.high};
  }
  int precision_;
  std::array<mp_limb_t, 2> limbs_{};
  __mpfr_struct x_;
};

// A number of a format, taken apart.
struct unpacked {
  unpacked(format f, uint128 word)
      : negative((word >> (fraction_bits(f) + f.exponent_bits) & 1) != 0),
        exponent(static_cast<int>(word >> fraction_bits(f) & low_bits(f.exponent_bits))),
        fraction(word & low_bits(f.precision - 1)),
        finite(exponent != (1 << f.exponent_bits) - 1),
        nan(!finite && fraction != 0),
        signalling(nan && fraction >> (f.precision - 2) == 0),
        zero(exponent == 0 && fraction == 0),
        subnormal(exponent == 0 && fraction != 0),
        value(negative, finite ? fraction | uint128{exponent != 0} << (f.precision - 1) : 0,
              (exponent != 0 ? exponent : 1) - bias(f) - f.precision + 1, f.precision) {
    if (!finite) mpfr_set_inf(value.get(), negative ? -1 : 1);
  }

  bool negative;
  int exponent;
  uint128 fraction;
  bool finite, nan, signalling, zero, subnormal;
  real value;  // of a NaN, infinity
};

uint128 pack(format f, bool negative, int exponent, uint128 significand) {
  return uint128{negative} << (fraction_bits(f) + f.exponent_bits) |
         static_cast<uint128>(exponent) << fraction_bits(f) |
         (significand & low_bits(fraction_bits(f)));
}

// Brings `r`, rounded once to the format's precision, into its exponent range; `ternary` is MPFR's
// word on that first rounding, from which it rounds subnormal numbers as if only once. Tininess
// is judged after rounding with an unbounded exponent: before anything is done here.
answer settle(format f, real& r, int ternary, mpfr_rnd_t mode) {
  const mpfr_exp_t smallest_exponent = 2 - bias(f);  // of a normal number; MPFR's 1 is 0.1b * 2^1
  const bool tiny = mpfr_regular_p(r.get()) && mpfr_get_exp(r.get()) < smallest_exponent;
  const mpfr_exp_t emin = mpfr_get_emin(), emax = mpfr_get_emax();
  mpfr_set_emin(smallest_exponent - (f.precision - 1));
  mpfr_set_emax(bias(f) + 1);
  mpfr_clear_flags();
  ternary = mpfr_check_range(r.get(), ternary, mode);
  const bool too_large = mpfr_overflow_p();
  ternary = mpfr_subnormalize(r.get(), ternary, mode);
  mpfr_set_emin(emin);
  mpfr_set_emax(emax);

  unsigned flags = ternary != 0 ? inexact : 0;
  if (too_large) flags |= overflow;
  if (tiny && ternary != 0) flags |= underflow;
  const bool negative = mpfr_signbit(r.get()) != 0;
  if (mpfr_zero_p(r.get())) return {pack(f, negative, 0, 0), flags};
  if (mpfr_inf_p(r.get())) {
    return {pack(f, negative, 2 * bias(f) + 1, uint128{1} << (f.precision - 1)), flags};
  }
  int exponent = static_cast<int>(mpfr_get_exp(r.get())) - 1 + bias(f);
  uint128 significand = r.significand() >> (128 - f.precision);
  if (exponent < 1) {
    significand >>= 1 - exponent;
    exponent = 0;
  }
  return {pack(f, negative, exponent, significand), flags};
}

answer chosen_nan(bits a, bits b, const unpacked& x, const unpacked& y) {
  const auto magnitude = [](bits q) { return word_of(q) << 1; };
  bool take_a = x.nan;
  if (x.nan && y.nan) {
    if (x.signalling != y.signalling)
      take_a = !x.signalling;
    else if (magnitude(a) != magnitude(b))
      take_a = magnitude(a) > magnitude(b);
    else
      take_a = x.negative;
  }
  bits nan = take_a ? a : b;
  nan.high |= quiet_bit;
  return {word_of(nan), x.signalling || y.signalling ? invalid : 0};
}

}  // namespace

answer arithmetic(operation o, bits a, bits b, rounding mode) {
  const unpacked x(binary128, word_of(a)), y(binary128, word_of(b));
  if (x.nan || y.nan) return chosen_nan(a, b, x, y);

  real r(binary128.precision);
  const mpfr_rnd_t m = mpfr_mode[mode];
  static constexpr decltype(&mpfr_add) operations[] = {mpfr_add, mpfr_sub, mpfr_mul, mpfr_div};
  const int ternary = operations[static_cast<int>(o)](r.get(), x.value.get(), y.value.get(), m);
  if (mpfr_nan_p(r.get())) return {word_of(indefinite), invalid};

  answer expected = settle(binary128, r, ternary, m);
  const bool finite = x.finite && y.finite;
  if (o == operation::divide && y.zero && finite) expected.flags |= divide_by_zero;
  // A quotient that a zero or an infinity decides never looks at the other operand's size.
  const bool decided = o == operation::divide && (x.zero || y.zero);
  if (finite && !decided && (x.subnormal || y.subnormal)) expected.flags |= denormal;
  return expected;
}

order compare(bits a, bits b) {
  const unpacked x(binary128, word_of(a)), y(binary128, word_of(b));
  if (x.nan || y.nan) return order::unordered;
  const int sign = mpfr_cmp(x.value.get(), y.value.get());
  return sign < 0 ? order::less : sign > 0 ? order::greater : order::equal;
}

answer widen(format from, uint128 value) {
  const unpacked x(from, value);
  if (x.nan) {
    return {pack(binary128, x.negative, 0x7fff, x.fraction << (113 - from.precision)), 0};
  }
  real r(binary128.precision);
  mpfr_set(r.get(), x.value.get(), MPFR_RNDN);
  return settle(binary128, r, 0, MPFR_RNDN);
}

answer narrow(format to, bits value, rounding mode) {
  const unpacked x(binary128, word_of(value));
  const uint128 leading_one = uint128{1} << (to.precision - 1);
  if (x.nan) {
    const uint128 payload = x.fraction >> (113 - to.precision);
    return {pack(to, x.negative, 2 * bias(to) + 1, leading_one | leading_one >> 1 | payload),
            x.signalling ? invalid : 0};
  }
  real r(to.precision);
  const int ternary = mpfr_set(r.get(), x.value.get(), mpfr_mode[mode]);
  answer expected = settle(to, r, ternary, mpfr_mode[mode]);
  if (x.subnormal) expected.flags |= denormal;
  return expected;
}

answer to_integer(format from, uint128 value, integer_type to, int mode) {
  const unpacked x(from, value);
  const answer unrepresentable = {uint128{1} << (to.width - 1), invalid};
  if (!x.finite) return unrepresentable;
  static constexpr mpfr_rnd_t directions[] = {MPFR_RNDZ, MPFR_RNDN, MPFR_RNDD, MPFR_RNDU};
  const mpfr_rnd_t otherwise = to.width == 32 ? MPFR_RNDA : MPFR_RNDZ;

  real r(128);
  mpfr_rint(r.get(), x.value.get(), mode >= 0 && mode <= 3 ? directions[mode] : otherwise);
  const unsigned flags = mpfr_cmp(r.get(), x.value.get()) != 0 ? inexact : 0;
  if (mpfr_zero_p(r.get())) return {0, flags};
  const auto length = mpfr_get_exp(r.get());
  if (length > 128) return unrepresentable;
  const uint128 magnitude = r.significand() >> (128 - length);
  uint128 limit = low_bits(to.width);
  if (to.is_signed) limit = (limit >> 1) + (to.width < 128 && x.negative);
  if (!to.is_signed && to.width == 32) limit = low_bits(33);
  if (magnitude > limit || (x.negative && !to.is_signed)) return unrepresentable;
  return {(x.negative ? -magnitude : magnitude) & low_bits(to.width), flags};
}

answer from_integer(format to, uint128 value, bool is_signed, rounding mode) {
  const bool negative = is_signed && value >> 127 != 0;
  const real x(negative, negative ? -value : value, 0, 128);
  real r(to.precision);
  const int ternary = mpfr_set(r.get(), x.get(), mpfr_mode[mode]);
  answer expected = settle(to, r, ternary, mpfr_mode[mode]);
  expected.flags = 0;
  return expected;
}

}  // namespace zorvac::test::oracle
