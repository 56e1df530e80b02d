#ifndef ZORVAC_QUAD_WORDS_H
#define ZORVAC_QUAD_WORDS_H
// Exact integers of two words and of three, a significand with its guard word below it. The
// arithmetic spends its time here, so no operation has a branch, nor a double shift (SHLD, SHRD),
// which some processors take apart into half a dozen steps.
#include "quad/formats.h"

namespace zorvac::softfp {
namespace {

// Modulo 2^128. Compilers extend the addend to two words first.
[[gnu::always_inline]] inline uint128 add_word(uint128 sum, uint64_t addend) {
  uint64_t sum_low = low(sum), sum_high = high(sum);
  asm("add %[addend], %[low]\n\t"
      "adc $0, %[high]"
      : [low] "+&r"(sum_low), [high] "+r"(sum_high)
      : [addend] "re"(addend)
      : "cc");
  return make_uint128(sum_high, sum_low);
}

[[gnu::always_inline]] constexpr uint64_t add_word(uint64_t sum, uint64_t addend) {
  return sum + addend;
}

// `a`, or `b` where `x` < `y`, by conditional moves. Compilers would rather branch.
[[gnu::always_inline]] inline uint128 select_if_less(uint128 x, uint128 y, uint128 a, uint128 b) {
  uint64_t selected_low = low(a), selected_high = high(a), x_high = high(x);
  asm("cmp %[y_low], %[x_low]\n\t"
      "sbb %[y_high], %[x_high]\n\t"
      "cmovb %[b_low], %[selected_low]\n\t"
      "cmovb %[b_high], %[selected_high]"
      : [selected_low] "+&r"(selected_low), [selected_high] "+&r"(selected_high),
        [x_high] "+&r"(x_high)
      : [x_low] "r"(low(x)), [y_low] "r"(low(y)), [y_high] "r"(high(y)), [b_low] "r"(low(b)),
        [b_high] "r"(high(b))
      : "cc");
  return make_uint128(selected_high, selected_low);
}

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
      : [guard] "re"(b.guard), [low] "re"(b.low), [high] "re"(b.high)
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
