#ifndef ZORVAC_QUAD_WORDS_H
#define ZORVAC_QUAD_WORDS_H
// Exact integers of two words, and of three: a significand with its guard word below it. The
// arithmetic spends its time here, so no operation has a branch or a double shift (SHLD, SHRD),
// which takes some processors about six micro-operations.
//
// Assembler is used where compilers generate poor code: carries through three words, exchanges
// without a branch, shifts of several words by one count.
#include "quad/formats.h"

namespace zorvac::softfp {
namespace {

struct two_words {
  uint64_t high, low;
};

// Two instructions and no branch. Compilers do not find them.
[[gnu::always_inline]] inline uint64_t all_ones_unless_zero(uint64_t x) {
  asm("neg %[x]\n\t"
      "sbb %[x], %[x]"
      : [x] "+r"(x)
      :
      : "cc");
  return x;
}

// Compilers keep a product of two words in neighbouring registers, and free these for it.
[[gnu::always_inline]] inline two_words multiply_words(uint64_t a, uint64_t b) {
  two_words product;
  asm("mul %[b]" : "=a"(product.low), "=d"(product.high) : "%a"(a), [b] "r"(b) : "cc");
  return product;
}

// Modulo 2^128.
[[gnu::always_inline]] inline two_words operator+(two_words sum, uint64_t addend) {
  asm("add %[addend], %[low]\n\t"
      "adc $0, %[high]"
      : [low] "+&r"(sum.low), [high] "+r"(sum.high)
      : [addend] "re"(addend)
      : "cc");
  return sum;
}

// Shifts to the right by 0 to 63. The bits that go into the next word move to the left by 64 - n:
// by 1, and then by 63 - n, which is the complement of n. The shifts below do the same.
[[gnu::always_inline]] constexpr two_words operator>>(two_words x, int n) {
  return {x.high >> n, x.high << 1 << (~n & 63) | x.low >> n};
}

// Exchanges `a` and `b` if `x` < `y`, by conditional moves. Compilers would branch.
[[gnu::always_inline]] inline void exchange_if_less(uint64_t x, uint64_t y, uint128& a,
                                                    uint128& b) {
  uint64_t a_low = low(a), a_high = high(a), b_low = low(b), b_high = high(b);
  asm("cmp %[y], %[x]\n\t"
      "mov %[a_low], %[x]\n\t"
      "mov %[a_high], %[y]\n\t"
      "cmovb %[b_low], %[a_low]\n\t"
      "cmovb %[b_high], %[a_high]\n\t"
      "cmovb %[x], %[b_low]\n\t"
      "cmovb %[y], %[b_high]"
      : [a_low] "+&r"(a_low), [a_high] "+&r"(a_high), [b_low] "+&r"(b_low), [b_high] "+&r"(b_high),
        [x] "+&r"(x), [y] "+&r"(y)
      :
      : "cc");
  a = make_uint128(a_high, a_low);
  b = make_uint128(b_high, b_low);
}

struct three_words {
  uint64_t high, low, guard;

