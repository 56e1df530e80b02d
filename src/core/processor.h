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

template <class Processor>
concept processor = requires(const Processor& p, std::uint32_t leaf, std::uint32_t subleaf) {
  { p.has_cpuid() } -> std::same_as<bool>;
  { p.cpuid(leaf, subleaf) } -> std::same_as<cpuid_answer>;
  { p.xgetbv() } -> std::same_as<std::uint64_t>;  // XCR0; only where CPUID reports OSXSAVE
};

namespace {

struct hardware_processor {
  // CPUID exists if software can change the ID flag, bit 21. The stack pointer first skips the red
  // zone, where the compiler may keep values of the surrounding function.
  [[gnu::always_inline]] static inline bool has_cpuid() {
    std::uint64_t before, flipped;
    asm volatile(
        "lea -128(%%rsp), %%rsp\n\t"
        "pushfq\n\t"
        "pop %0\n\t"
        "mov %0, %1\n\t"
        "xor $0x200000, %1\n\t"
        "push %1\n\t"
        "popfq\n\t"
        "pushfq\n\t"
        "pop %1\n\t"
        "push %0\n\t"
        "popfq\n\t"
        "lea 128(%%rsp), %%rsp"
        : "=&r"(before), "=&r"(flipped)
        :
        : "cc");
    return ((before ^ flipped) & 0x200000) != 0;
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
