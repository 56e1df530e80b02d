#ifndef ZORVAC_CORE_PROCESSOR_H
#define ZORVAC_CORE_PROCESSOR_H
// The questions that the library asks a processor. Detection is a template over this concept, so
// tests can use tables of CPUID answers instead of the hardware.
//
// Everything here is forced inline: detection must not call code outside its translation unit,
// which is built for general registers only.
#include <concepts>
#include <cstdint>

namespace zorvac {

struct cpuid_answer {
  std::uint32_t eax, ebx, ecx, edx;
};

// CPUID's feature bits. The namespace gives the leaf and the register; the extended leaf is
// 0x80000001 (architecture manuals, "CPUID").
namespace leaf1_edx {
inline constexpr std::uint32_t x87 = 1 << 0, cmov = 1 << 15, mmx = 1 << 23, fxsave = 1 << 24,
                               sse = 1 << 25, sse2 = 1 << 26;
}
namespace leaf1_ecx {
inline constexpr std::uint32_t sse3 = 1 << 0, pclmulqdq = 1 << 1, ssse3 = 1 << 9, fma = 1 << 12,
                               sse4_1 = 1 << 19, sse4_2 = 1 << 20, movbe = 1 << 22,
                               popcnt = 1 << 23, aes = 1 << 25, osxsave = 1 << 27, avx = 1 << 28,
                               f16c = 1 << 29, rdrand = 1 << 30;
}
namespace leaf7_ebx {
inline constexpr std::uint32_t bmi1 = 1 << 3, hle = 1 << 4, avx2 = 1 << 5, bmi2 = 1 << 8,
                               rtm = 1 << 11, mpx = 1 << 14, avx512f = 1 << 16, avx512dq = 1 << 17,
                               rdseed = 1 << 18, adx = 1 << 19, avx512ifma52 = 1 << 21,
                               avx512pf = 1 << 26, avx512er = 1 << 27, avx512cd = 1 << 28,
                               sha = 1 << 29, avx512bw = 1 << 30, avx512vl = 1u << 31;
}
namespace leaf7_ecx {
inline constexpr std::uint32_t avx512vbmi = 1 << 1;
}
namespace extended_ecx {
inline constexpr std::uint32_t lzcnt = 1 << 5;
}

// The signature in EAX of leaf 1.
struct signature {
  std::uint32_t word;

  // Without the extended family, which counts for family 15 only.
  [[gnu::always_inline]] constexpr std::uint32_t family() const { return word >> 8 & 0xf; }
  [[gnu::always_inline]] constexpr std::uint32_t extended_family() const {
    return word >> 20 & 0xff;
  }
  [[gnu::always_inline]] constexpr std::uint32_t model() const {
    return (word >> 16 & 0xf) << 4 | (word >> 4 & 0xf);
  }
};

template <class Processor>
concept processor = requires(const Processor& p, std::uint32_t leaf, std::uint32_t subleaf) {
  { p.has_cpuid() } -> std::same_as<bool>;
  { p.cpuid(leaf, subleaf) } -> std::same_as<cpuid_answer>;
  { p.xgetbv() } -> std::same_as<std::uint64_t>;  // XCR0; only where CPUID reports OSXSAVE
};

namespace {

struct hardware_processor {
  // CPUID exists if software can change the ID flag. The stack pointer first skips the red zone,
  // where the compiler may keep values of the surrounding function.
  [[gnu::always_inline]] static inline bool has_cpuid() {
    constexpr std::uint64_t id_flag = 1 << 21;
    std::uint64_t before, flipped;
    asm volatile(
        "lea -128(%%rsp), %%rsp\n\t"
        "pushfq\n\t"
        "pop %0\n\t"
        "mov %0, %1\n\t"
        "xor %2, %1\n\t"
        "push %1\n\t"
        "popfq\n\t"
        "pushfq\n\t"
        "pop %1\n\t"
        "push %0\n\t"
        "popfq\n\t"
        "lea 128(%%rsp), %%rsp"
        : "=&r"(before), "=&r"(flipped)
        : "i"(id_flag)
        : "cc");
    return ((before ^ flipped) & id_flag) != 0;
  }

  [[gnu::always_inline]] static inline cpuid_answer cpuid(std::uint32_t leaf,
                                                          std::uint32_t subleaf) {
    cpuid_answer a;
    asm volatile("cpuid"
                 : "=a"(a.eax), "=b"(a.ebx), "=c"(a.ecx), "=d"(a.edx)
                 : "a"(leaf), "c"(subleaf));
    return a;
  }

  [[gnu::always_inline]] static inline std::uint64_t xgetbv() {
    std::uint32_t low, high;
    asm volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
    return std::uint64_t{high} << 32 | low;
  }
};
static_assert(processor<hardware_processor>);

}  // namespace

// Whether all of `bits` are set in `word`.
template <class Word>
[[gnu::always_inline]] constexpr bool has(Word word, Word bits) {
  return (word & bits) == bits;
}

// XCR0 state components: the operating system has enabled the use of these registers (processor
// architecture manuals, "Managing state using the XSAVE feature set").
inline constexpr std::uint64_t xcr0_ymm = 1 << 1 | 1 << 2;  // SSE and AVX state
inline constexpr std::uint64_t xcr0_mpx = 1 << 3 | 1 << 4;  // bound registers, bound control
inline constexpr std::uint64_t xcr0_zmm = 1 << 5 | 1 << 6 | 1 << 7;  // masks, ZMM halves, ZMM16-31

}  // namespace zorvac
#endif
