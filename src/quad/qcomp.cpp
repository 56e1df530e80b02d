// Comparison. The quiet predicates never raise a flag; the ordering ones raise IE for any NaN.
#include "quad/flags.h"
#include "quad/operands.h"
#include "zorvac/quad.h"

using namespace zorvac::softfp;

namespace {

using f = binary128;

[[gnu::always_inline]] inline bool equal(const void* a_address, const void* b_address) {
  const uint128 a = load(a_address), b = load(b_address);
  const bool same = a == b;
  const bool both_zero = ((high(a) | high(b)) << 1 | low(a) | low(b)) == 0;
  // A NaN that is not the other operand bit for bit is different already.
  return (same && !is_nan<f>(a)) || both_zero;
}

// -1, 0 or 1 as a quad is less than, equal to or greater than another.
[[gnu::always_inline]] inline int sign_of_difference(uint128 a, uint128 b) {
  if (a == b || ((a | b) << 1) == 0) return 0;
  const bool less = (static_cast<__int128>(a) < static_cast<__int128>(b)) != f::negative(a & b);
  return less ? -1 : 1;
}

template <class Relation>
[[gnu::noinline]] int ordered_at_length(const void* a_address, const void* b_address,
                                        Relation relation) {
  const uint128 a = load(a_address), b = load(b_address);
  if (is_nan<f>(a) || is_nan<f>(b)) {
    raise_invalid();
    return 0;
  }
  return relation(sign_of_difference(a, b));
}

// `relation` of the sign of the difference, or 0 when unordered. Mostly the high words tell: both
// below those of infinities and NaNs, different, and not both those of zeros. As integers they have
// the order of the numbers, or the reverse where both are negative.
template <class Relation>
[[gnu::always_inline]] inline int ordered(const void* a_address, const void* b_address,
                                          Relation relation) {
  const uint64_t a = high(load(a_address)), b = high(load(b_address));
  constexpr uint64_t special = high(f::infinity) << 1;
  if (a << 1 >= special || b << 1 >= special || a == b || (a << 1 | b << 1) == 0) [[unlikely]]
    return ordered_at_length(a_address, b_address, relation);
  const int less = (static_cast<std::int64_t>(a) < static_cast<std::int64_t>(b)) ^
                   static_cast<int>((a & b) >> 63);
  return relation(1 - 2 * less);
}

}  // namespace

int __eqq(const void* a, const void* b) { return equal(a, b); }
int __neq(const void* a, const void* b) { return !equal(a, b); }

int __ltq(const void* a, const void* b) {
  return ordered(a, b, [](int sign) -> int { return sign < 0; });
}
int __leq(const void* a, const void* b) {
  return ordered(a, b, [](int sign) -> int { return sign <= 0; });
}
int __gtq(const void* a, const void* b) {
  return ordered(a, b, [](int sign) -> int { return sign > 0; });
}
int __geq(const void* a, const void* b) {
  return ordered(a, b, [](int sign) -> int { return sign >= 0; });
}
int __compareq(const void* a, const void* b) {
  return ordered(a, b, [](int sign) { return sign; });
}
