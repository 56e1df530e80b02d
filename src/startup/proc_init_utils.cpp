// Sets the flush modes.
#include "startup/proc_init_utils.h"

using namespace zorvac;

namespace {

// The operand is "+m", read and written: for "=m" the compiler would remove the clearing of the
// area.
void fxsave(startup::fxsave_image& area) { asm volatile("fxsave64 %0" : "+m"(area)); }

}  // namespace

std::uint32_t startup::supported_mxcsr_bits(void (*save)(fxsave_image& area)) {
  fxsave_image area = {};
  save(area);
  return area.words[fxsave_image::mxcsr_mask_word];
}

// One step for each mode: a mode that was taken to be supported and is not causes a fault only
// after the modes before it have been set.
extern "C" void __zorva_proc_init_ftzdazule(int known, int flags) {
  const int granted =
      startup::supported_modes(known, flags, [] { return startup::supported_mxcsr_bits(fxsave); });
  if ((flags & ZORVAC_FLUSH_TO_ZERO) != 0) mxcsr::write(mxcsr::read() | mxcsr::flush_to_zero);
  if ((granted & ZORVAC_DENORMALS_ARE_ZERO) != 0)
    mxcsr::write(mxcsr::read() | mxcsr::denormals_are_zero);
  if ((granted & ZORVAC_MXCSR_BIT_17) != 0) mxcsr::write(mxcsr::read() | mxcsr::bit_17);
}
