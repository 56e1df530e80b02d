#ifndef ZORVAC_TESTS_SUPPORT_MASKS_H
#define ZORVAC_TESTS_SUPPORT_MASKS_H
// The contract with compiled programs as literal masks, so that a change of the library's own names
// does not change them. A level is named after its newest feature.
#include <cstdint>

namespace zorvac::test {

// The processor levels, as bits of the feature indicator.
namespace level {
constexpr std::uint64_t generic = 0x1;  // detection has run
constexpr std::uint64_t sse = 0x3f;
constexpr std::uint64_t sse2 = 0x7f;
constexpr std::uint64_t sse3 = 0xff;
constexpr std::uint64_t ssse3 = 0x1ff;
constexpr std::uint64_t sse4_1 = 0x3ff;
constexpr std::uint64_t sse4_2 = 0x17ff;
constexpr std::uint64_t avx = 0x1'17ff;
constexpr std::uint64_t f16c = 0x1'97ff;
constexpr std::uint64_t avx2 = 0x9d'97ff;
constexpr std::uint64_t avx512_er_pf = 0x7'389d'97ff;
constexpr std::uint64_t avx512_dq_vl = 0x40'099d'97ff;
}  // namespace level

// Bits of MXCSR, the control and status register of SSE.
namespace mxcsr_bit {
constexpr std::uint32_t denormals_are_zero = 0x40;
constexpr std::uint32_t all_exceptions_masked = 0x1f80;  // as when a process begins
constexpr std::uint32_t flush_to_zero = 0x8000;
constexpr std::uint32_t misaligned_exceptions_masked = 0x2'0000;
}  // namespace mxcsr_bit

// Bits of RFLAGS.
namespace flags_bit {
constexpr std::uint64_t trap = 0x100;
constexpr std::uint64_t direction = 0x400;
}  // namespace flags_bit

}  // namespace zorvac::test
#endif
