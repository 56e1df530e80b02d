#ifndef ZORVAC_CORE_MXCSR_H
#define ZORVAC_CORE_MXCSR_H
// The control and status register of the SSE unit, and its fields.
#include <cstdint>

namespace zorvac::mxcsr {

// The exception flags. The mask bit of an exception is mask_shift places above its flag.
inline constexpr std::uint32_t invalid = 1 << 0;
inline constexpr std::uint32_t denormal = 1 << 1;
inline constexpr std::uint32_t divide_by_zero = 1 << 2;
inline constexpr std::uint32_t overflow = 1 << 3;
inline constexpr std::uint32_t underflow = 1 << 4;
inline constexpr std::uint32_t inexact = 1 << 5;
inline constexpr std::uint32_t all_flags = 0x3f;
inline constexpr int mask_shift = 7;

// The rounding-control field.
inline constexpr int rounding_shift = 13;
inline constexpr std::uint32_t rounding_field = 3 << rounding_shift;

inline constexpr std::uint32_t denormals_are_zero = 1 << 6;
inline constexpr std::uint32_t flush_to_zero = 1 << 15;
inline constexpr std::uint32_t bit_17 = 1 << 17;

[[gnu::always_inline]] inline std::uint32_t read() { return __builtin_ia32_stmxcsr(); }
[[gnu::always_inline]] inline void write(std::uint32_t value) { __builtin_ia32_ldmxcsr(value); }

}  // namespace zorvac::mxcsr
#endif
