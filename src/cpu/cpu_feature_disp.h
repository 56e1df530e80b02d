#ifndef ZORVAC_CPU_CPU_FEATURE_DISP_H
#define ZORVAC_CPU_CPU_FEATURE_DISP_H
// Feature detection as a function of a processor's answers: a table says which CPUID bits each bit
// of the feature indicator comes from, and which of four further conditions it needs.
#include "core/levels.h"
#include "core/processor.h"
#include "cpu/vendor.h"

namespace zorvac::cpu {

enum class detection_mode : int { any_vendor = 0, vendor_checked = 1 };

// The registers that report features.
enum class source : std::uint8_t { leaf1_edx, leaf1_ecx, leaf7_ebx, leaf7_ecx, extended_ecx };
inline constexpr int sources = 5;

// What must hold besides the CPUID bit. The register-state gates say that the operating system
// saves the state. They are independent of FXSAVE.
enum class gate : std::uint8_t { none, fxsave, ymm_state, mpx_state, zmm_state };

struct feature_rule {
  std::uint64_t feature;
  source from;
  std::uint32_t bits;  // all of them are required
  gate needs;
};

// The bits that CPUID reports; GENERIC_X86 and FULLY_INORDER_PROCESSOR are computed.
inline constexpr feature_rule feature_rules[] = {
    {ZORVAC_FEATURE_X87, source::leaf1_edx, leaf1_edx::x87, gate::none},
    {ZORVAC_FEATURE_CMOV, source::leaf1_edx, leaf1_edx::cmov, gate::none},
    {ZORVAC_FEATURE_MMX, source::leaf1_edx, leaf1_edx::mmx, gate::none},
    {ZORVAC_FEATURE_FXSAVE, source::leaf1_edx, leaf1_edx::fxsave, gate::none},
    {ZORVAC_FEATURE_SSE, source::leaf1_edx, leaf1_edx::sse, gate::fxsave},
    {ZORVAC_FEATURE_SSE2, source::leaf1_edx, leaf1_edx::sse2, gate::fxsave},
    {ZORVAC_FEATURE_SSE3, source::leaf1_ecx, leaf1_ecx::sse3, gate::fxsave},
    {ZORVAC_FEATURE_SSSE3, source::leaf1_ecx, leaf1_ecx::ssse3, gate::fxsave},
    {ZORVAC_FEATURE_SSE4_1, source::leaf1_ecx, leaf1_ecx::sse4_1, gate::fxsave},
    {ZORVAC_FEATURE_SSE4_2, source::leaf1_ecx, leaf1_ecx::sse4_2, gate::fxsave},
    {ZORVAC_FEATURE_MOVBE, source::leaf1_ecx, leaf1_ecx::movbe, gate::fxsave},
    {ZORVAC_FEATURE_POPCNT, source::leaf1_ecx, leaf1_ecx::popcnt, gate::fxsave},
    {ZORVAC_FEATURE_PCLMULQDQ, source::leaf1_ecx, leaf1_ecx::pclmulqdq, gate::fxsave},
    {ZORVAC_FEATURE_AES, source::leaf1_ecx, leaf1_ecx::aes, gate::fxsave},
    {ZORVAC_FEATURE_F16C, source::leaf1_ecx, leaf1_ecx::f16c, gate::ymm_state},
    {ZORVAC_FEATURE_AVX, source::leaf1_ecx, leaf1_ecx::avx, gate::ymm_state},
    {ZORVAC_FEATURE_RDRND, source::leaf1_ecx, leaf1_ecx::rdrand, gate::none},
    {ZORVAC_FEATURE_FMA, source::leaf1_ecx, leaf1_ecx::fma, gate::ymm_state},
    {ZORVAC_FEATURE_BMI, source::leaf7_ebx, leaf7_ebx::bmi1 | leaf7_ebx::bmi2, gate::none},
    {ZORVAC_FEATURE_LZCNT, source::extended_ecx, extended_ecx::lzcnt, gate::none},
    {ZORVAC_FEATURE_HLE, source::leaf7_ebx, leaf7_ebx::hle, gate::none},
    {ZORVAC_FEATURE_RTM, source::leaf7_ebx, leaf7_ebx::rtm, gate::none},
    {ZORVAC_FEATURE_AVX2, source::leaf7_ebx, leaf7_ebx::avx2, gate::ymm_state},
    {ZORVAC_FEATURE_AVX512DQ, source::leaf7_ebx, leaf7_ebx::avx512dq, gate::zmm_state},
    {ZORVAC_FEATURE_AVX512F, source::leaf7_ebx, leaf7_ebx::avx512f, gate::zmm_state},
    {ZORVAC_FEATURE_ADX, source::leaf7_ebx, leaf7_ebx::adx, gate::none},
    {ZORVAC_FEATURE_RDSEED, source::leaf7_ebx, leaf7_ebx::rdseed, gate::none},
    {ZORVAC_FEATURE_AVX512IFMA52, source::leaf7_ebx, leaf7_ebx::avx512ifma52, gate::zmm_state},
    {ZORVAC_FEATURE_AVX512ER, source::leaf7_ebx, leaf7_ebx::avx512er, gate::zmm_state},
    {ZORVAC_FEATURE_AVX512PF, source::leaf7_ebx, leaf7_ebx::avx512pf, gate::zmm_state},
    {ZORVAC_FEATURE_AVX512CD, source::leaf7_ebx, leaf7_ebx::avx512cd, gate::zmm_state},
    {ZORVAC_FEATURE_SHA, source::leaf7_ebx, leaf7_ebx::sha, gate::fxsave},
    {ZORVAC_FEATURE_MPX, source::leaf7_ebx, leaf7_ebx::mpx, gate::mpx_state},
    {ZORVAC_FEATURE_AVX512BW, source::leaf7_ebx, leaf7_ebx::avx512bw, gate::zmm_state},
    {ZORVAC_FEATURE_AVX512VL, source::leaf7_ebx, leaf7_ebx::avx512vl, gate::zmm_state},
    {ZORVAC_FEATURE_AVX512VBMI, source::leaf7_ecx, leaf7_ecx::avx512vbmi, gate::zmm_state},
};

// The family is ignored.
[[gnu::always_inline]] constexpr bool is_in_order(signature s) {
  return s.model() == 0x1c || s.model() == 0x26 || s.model() == 0x27;
}

// The feature word of a processor that has leaf 1. Leaves 7 and 0x80000001 are read without a check
// of the highest supported leaf.
template <processor Processor>
[[gnu::always_inline]] constexpr std::uint64_t feature_word(const Processor& p) {
  const cpuid_answer leaf1 = p.cpuid(1, 0);
  const cpuid_answer leaf7 = p.cpuid(7, 0);
  const cpuid_answer extended = p.cpuid(0x80000001, 0);
  const std::uint32_t registers[sources] = {leaf1.edx, leaf1.ecx, leaf7.ebx, leaf7.ecx,
                                            extended.ecx};

  std::uint32_t open_gates = 1u << static_cast<int>(gate::none);
  if (has(leaf1.edx, leaf1_edx::fxsave)) open_gates |= 1u << static_cast<int>(gate::fxsave);
  if (has(leaf1.ecx, leaf1_ecx::osxsave)) {  // OSXSAVE: XGETBV may be executed
    const std::uint64_t xcr0 = p.xgetbv();
    if (has(xcr0, xcr0_ymm)) {
      open_gates |= 1u << static_cast<int>(gate::ymm_state);
      if (has(xcr0, xcr0_mpx)) open_gates |= 1u << static_cast<int>(gate::mpx_state);
      if (has(xcr0, xcr0_zmm)) open_gates |= 1u << static_cast<int>(gate::zmm_state);
    }
  }

  std::uint64_t word = ZORVAC_FEATURE_GENERIC_X86;
  for (const feature_rule& rule : feature_rules) {
    const bool open = (open_gates >> static_cast<int>(rule.needs) & 1) != 0;
    if (open && has(registers[static_cast<int>(rule.from)], rule.bits)) word |= rule.feature;
  }
  if (is_in_order({leaf1.eax})) word |= ZORVAC_FEATURE_FULLY_INORDER_PROCESSOR;
  return word;
}

// Stores whole words, never parts of them. Every run, in any thread, stores the same words.
//
// On a processor without leaf 1 both modes store the vendor-checked word, so that no dispatcher
// waits for detection for ever. The other word stays as it is.
template <processor Processor>
[[gnu::always_inline]] constexpr void detect_features(const Processor& p, detection_mode mode,
                                                      const vendor_rule& vendor,
                                                      std::uint64_t& indicator,
                                                      std::uint64_t& indicator_x) {
  const bool vendor_checked = mode == detection_mode::vendor_checked;
  const cpuid_answer leaf0 = p.cpuid(0, 0);
  if (leaf0.eax == 0 || (vendor_checked && !vendor.accepts(leaf0))) {
    indicator = ZORVAC_INITIALISED;
    return;
  }
  const std::uint64_t word = cpu::feature_word(p);
  if (vendor_checked) indicator = word;
  indicator_x = word;
}

}  // namespace zorvac::cpu
#endif
