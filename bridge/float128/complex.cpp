// The routines that compilers call for powers with an integer exponent and for complex products and
// quotients of binary128 numbers. Each is a few operations of this library, on words.
#include "compiler_rules.h"
#include "quad/add.h"
#include "quad/compare.h"
#include "quad/divide.h"
#include "quad/multiply.h"

using namespace zorvac::softfp;

namespace {

using f = binary128;

struct number {
  uint128 word;
};
[[gnu::noinline]] number operator+(number a, number b) {
  return {add<first_rules>(to_words{}, in_words{a.word}, in_words{b.word}, 0)};
}
[[gnu::noinline]] number operator*(number a, number b) {
  return {multiply<first_rules>(to_words{}, in_words{a.word}, in_words{b.word})};
}
[[gnu::noinline]] number operator/(number a, number b) {
  return {divide<second_rules>(to_words{}, in_words{a.word}, in_words{b.word})};
}
[[gnu::noinline]] number operator-(number a, number b) {
  return {add<second_rules>(to_words{}, in_words{a.word}, in_words{b.word}, high(f::sign_bit))};
}

constexpr number power_of_2(int n) { return {uint128(f::bias + n) << f::fraction_bits}; }
constexpr number one = power_of_2(0), infinity = {f::infinity};

// Tests that raise DE for a subnormal number, as comparisons do. So a caller sees which tests are
// made: both parts of a product, but the imaginary part of a quotient only if the real one is a
// NaN.
bool is_nan(number x) {
  first_rules::look_at(x.word, x.word);
  return zorvac::softfp::is_nan<f>(x.word);
}
bool is_infinite(number x) {
  first_rules::look_at(x.word, x.word);
  return zorvac::softfp::is_infinite(x.word);
}
bool is_finite(number x) {
  first_rules::look_at(x.word, x.word);
  return f::exponent(x.word) != f::special_exponent;
}
bool is_zero(number x) { return zorvac::softfp::is_zero(x.word); }
number signed_as(number sign, number x) { return {x.word | (sign.word & f::sign_bit)}; }
number box(number x) { return signed_as(x, is_infinite(x) ? one : number{0}); }
number zero_for_nan(number x) { return is_nan(x) ? signed_as(x, number{0}) : x; }

// Comparisons of magnitudes. A NaN raises IE, and the comparison is false.
struct relation {
  using rules = first_rules;
  static constexpr bool unordered = false;
};
struct less : relation {
  static bool of(int sign) { return sign < 0; }
};
struct at_least : relation {
  static bool of(int sign) { return sign >= 0; }
};
template <class Relation>
[[gnu::noinline]] bool has(number a, number b) {
  return compare<Relation>(in_words{f::magnitude(a.word)}, in_words{f::magnitude(b.word)});
}
bool is_less(number a, number b) { return has<less>(a, b); }
bool is_at_least(number a, number b) { return has<at_least>(a, b); }

struct complex_number {
  number real, imaginary;
};
struct complex_result {  // returned in memory, through a hidden address
  xmm real, imaginary;
};
[[gnu::always_inline]] inline complex_result result_of(complex_number z) {
  return {to_xmm{}(z.real.word), to_xmm{}(z.imaginary.word)};
}
[[gnu::always_inline]] inline number number_in(xmm x) { return {in_xmm{x}.word()}; }

// If both parts of a product are NaNs, the product may still be an infinity (C11, G.5.1, example
// 1).
complex_number rescue_product(number a, number b, number c, number d, complex_number product,
                              bool partial_infinity) {
  bool again = false;
  if (is_infinite(a) || is_infinite(b)) {
    a = box(a), b = box(b), c = zero_for_nan(c), d = zero_for_nan(d);
    again = true;
  }
  if (is_infinite(c) || is_infinite(d)) {
    c = box(c), d = box(d), a = zero_for_nan(a), b = zero_for_nan(b);
    again = true;
  }
  if (!again && partial_infinity) {
    a = zero_for_nan(a), b = zero_for_nan(b), c = zero_for_nan(c), d = zero_for_nan(d);
    again = true;
  }
  if (!again) return product;
  return {infinity * (a * c - b * d), infinity * (a * d + b * c)};
}

struct fraction {
  number a, b, c, d;  // (a + ib) / (c + id)

