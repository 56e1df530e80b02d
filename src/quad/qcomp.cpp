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

// A quad, or its high word alone, as an integer of the same order: both zeros are 0.
template <class Signed, class Unsigned>
[[gnu::always_inline]] inline Signed ordinal(Unsigned w) {
  const Signed all_ones_if_negative = static_cast<Signed>(w) >> (8 * sizeof w - 1);
  const auto magnitude = static_cast<Signed>(w << 1 >> 1);
  return (magnitude ^ all_ones_if_negative) - all_ones_if_negative;
}

template <class Relation>
[[gnu::noinline]] int ordered_at_length(const void* a_address, const void* b_address,
                                        Relation relation) {
  const uint128 a = load(a_address), b = load(b_address);
  if (is_nan<f>(a) || is_nan<f>(b)) {
    raise_invalid();
    return 0;
  }
  return relation(ordinal<__int128>(a), ordinal<__int128>(b));
}

// `relation` of two ordinals, or 0 when unordered. Mostly the high words tell: both below those of
// infinities and NaNs, and different.
template <class Relation>
[[gnu::always_inline]] inline int ordered(const void* a_address, const void* b_address,
                                          Relation relation) {
  const uint64_t a = high(load(a_address)), b = high(load(b_address));
  constexpr uint64_t special = high(f::infinity) << 1;
  const auto x = ordinal<std::int64_t>(a), y = ordinal<std::int64_t>(b);
  if (a << 1 < special && b << 1 < special && x != y) [[likely]]
    return relation(x, y);
  return ordered_at_length(a_address, b_address, relation);
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
