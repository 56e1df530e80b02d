#ifndef ZORVAC_TESTS_SUPPORT_SANITIZED_H
#define ZORVAC_TESTS_SUPPORT_SANITIZED_H
// Whether the address or the thread sanitizer is at work: it multiplies the time of every step, and
// its allocator is not the C library's. g++ tells by macros, clang by features.
#ifndef __has_feature
#define __has_feature(name) 0
#endif

namespace zorvac::test {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || \
    __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr bool sanitized = true;
#else
inline constexpr bool sanitized = false;
#endif
}  // namespace zorvac::test
#endif
