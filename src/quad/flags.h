#ifndef ZORVAC_QUAD_FLAGS_H
#define ZORVAC_QUAD_FLAGS_H
// Only real double-precision operations raise floating-point exceptions. The flags accumulate in
// MXCSR, and an exception that the program has unmasked traps here, as it would at a hardware
// operation. The arithmetic never writes MXCSR.
//
// The operands are read through volatile pointers, so that no compiler can do the operation in
// advance. The result goes to an empty assembler statement, so that no compiler can leave the
// operation out. Stores do not move across that statement: a routine that traps has not yet written
// its destination.

namespace zorvac::softfp {
namespace {

constexpr double d_one = 1.0;
constexpr double d_norm = 2.2250738585072014e-308;  // smallest normal number
constexpr double d_huge = 1.7976931348623157e+308;  // largest number
constexpr double d_tiny = 4.9406564584124654e-324;  // smallest subnormal number
constexpr double d_zero = 0.0;
constexpr double d_half = 0.5;

// Two pairs of numbers to add to 1. The numbers of a pair are two places apart. The first pair is
// for an inexact result: the smallest normal number, and 3/4 of the distance from 1 to the next
// number. The second pair is for an exact result: its sums raise nothing.
constexpr double d_addends[] = {d_norm, d_zero, 0.75 * 0x1p-52, d_one};

// The pair of an exact result. That of an inexact result begins one place before it.
[[maybe_unused]] const double* const volatile p_addends = &d_addends[1];
[[maybe_unused]] const double* const volatile p_one = &d_one;
[[maybe_unused]] const double* const volatile p_norm = &d_norm;
[[maybe_unused]] const double* const volatile p_huge = &d_huge;
[[maybe_unused]] const double* const volatile p_tiny = &d_tiny;
[[maybe_unused]] const double* const volatile p_zero = &d_zero;
[[maybe_unused]] const double* const volatile p_half = &d_half;

[[gnu::always_inline]] inline void perform(double result) {
  asm volatile("" : : "x"(result) : "memory");
}

[[gnu::always_inline]] inline void raise_invalid() { perform(*p_zero / *p_zero); }
[[gnu::always_inline]] inline void raise_divide_by_zero() { perform(*p_one / *p_zero); }
[[gnu::always_inline]] inline void raise_denormal() { perform(*p_tiny * *p_one); }
[[gnu::always_inline]] inline void raise_inexact() { perform(*p_one + *p_norm); }
[[gnu::always_inline]] inline void raise_overflow_inexact() { perform(*p_huge * *p_huge); }
[[gnu::always_inline]] inline void raise_underflow_inexact() { perform(*p_norm * *p_norm); }
// Exact, and so without effect unless underflow is unmasked.
[[gnu::always_inline]] inline void raise_underflow() { perform(*p_norm * *p_half); }
[[gnu::always_inline]] inline void raise_denormal_underflow_inexact() {
  perform(*p_norm * *p_tiny);
}

}  // namespace
}  // namespace zorvac::softfp
#endif
