#ifndef ZORVAC_QUAD_NAN_H
#define ZORVAC_QUAD_NAN_H
// Which NaN an operation gives (IEEE 754-2019, 6.2, leaves the choice among operands open).
#include "quad/flags.h"
#include "quad/formats.h"

namespace zorvac::softfp {
namespace {

// The result of an invalid operation without a NaN among its operands.
constexpr uint128 QNaNIndefiniteq =
    binary128::sign_bit | binary128::infinity | binary128::quiet_bit;

// Of two operands, at least one of which is a NaN: the only NaN, or the only quiet one, or the one
// of the larger magnitude, or, where they differ in sign at most, b if a is positive, else a.
constexpr bool prefers_first_nan(uint128 a, uint128 b) {
  using f = binary128;
  if (is_nan<f>(a) != is_nan<f>(b)) return is_nan<f>(a);
  if (is_signalling<f>(a) != is_signalling<f>(b)) return is_signalling<f>(b);
  if (f::magnitude(a) != f::magnitude(b)) return f::magnitude(a) > f::magnitude(b);
  return f::negative(a);
}

// What an operation's slow path asks of the library that it is built into. The first member sees
// all operands before anything else does.
struct own_rules {
  // The high word of the least magnitude that a comparison need not look at: here a zero's is the
  // only one to be careful with.
  static constexpr uint64_t least_compared = 0;
  // Whether widening quiets signalling NaNs and raises flags. Here it moves bits.
  static constexpr bool widening_computes = false;

  static void look_at(uint128, uint128) {}
  static uint128 propagate_nan(uint128 a, uint128 b) {
    if (is_signalling<binary128>(a) || is_signalling<binary128>(b)) raise_invalid();
    return (prefers_first_nan(a, b) ? a : b) | binary128::quiet_bit;
  }
};

inline uint128 invalid_operation() {
  raise_invalid();
  return QNaNIndefiniteq;
}

}  // namespace
}  // namespace zorvac::softfp
#endif
