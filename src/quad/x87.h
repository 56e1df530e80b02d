#ifndef ZORVAC_QUAD_X87_H
#define ZORVAC_QUAD_X87_H
// The control and status words of the x87 unit, and its whole state.
//
// The instructions that begin with FN do not check for pending exceptions. FLDCW, FSTSW and FRSTOR
// trap when an unmasked exception is pending.
#include <cstdint>

namespace zorvac::x87_unit {

// The memory image of FNSAVE and FRSTOR in 64-bit mode (architecture manuals, "x87 FPU state image
// in memory, 32-bit protected mode"): 28 bytes of environment and eight 80-bit registers.
struct state {
  unsigned char bytes[28 + 8 * 10];
};

[[gnu::always_inline]] inline std::uint16_t read_control() {
  std::uint16_t word;
  asm volatile("fnstcw %0" : "=m"(word));
  return word;
}
[[gnu::always_inline]] inline void write_control(std::uint16_t word) {
  asm volatile("fldcw %0" : : "m"(word));
}

[[gnu::always_inline]] inline std::uint16_t read_status() {
  std::uint16_t word;
  asm volatile("fnstsw %0" : "=m"(word));
  return word;
}
[[gnu::always_inline]] inline std::uint16_t wait_and_read_status() {
  std::uint16_t word;
  asm volatile("fstsw %0" : "=m"(word));
  return word;
}
[[gnu::always_inline]] inline void clear_exceptions() { asm volatile("fnclex"); }

// FNSAVE also sets the unit to its initial state.
[[gnu::always_inline]] inline void save(state& to) { asm volatile("fnsave %0" : "=m"(to)); }
[[gnu::always_inline]] inline void restore(const state& from) {
  asm volatile("frstor %0" : : "m"(from));
}

}  // namespace zorvac::x87_unit
#endif
