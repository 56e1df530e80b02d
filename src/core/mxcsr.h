#ifndef ZORVAC_CORE_MXCSR_H
#define ZORVAC_CORE_MXCSR_H
// The control and status register of the SSE unit, and its fields.
#include <cstdint>

namespace zorvac::mxcsr {

inline constexpr std::uint32_t denormals_are_zero = 1 << 6;
inline constexpr std::uint32_t flush_to_zero = 1 << 15;
inline constexpr std::uint32_t bit_17 = 1 << 17;

[[gnu::always_inline]] inline std::uint32_t read() { return __builtin_ia32_stmxcsr(); }
[[gnu::always_inline]] inline void write(std::uint32_t value) { __builtin_ia32_ldmxcsr(value); }

}  // namespace zorvac::mxcsr
#endif