  void scale(number by) { a = a * by, b = b * by, c = c * by, d = d * by; }
};

// Smith's method with the precautions of Baudin and Smith (A robust complex division in Scilab,
// 2012): operands are scaled if the denominator or a product could leave the range, and the order
// of the operations changes if the ratio underflows. Written for |c| less than |d|. If `swapped`,
// it computes from (b + ia) / (d + ic).
complex_number divide(fraction& x, bool swapped) {
  constexpr number half_of_largest = {f::largest - f::leading_one}, least_normal = {f::leading_one},
                   epsilon = power_of_2(-f::fraction_bits), up = power_of_2(f::fraction_bits),
                   down = power_of_2(-1),
                   big = {half_of_largest.word - uint128{f::fraction_bits} * f::leading_one};
  number &a = swapped ? x.b : x.a, &b = swapped ? x.a : x.b, &c = swapped ? x.d : x.c,
         &d = swapped ? x.c : x.d;
  const auto tiny_beside = [&](number p, number q) {
    return is_less(p, least_normal) && is_less(q, big) && is_less(d, big);
  };
  if (is_at_least(d, half_of_largest)) x.scale(down);
  if (is_less(d, epsilon) || tiny_beside(x.a, x.b) || tiny_beside(x.b, x.a)) x.scale(up);

  const number ratio = c / d, denominator = c * ratio + d;
  const bool in_range = is_less(least_normal, ratio);
  const number sum = in_range ? a * ratio : c * (a / d);
  const number difference = in_range ? b * ratio : c * (b / d);
  return {(sum + b) / denominator, (swapped ? a - difference : difference - a) / denominator};
}

// A quotient whose parts are both NaNs, from the scaled operands (C11, G.5.1, example 2).
complex_number rescue_quotient(const fraction& x, complex_number quotient) {
  auto [a, b, c, d] = x;
  if (is_zero(c) && is_zero(d) && (!is_nan(a) || !is_nan(b))) {
    const number signed_infinity = signed_as(c, infinity);
    return {signed_infinity * a, signed_infinity * b};
  }
  if ((is_infinite(a) || is_infinite(b)) && is_finite(c) && is_finite(d)) {
    a = box(a), b = box(b);
    return {infinity * (a * c + b * d), infinity * (b * c - a * d)};
  }
  if ((is_infinite(c) || is_infinite(d)) && is_finite(a) && is_finite(b)) {
    c = box(c), d = box(d);
    const number zero = {0};
    return {zero * (a * c + b * d), zero * (b * c - a * d)};
  }
  return quotient;
}

}  // namespace

#pragma GCC visibility push(default)
extern "C" {

xmm __powitf2(xmm base, int exponent) {
  auto n = static_cast<unsigned>(exponent);
  if (exponent < 0) n = -n;
  number square = number_in(base), power = n % 2 != 0 ? square : one;
  while ((n >>= 1) != 0) {
    square = square * square;
    if (n % 2 != 0) power = power * square;
  }
  return to_xmm{}((exponent < 0 ? one / power : power).word);
}

// Compilers declare these two with a type that C++ does not have.
complex_result multiply_complex(xmm, xmm, xmm, xmm) __asm__("__multc3");
complex_result divide_complex(xmm, xmm, xmm, xmm) __asm__("__divtc3");

complex_result multiply_complex(xmm a_part, xmm b_part, xmm c_part, xmm d_part) {
  const number a = number_in(a_part), b = number_in(b_part), c = number_in(c_part),
               d = number_in(d_part);
  const number ac = a * c, bd = b * d, ad = a * d, bc = c * b;
  complex_number product = {ac - bd, ad + bc};
  const bool no_real = is_nan(product.real), no_imaginary = is_nan(product.imaginary);
  if (no_real && no_imaginary) [[unlikely]] {
    const bool overflow = is_infinite(ac) || is_infinite(bd) || is_infinite(ad) || is_infinite(bc);
    product = rescue_product(a, b, c, d, product, overflow);
  }
  return result_of(product);
}

complex_result divide_complex(xmm a_part, xmm b_part, xmm c_part, xmm d_part) {
  fraction x = {number_in(a_part), number_in(b_part), number_in(c_part), number_in(d_part)};
  complex_number quotient = divide(x, !is_less(x.c, x.d));
  if (is_nan(quotient.real) && is_nan(quotient.imaginary)) [[unlikely]]
    quotient = rescue_quotient(x, quotient);
  return result_of(quotient);
}

}  // extern "C"
#pragma GCC visibility pop
