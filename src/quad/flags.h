#ifndef ZORVAC_QUAD_FLAGS_H
#define ZORVAC_QUAD_FLAGS_H
// Floating-point exceptions are raised by real double-precision operations and in no other way:
// the flags accumulate in MXCSR, and an exception that the program has unmasked traps here, as it
// would at a hardware operation. Nothing ever writes MXCSR.
//
// The operands are read through volatile pointers, so that no compiler can do the operation in
// advance, and the result is handed to an empty assembler statement, so that none can leave it
// out. Stores do not move across that statement: an operation that traps has not touched its
// destination.

namespace zorvac::softfp {
namespace {

constexpr double d_one = 1.0;
constexpr double d_norm = 2.2250738585072014e-308;  // smallest normal number
constexpr double d_huge = 1.7976931348623157e+308;  // largest number
constexpr double d_tiny = 4.9406564584124654e-324;  // smallest subnormal number
constexpr double d_zero = 0.0;
constexpr double d_half = 0.5;

// Pairs of numbers to add to 1, two places apart: for a result that is not exact next to nothing and
// three quarters of the distance from 1 to the next number; for an exact one what raises nothing.
constexpr double d_addends[] = {d_norm, d_zero, 0.75 * 0x1p-52, d_one};

// At that of an exact result; that of another one lies before it.
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
// Exact, and so seen by nobody unless underflow is unmasked.
[[gnu::always_inline]] inline void raise_underflow() { perform(*p_norm * *p_half); }
[[gnu::always_inline]] inline void raise_denormal_underflow_inexact() {
  perform(*p_norm * *p_tiny);
}

}  // namespace
}  // namespace zorvac::softfp
#endif
