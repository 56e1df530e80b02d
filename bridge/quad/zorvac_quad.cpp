// Quad arithmetic by value: operands and results in general registers, so that the C++ class
// zorvac::quad stays in registers between operations. The bits, the flags and the traps are those
// of __addq(), __subq(), __mulq(), __divq() and __qtod().
#include "quad/add.h"
#include "quad/divide.h"
#include "quad/multiply.h"
#include "quad/nan.h"
#include "quad/narrow.h"
#include "quad/places.h"
#include "quad/rounding.h"

using namespace zorvac::softfp;

extern "C" {

uint128 zorvac_quad_add(uint128 a, uint128 b) {
  return add<own_rules>(to_words{}, in_words{a}, in_words{b}, 0);
}
uint128 zorvac_quad_sub(uint128 a, uint128 b) {
  return add<own_rules>(to_words{}, in_words{a}, in_words{b}, high(binary128::sign_bit));
}
uint128 zorvac_quad_mul(uint128 a, uint128 b) {
  return multiply<own_rules>(to_words{}, in_words{a}, in_words{b});
}
uint128 zorvac_quad_div(uint128 a, uint128 b) {
  return divide<own_rules>(to_words{}, in_words{a}, in_words{b});
}

// For functions that compute a significand themselves. `exponent` is the biased exponent of its
// leading one, in any range, and `guard` has the bits below it.
uint128 zorvac_quad_round(int negative, int exponent, uint128 significand, uint64_t guard) {
  return round_and_pack<binary128>(negative != 0, exponent, significand, guard);
}

double zorvac_quad_to_double(uint128 a) { return narrow<binary64>(in_words{a}); }

}  // extern "C"
