#ifndef ZORVAC_CPU_CPU_FEATURE_DISP_H
#define ZORVAC_CPU_CPU_FEATURE_DISP_H
// Feature detection as a function of a processor's answers: a table says which CPUID bits each bit
// of the feature indicator comes from, and which of four further conditions it needs.
#include "core/levels.h"
#include "core/processor.h"
#include "core/vendor.h"

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

constexpr std::uint32_t bit(int number) { return std::uint32_t{1} << number; }

// The bits that CPUID reports; GENERIC_X86 and FULLY_INORDER_PROCESSOR are computed.
inline constexpr feature_rule feature_rules[] = {
    {ZORVAC_FEATURE_X87, source::leaf1_edx, bit(0), gate::none},
    {ZORVAC_FEATURE_CMOV, source::leaf1_edx, bit(15), gate::none},
    {ZORVAC_FEATURE_MMX, source::leaf1_edx, bit(23), gate::none},
    {ZORVAC_FEATURE_FXSAVE, source::leaf1_edx, bit(24), gate::none},
    {ZORVAC_FEATURE_SSE, source::leaf1_edx, bit(25), gate::fxsave},
    {ZORVAC_FEATURE_SSE2, source::leaf1_edx, bit(26), gate::fxsave},
    {ZORVAC_FEATURE_SSE3, source::leaf1_ecx, bit(0), gate::fxsave},
    {ZORVAC_FEATURE_SSSE3, source::leaf1_ecx, bit(9), gate::fxsave},
    {ZORVAC_FEATURE_SSE4_1, source::leaf1_ecx, bit(19), gate::fxsave},
    {ZORVAC_FEATURE_SSE4_2, source::leaf1_ecx, bit(20), gate::fxsave},
    {ZORVAC_FEATURE_MOVBE, source::leaf1_ecx, bit(22), gate::fxsave},
    {ZORVAC_FEATURE_POPCNT, source::leaf1_ecx, bit(23), gate::fxsave},
    {ZORVAC_FEATURE_PCLMULQDQ, source::leaf1_ecx, bit(1), gate::fxsave},
    {ZORVAC_FEATURE_AES, source::leaf1_ecx, bit(25), gate::fxsave},
    {ZORVAC_FEATURE_F16C, source::leaf1_ecx, bit(29), gate::ymm_state},
    {ZORVAC_FEATURE_AVX, source::leaf1_ecx, bit(28), gate::ymm_state},
    {ZORVAC_FEATURE_RDRND, source::leaf1_ecx, bit(30), gate::none},
    {ZORVAC_FEATURE_FMA, source::leaf1_ecx, bit(12), gate::ymm_state},
    {ZORVAC_FEATURE_BMI, source::leaf7_ebx, bit(3) | bit(8), gate::none},  // BMI1 and BMI2
    {ZORVAC_FEATURE_LZCNT, source::extended_ecx, bit(5), gate::none},
    {ZORVAC_FEATURE_HLE, source::leaf7_ebx, bit(4), gate::none},
    {ZORVAC_FEATURE_RTM, source::leaf7_ebx, bit(11), gate::none},
    {ZORVAC_FEATURE_AVX2, source::leaf7_ebx, bit(5), gate::ymm_state},
    {ZORVAC_FEATURE_AVX512DQ, source::leaf7_ebx, bit(17), gate::zmm_state},
    {ZORVAC_FEATURE_AVX512F, source::leaf7_ebx, bit(16), gate::zmm_state},
    {ZORVAC_FEATURE_ADX, source::leaf7_ebx, bit(19), gate::none},
    {ZORVAC_FEATURE_RDSEED, source::leaf7_ebx, bit(18), gate::none},
    {ZORVAC_FEATURE_AVX512IFMA52, source::leaf7_ebx, bit(21), gate::zmm_state},
    {ZORVAC_FEATURE_AVX512ER, source::leaf7_ebx, bit(27), gate::zmm_state},
    {ZORVAC_FEATURE_AVX512PF, source::leaf7_ebx, bit(26), gate::zmm_state},
    {ZORVAC_FEATURE_AVX512CD, source::leaf7_ebx, bit(28), gate::zmm_state},
    {ZORVAC_FEATURE_SHA, source::leaf7_ebx, bit(29), gate::fxsave},
    {ZORVAC_FEATURE_MPX, source::leaf7_ebx, bit(14), gate::mpx_state},
    {ZORVAC_FEATURE_AVX512BW, source::leaf7_ebx, bit(30), gate::zmm_state},
    {ZORVAC_FEATURE_AVX512VL, source::leaf7_ebx, bit(31), gate::zmm_state},
    {ZORVAC_FEATURE_AVX512VBMI, source::leaf7_ecx, bit(1), gate::zmm_state},
};

// Whether leaf 1's signature is one of the in-order models. The family is ignored.
[[gnu::always_inline]] constexpr bool is_in_order(std::uint32_t signature) {
  const std::uint32_t model = (signature >> 16 & 0xf) << 4 | (signature >> 4 & 0xf);
  return model == 0x1c || model == 0x26 || model == 0x27;
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
  if (has(leaf1.edx, bit(24))) open_gates |= 1u << static_cast<int>(gate::fxsave);
  if (has(leaf1.ecx, bit(27))) {  // OSXSAVE: XGETBV may be executed
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
  if (is_in_order(leaf1.eax)) word |= ZORVAC_FEATURE_FULLY_INORDER_PROCESSOR;
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
