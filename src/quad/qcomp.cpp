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

// A quad, or its high word alone, as an integer of the same order: both zeros are 0.
template <class Signed, class Unsigned>
[[gnu::always_inline]] inline Signed ordinal(Unsigned w) {
  const Signed all_ones_if_negative = static_cast<Signed>(w) >> (8 * sizeof w - 1);
  const auto magnitude = static_cast<Signed>(w << 1 >> 1);
  return (magnitude ^ all_ones_if_negative) - all_ones_if_negative;
}

[[gnu::cold, gnu::noinline]] bool raises_invalid(uint128 a, uint128 b) {
  if (!is_nan<f>(a) && !is_nan<f>(b)) return false;
  raise_invalid();
  return true;
}

// -1, 0 or 1 as `a` is less than, equal to or greater than `b`.
[[gnu::noinline]] int compare_whole(uint128 a, uint128 b) {
  const auto x = ordinal<__int128>(a), y = ordinal<__int128>(b);
  return (x > y) - (x < y);
}

// `Relation` of two ordinals, or 0 when unordered. The high words decide unless they are equal.
template <class Relation>
[[gnu::always_inline]] inline int ordered(const void* a_address, const void* b_address,
                                          Relation relation) {
  const uint128 a = load(a_address), b = load(b_address);
  constexpr uint64_t special = high(f::infinity);
  if (high(f::magnitude(a)) >= special || high(f::magnitude(b)) >= special) [[unlikely]]
    if (raises_invalid(a, b)) return 0;
  const auto x = ordinal<std::int64_t>(high(a)), y = ordinal<std::int64_t>(high(b));
  if (x != y) [[likely]]
    return relation(x, y);
  return relation(compare_whole(a, b), 0);
}

}  // namespace

int __eqq(const void* a, const void* b) { return equal(a, b); }
int __neq(const void* a, const void* b) { return !equal(a, b); }

int __ltq(const void* a, const void* b) {
  return ordered(a, b, [](auto x, auto y) { return x < y; });
}
int __leq(const void* a, const void* b) {
  return ordered(a, b, [](auto x, auto y) { return x <= y; });
}
int __gtq(const void* a, const void* b) {
  return ordered(a, b, [](auto x, auto y) { return x > y; });
}
int __geq(const void* a, const void* b) {
  return ordered(a, b, [](auto x, auto y) { return x >= y; });
}
int __compareq(const void* a, const void* b) {
  return ordered(a, b, [](auto x, auto y) { return (x > y) - (x < y); });
}
