#ifndef ZORVAC_TESTS_SUPPORT_SANITIZED_H
#define ZORVAC_TESTS_SUPPORT_SANITIZED_H
// Whether a sanitizer is at work: it multiplies the time of every step, and its allocator is not
// the C library's. Whether the library counts which lines run: counting is code, too, which takes
// registers and the stack.

namespace zorvac::test {
inline constexpr bool sanitized = ZORVAC_SANITIZED, counted = ZORVAC_COUNTED;
}  // namespace zorvac::test
#endif
