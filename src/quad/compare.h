#ifndef ZORVAC_QUAD_COMPARE_H
#define ZORVAC_QUAD_COMPARE_H
// Comparison.
#include "quad/flags.h"
#include "quad/operands.h"
#include "quad/places.h"

namespace zorvac::softfp {
namespace {

[[gnu::always_inline]] constexpr bool both_zero(uint128 a, uint128 b) {
  return ((high(a) | high(b)) << 1 | low(a) | low(b)) == 0;
}

// Quiet, and without a branch. A NaN needs a test only if both operands have the same bits.
[[gnu::always_inline]] inline bool equal(uint128 a, uint128 b) {
  return (a == b && !is_nan<binary128>(a)) || both_zero(a, b);
}

// -1 if a is less than b, 0 if they are equal, 1 if a is greater. Neither is a NaN.
[[gnu::always_inline]] inline int sign_of_difference(uint128 a, uint128 b) {
  if (a == b || both_zero(a, b)) return 0;
  const bool less =
      (static_cast<__int128>(a) < static_cast<__int128>(b)) != binary128::negative(a & b);
  return less ? -1 : 1;
}

// A relation has the result for each sign of the difference, and the result for NaNs.
template <class Relation, class Operand>
[[gnu::noinline]] auto compare_slowly(Operand a_operand, Operand b_operand) {
  const uint128 a = a_operand.word(), b = b_operand.word();
  Relation::rules::look_at(a, b);
  if (is_nan<binary128>(a) || is_nan<binary128>(b)) {
    raise_invalid();
    return Relation::unordered;
  }
  return Relation::of(sign_of_difference(a, b));
}

// Usually both operands are finite and their high words differ. As integers, the high words then
// have the order of the numbers, or the reverse order if both are negative.
template <class Relation, class Operand>
[[gnu::always_inline]] inline auto compare(Operand a_operand, Operand b_operand) {
  const uint64_t a = high(a_operand.word()), b = high(b_operand.word());
  constexpr uint64_t first = Relation::rules::least_compared << 1,
                     special = high(binary128::infinity) << 1;
  if ((a << 1) - first >= special - first || (b << 1) - first >= special - first || a == b ||
      (first == 0 && (a << 1 | b << 1) == 0)) [[unlikely]]
    return compare_slowly<Relation>(a_operand, b_operand);
  const int less = (static_cast<std::int64_t>(a) < static_cast<std::int64_t>(b)) ^
                   static_cast<int>((a & b) >> 63);
  return Relation::of(1 - 2 * less);
}

}  // namespace
}  // namespace zorvac::softfp
#endif
