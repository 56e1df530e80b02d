#ifndef ZORVAC_QUAD_WORDS_H
#define ZORVAC_QUAD_WORDS_H
// Exact integers of three words: a significand with its guard word below it. The arithmetic spends
// its time here, so no operation has a branch, nor a double shift (SHLD, SHRD), which some
// processors take apart into half a dozen steps.
#include "quad/formats.h"

namespace zorvac::softfp {
namespace {

struct three_words {
  uint64_t high, low, guard;

  [[gnu::always_inline]] uint128 significand() const { return make_uint128(high, low); }
};

// Modulo 2^192. Compilers lose the carry between more than two words.
[[gnu::always_inline]] inline three_words operator+(three_words a, three_words b) {
  asm("add %[guard], %[sum_guard]\n\t"
      "adc %[low], %[sum_low]\n\t"
      "adc %[high], %[sum_high]"
      : [sum_guard] "+&r"(a.guard), [sum_low] "+&r"(a.low), [sum_high] "+r"(a.high)
      : [guard] "r"(b.guard), [low] "r"(b.low), [high] "r"(b.high)
      : "cc");
  return a;
}
[[gnu::always_inline]] inline three_words operator&(three_words x, uint64_t mask) {
  return {x.high & mask, x.low & mask, x.guard & mask};
}
[[gnu::always_inline]] inline three_words operator^(three_words x, uint64_t mask) {
  return {x.high ^ mask, x.low ^ mask, x.guard ^ mask};
}

// The bits of `x` that a shift by `n` to the left, 0 to 63, carries into the next word, and those
// that one to the right carries into the word before it. In two steps, as n may be 0.
[[gnu::always_inline]] constexpr uint64_t out_at_left(uint64_t x, int n) {
  return x >> 1 >> (~n & 63);
}
[[gnu::always_inline]] constexpr uint64_t out_at_right(uint64_t x, int n) {
  return x << 1 << (~n & 63);
}

[[gnu::always_inline]] constexpr three_words operator<<(three_words x, int n) {
  return {x.high << n | out_at_left(x.low, n), x.low << n | out_at_left(x.guard, n), x.guard << n};
}

// Two words shifted right into a third.
[[gnu::always_inline]] constexpr three_words shift_into_guard(uint128 x, int n) {
  return {high(x) >> n, out_at_right(high(x), n) | low(x) >> n, out_at_right(low(x), n)};
}

}  // namespace
}  // namespace zorvac::softfp
#endif
