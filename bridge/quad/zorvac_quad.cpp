// Quad arithmetic by value: operands and results in general registers, so that the C++ class
// zorvac::quad stays in registers between operations. The bits, the flags and the traps are those of
// the exported routines of the same stems.
#include "quad/add.h"
#include "quad/compare.h"
#include "quad/divide.h"
#include "quad/from_integer.h"
#include "quad/multiply.h"
#include "quad/narrow.h"
#include "quad/nan.h"
#include "quad/places.h"
#include "quad/widen.h"

using namespace zorvac::softfp;

namespace {

struct relation {
  using rules = own_rules;
  static constexpr int unordered = 0;
};
struct less : relation {
  static int of(int sign) { return sign < 0; }
};
struct less_equal : relation {
  static int of(int sign) { return sign <= 0; }
};

}  // namespace

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

// Equality is quiet; the ordering ones raise IE for any NaN.
int zorvac_quad_eq(uint128 a, uint128 b) { return equal(a, b); }
int zorvac_quad_lt(uint128 a, uint128 b) { return compare<less>(in_words{a}, in_words{b}); }
int zorvac_quad_le(uint128 a, uint128 b) { return compare<less_equal>(in_words{a}, in_words{b}); }

uint128 zorvac_quad_from_double(double value) {
  return widen<binary64, own_rules>(to_words{}, word_of(value));
}
double zorvac_quad_to_double(uint128 a) { return narrow<binary64>(in_words{a}); }
uint128 zorvac_quad_from_int64(std::int64_t value) { return from_signed(value); }
uint128 zorvac_quad_from_uint64(std::uint64_t value) { return from_magnitude(false, value); }

}  // extern "C"
