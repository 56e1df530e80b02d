#ifndef ZORVAC_STARTUP_PROC_INIT_UTILS_H
#define ZORVAC_STARTUP_PROC_INIT_UTILS_H
// How every start-up check ends: it sets the flush modes, or it refuses to start.
#include <cstdint>

#include "core/mxcsr.h"
#include "zorvac/startup.h"

namespace zorvac::startup {

// Optional MXCSR bits that need no probe, as bits of the flags word.
inline constexpr int nothing_known = 0;
inline constexpr int daz_known = ZORVAC_DENORMALS_ARE_ZERO;
inline constexpr int daz_and_17_known = ZORVAC_DENORMALS_ARE_ZERO | ZORVAC_MXCSR_BIT_17;

// The flags word of the older generation.
inline constexpr int ftz_and_daz = ZORVAC_FLUSH_TO_ZERO | ZORVAC_DENORMALS_ARE_ZERO;

// The optional bits of `flags` that may be set. If all of them are in `known`, that is all of them;
// otherwise it is those in the mask of supported MXCSR bits. `supported` returns that mask and is
// called only in the second case.
template <class SupportedBits>
constexpr int supported_modes(int known, int flags, SupportedBits supported) {
  constexpr int optional = ZORVAC_DENORMALS_ARE_ZERO | ZORVAC_MXCSR_BIT_17;
  const int wanted = flags & optional;
  if ((wanted & ~known) == 0) return wanted;
  const std::uint32_t mask = supported();
  int granted = wanted;
  if ((mask & mxcsr::denormals_are_zero) == 0) granted &= ~ZORVAC_DENORMALS_ARE_ZERO;
  if ((mask & mxcsr::bit_17) == 0) granted &= ~ZORVAC_MXCSR_BIT_17;
  return granted;
}

// What FXSAVE stores (architecture manuals, "FXSAVE area").
struct alignas(16) fxsave_image {
  static constexpr int mxcsr_mask_word = 28 / 4;
  std::uint32_t words[128];
};

// The MXCSR bits that can be set without a fault, from the image that `save` stores into a cleared
// area. A processor that stores 0 for them, or nothing, supports none of the optional bits.
std::uint32_t supported_mxcsr_bits(void (*save)(fxsave_image& area));

}  // namespace zorvac::startup

extern "C" {

// Sets the modes of `flags` in the calling thread's MXCSR; clears none. `known`: see above.
void __zorva_proc_init_ftzdazule(int known, int flags);

// Prints that the program needs another processor, described by message `msgno`, and exits.
[[noreturn]] void __bad_processor_detected(int msgno);

// Prints message `msgno`, which says what processor and operating system must support, and exits.
[[noreturn]] void __bad_processor_or_os(int msgno);
}
#endif
