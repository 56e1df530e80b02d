// Comparison. The quiet predicates never raise a flag; the ordering ones raise IE for any NaN.
#include "quad/flags.h"
#include "quad/operands.h"
#include "zorvac/quad.h"

using namespace zorvac::softfp;

namespace {

using f = binary128;

[[gnu::always_inline]] inline bool equal(const void* a_address, const void* b_address) {
  const uint128 a = load(a_address), b = load(b_address);
  const bool same = a == b, both_zero = (a | b) << 1 == 0;
  // A NaN that is not the other operand bit for bit is different already.
  return (same && !is_nan<f>(a)) || both_zero;
}

// A quad as an integer of the same order: both zeros are 0.
[[gnu::always_inline]] inline __int128 ordinal(uint128 w) {
  const auto all_ones_if_negative = static_cast<__int128>(w) >> 127;
  const auto magnitude = static_cast<__int128>(f::magnitude(w));
  return (magnitude ^ all_ones_if_negative) - all_ones_if_negative;
}

[[gnu::always_inline]] constexpr bool has_special_exponent(uint128 w) {
  return high(w) << 1 >= high(f::infinity) << 1;
}
[[gnu::cold, gnu::noinline]] bool raises_invalid(uint128 a, uint128 b) {
  if (!is_nan<f>(a) && !is_nan<f>(b)) return false;
  raise_invalid();
  return true;
}

// `Relation` of two ordinals, or 0 when unordered.
template <class Relation>
[[gnu::always_inline]] inline int ordered(const void* a_address, const void* b_address,
                                          Relation relation) {
  const uint128 a = load(a_address), b = load(b_address);
  if (has_special_exponent(a) || has_special_exponent(b)) [[unlikely]]
    if (raises_invalid(a, b)) return 0;
  return relation(ordinal(a), ordinal(b));
}

}  // namespace

int __eqq(const void* a, const void* b) { return equal(a, b); }
int __neq(const void* a, const void* b) { return !equal(a, b); }

int __ltq(const void* a, const void* b) {
  return ordered(a, b, [](__int128 x, __int128 y) { return x < y; });
}
int __leq(const void* a, const void* b) {
  return ordered(a, b, [](__int128 x, __int128 y) { return x <= y; });
}
int __gtq(const void* a, const void* b) {
  return ordered(a, b, [](__int128 x, __int128 y) { return x > y; });
}
int __geq(const void* a, const void* b) {
  return ordered(a, b, [](__int128 x, __int128 y) { return x >= y; });
}
int __compareq(const void* a, const void* b) {
  return ordered(a, b, [](__int128 x, __int128 y) { return (x > y) - (x < y); });
}
