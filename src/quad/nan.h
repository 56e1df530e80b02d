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

// At least one of the operands is a NaN. The choice is the only NaN, else the only quiet one, else
// the one with the larger magnitude. If they differ at most in sign, it is a if a is negative, else
// b.
constexpr bool prefers_first_nan(uint128 a, uint128 b) {
  using f = binary128;
  if (is_nan<f>(a) != is_nan<f>(b)) return is_nan<f>(a);
  if (is_signalling<f>(a) != is_signalling<f>(b)) return is_signalling<f>(b);
  if (f::magnitude(a) != f::magnitude(b)) return f::magnitude(a) > f::magnitude(b);
  return f::negative(a);
}

// The rules that differ between the libraries that use these operations; the slow paths ask for
// them. `look_at` sees the operands before anything else does.
struct own_rules {
  // The common path of a comparison takes magnitudes whose high word is at least this. Here it
  // takes all, unless both high words are 0.
  static constexpr uint64_t least_compared = 0;
  // Whether widening quiets signalling NaNs and raises flags. Here it only moves bits.
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
