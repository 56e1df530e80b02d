#ifndef ZORVAC_CPU_CPU_DISP_H
#define ZORVAC_CPU_CPU_DISP_H
// The class of a processor, for dispatch code that compares one word and tests no masks.
#include "core/processor.h"
#include "cpu/vendor.h"

namespace zorvac::cpu {

// The values are part of the interface. They are not in the order of capability.
namespace processor_class {
inline constexpr std::uint32_t generic = 0x1;
inline constexpr std::uint32_t sse3 = 0x800;
inline constexpr std::uint32_t ssse3 = 0x1000;
inline constexpr std::uint32_t movbe = 0x4000;
inline constexpr std::uint32_t sse4_1 = 0x2000;
inline constexpr std::uint32_t sse4_2_popcnt = 0x8000;
inline constexpr std::uint32_t pclmulqdq_aes = 0x10000;
inline constexpr std::uint32_t avx = 0x20000;
inline constexpr std::uint32_t avx_f16c = 0x40000;
inline constexpr std::uint32_t avx2 = 0x200000;
inline constexpr std::uint32_t adx_rdseed = 0x800000;
inline constexpr std::uint32_t avx512_er_pf = 0x2000000;
inline constexpr std::uint32_t avx512_bw_vl = 0x4000000;
}  // namespace processor_class

// The best class below AVX. Each test that passes replaces the class, whatever the tests before it
// gave: a processor may skip a step, and MOVBE counts only if SSE4.1 is missing.
[[gnu::always_inline]] constexpr std::uint32_t sse_class(std::uint32_t ecx) {
  using namespace leaf1_ecx;
  std::uint32_t best = processor_class::generic;
  if (has(ecx, sse3)) best = processor_class::sse3;
  if (has(ecx, ssse3)) best = processor_class::ssse3;
  if (has(ecx, movbe)) best = processor_class::movbe;
  if (has(ecx, sse4_1)) best = processor_class::sse4_1;
  if (has(ecx, sse4_2 | popcnt)) best = processor_class::sse4_2_popcnt;
  if (has(ecx, pclmulqdq | aes)) best = processor_class::pclmulqdq_aes;
  return best;
}

// The class of a processor with AVX that the operating system has enabled. ADX with RDSEED is above
// the AVX2 group and does not require it.
template <processor Processor>
[[gnu::always_inline]] constexpr std::uint32_t avx_class(const Processor& p, std::uint32_t ecx,
                                                         std::uint64_t xcr0) {
  using namespace leaf7_ebx;
  const std::uint32_t ebx = p.cpuid(7, 0).ebx;
  const std::uint32_t extended = p.cpuid(0x80000001, 0).ecx;
  std::uint32_t best = processor_class::avx;
  if (has(ecx, leaf1_ecx::f16c)) best = processor_class::avx_f16c;
  if (has(ebx, avx2 | bmi1 | bmi2 | hle | rtm) && has(ecx, leaf1_ecx::fma) &&
      has(extended, extended_ecx::lzcnt))
    best = processor_class::avx2;
  if (has(ebx, rdseed | adx)) best = processor_class::adx_rdseed;
  if (has(xcr0, xcr0_zmm)) {
    if (has(ebx, avx512f | avx512pf | avx512er | avx512cd)) best = processor_class::avx512_er_pf;
    if (has(ebx, avx512f | avx512dq | avx512bw | avx512vl)) best = processor_class::avx512_bw_vl;
  }
  return best;
}

// Returns exactly one bit. The extended family is ignored, and in family 15 only SSE3 is looked at.
template <processor Processor>
[[gnu::always_inline]] constexpr std::uint32_t classify(const Processor& p,
                                                        const vendor_rule& vendor) {
  if (!p.has_cpuid()) return processor_class::generic;
  const cpuid_answer leaf0 = p.cpuid(0, 0);
  if (leaf0.eax == 0 || !vendor.accepts(leaf0)) return processor_class::generic;

  const cpuid_answer leaf1 = p.cpuid(1, 0);
  const std::uint32_t family = signature{leaf1.eax}.family();
  if (family == 15)
    return has(leaf1.ecx, leaf1_ecx::sse3) ? processor_class::sse3 : processor_class::generic;
  if (family != 6) return processor_class::generic;

  if (has(leaf1.ecx, leaf1_ecx::osxsave)) {
    const std::uint64_t xcr0 = p.xgetbv();
    if (has(xcr0, xcr0_ymm) && has(leaf1.ecx, leaf1_ecx::avx)) return avx_class(p, leaf1.ecx, xcr0);
  }
  return sse_class(leaf1.ecx);
}

}  // namespace zorvac::cpu
#endif