  [[gnu::always_inline]] uint128 significand() const { return make_uint128(high, low); }
};

// Modulo 2^192.
[[gnu::always_inline]] inline three_words operator+(three_words a, three_words b) {
  asm("add %[guard], %[sum_guard]\n\t"
      "adc %[low], %[sum_low]\n\t"
      "adc %[high], %[sum_high]"
      : [sum_guard] "+&r"(a.guard), [sum_low] "+&r"(a.low), [sum_high] "+r"(a.high)
      : [guard] "re"(b.guard), [low] "re"(b.low), [high] "re"(b.high)
      : "cc");
  return a;
}
[[gnu::always_inline]] inline three_words operator^(three_words x, uint64_t mask) {
  return {x.high ^ mask, x.low ^ mask, x.guard ^ mask};
}

// `a`, with an empty guard word, plus `b` if `negate` is 0, or minus `b` if `negate` is all ones.
[[gnu::always_inline]] inline three_words add_or_subtract(uint128 a, three_words b,
                                                          uint64_t negate) {
  uint64_t sum_high = high(a), sum_low = low(a);
  b = b ^ negate;
  asm("add %[negate], %[negate]\n\t"
      "adc $0, %[guard]\n\t"
      "adc %[low], %[sum_low]\n\t"
      "adc %[high], %[sum_high]"
      : [guard] "+&r"(b.guard), [sum_low] "+&r"(sum_low), [sum_high] "+&r"(sum_high),
        [negate] "+&r"(negate)
      : [low] "re"(b.low), [high] "re"(b.high)
      : "cc");
  return {sum_high, sum_low, b.guard};
}

// Doubles `x` if its high word lacks `bit`, else adds `bit` to that word. Both results and the
// condition are computed in parallel. Conditional moves take one result.
[[gnu::always_inline]] inline void double_or_add(three_words& x, uint64_t bit) {
  three_words twice = x;
  uint64_t high = x.high + bit;
  asm("add %[guard], %[guard]\n\t"
      "adc %[low], %[low]\n\t"
      "adc %[twice_high], %[twice_high]\n\t"
      "test %[bit], %[x_high]\n\t"
      "cmovz %[guard], %[x_guard]\n\t"
      "cmovz %[low], %[x_low]\n\t"
      "cmovz %[twice_high], %[high]"
      : [guard] "+&r"(twice.guard), [low] "+&r"(twice.low), [twice_high] "+&r"(twice.high),
        [x_guard] "+&r"(x.guard), [x_low] "+&r"(x.low), [high] "+&r"(high)
      : [x_high] "r"(x.high), [bit] "r"(bit)
      : "cc");
  x.high = high;
}

// Shifts to the left by 0 to 63.
[[gnu::always_inline]] inline three_words operator<<(three_words x, unsigned n) {
  uint64_t from_low = x.low >> 1, from_guard = x.guard >> 1;
  asm("shl %%cl, %[high]\n\t"
      "shl %%cl, %[low]\n\t"
      "shl %%cl, %[guard]\n\t"
      "not %[n]\n\t"
      "shr %%cl, %[from_low]\n\t"
      "shr %%cl, %[from_guard]\n\t"
      "or %[from_low], %[high]\n\t"
      "or %[from_guard], %[low]"
      : [high] "+&r"(x.high), [low] "+&r"(x.low), [guard] "+&r"(x.guard), [n] "+&c"(n),
        [from_low] "+&r"(from_low), [from_guard] "+&r"(from_guard)
      :
      : "cc");
  return x;
}

// Two words shifted to the right by 0 to 63, into a third.
[[gnu::always_inline]] inline three_words shift_into_guard(two_words x, unsigned n) {
  uint64_t from_high = x.high << 1, guard = x.low << 1;
  asm("shr %%cl, %[high]\n\t"
      "shr %%cl, %[low]\n\t"
      "not %[n]\n\t"
      "shl %%cl, %[from_high]\n\t"
      "shl %%cl, %[guard]\n\t"
      "or %[from_high], %[low]"
      : [high] "+&r"(x.high), [low] "+&r"(x.low), [guard] "+&r"(guard), [n] "+&c"(n),
        [from_high] "+&r"(from_high)
      :
      : "cc");
  return {x.high, x.low, guard};
}

// `x` plus the guard word's top bit.
[[gnu::always_inline]] inline uint128 add_top_bit(uint128 x, uint64_t guard) {
  uint64_t x_high = high(x), x_low = low(x);
  asm("add %[guard], %[guard]\n\t"
      "adc $0, %[low]\n\t"
      "adc $0, %[high]"
      : [guard] "+&r"(guard), [low] "+&r"(x_low), [high] "+r"(x_high)
      :
      : "cc");
  return make_uint128(x_high, x_low);
}
[[gnu::always_inline]] inline uint64_t add_top_bit(uint64_t x, uint64_t guard) {
  return x + (guard >> 63);
}

// Half of `x`, whose lowest bit must be 0.
[[gnu::always_inline]] inline three_words halved(three_words x) {
  asm("shr %[high]\n\t"
      "rcr %[low]\n\t"
      "rcr %[guard]"
      : [high] "+&r"(x.high), [low] "+&r"(x.low), [guard] "+r"(x.guard)
      :
      : "cc");
  return x;
}

// The significand of `x` rounded by the guard word, ties to even: 1 is added if the guard word is
// more than a half, or equal to a half and the significand is odd.
[[gnu::always_inline]] inline uint128 rounded_by_guard(three_words x) {
  uint64_t half = uint64_t{1} << 63;
  asm("bt $0, %[low]\n\t"
      "sbb %[guard], %[half]\n\t"
      "adc $0, %[low]\n\t"
      "adc $0, %[high]"
      : [high] "+&r"(x.high), [low] "+&r"(x.low), [half] "+&r"(half)
      : [guard] "r"(x.guard)
      : "cc");
  return x.significand();
}

// Half of `x`, rounded up, with `head` added to the high word.
[[gnu::always_inline]] inline uint128 add_half(uint64_t head, uint128 x) {
  uint64_t x_high = high(x), x_low = low(x);
  asm("shr %[high]\n\t"
      "rcr %[low]\n\t"
      "adc $0, %[low]\n\t"
      "adc %[high], %[head]"
      : [head] "+&r"(head), [high] "+&r"(x_high), [low] "+&r"(x_low)
      :
      : "cc");
  return make_uint128(head, x_low);
}

}  // namespace
}  // namespace zorvac::softfp
#endif
