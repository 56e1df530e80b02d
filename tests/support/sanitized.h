#ifndef ZORVAC_TESTS_SUPPORT_SANITIZED_H
#define ZORVAC_TESTS_SUPPORT_SANITIZED_H
// sanitized: whether a sanitizer is used. It multiplies the time of every step, and its allocator
// is not the C library's. counted: whether the library counts which lines run. Counting is code,
// too, which takes registers and stack.

namespace zorvac::test {
inline constexpr bool sanitized = ZORVAC_SANITIZED, counted = ZORVAC_COUNTED;
}  // namespace zorvac::test
#endif
