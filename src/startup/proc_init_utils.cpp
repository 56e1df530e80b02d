// Setting the flush modes.
#include "startup/proc_init_utils.h"

using namespace zorvac;

namespace {

// The MXCSR bits that may be set without a fault, from the image that FXSAVE stores. A processor
// that stores 0 there supports none of the optional ones.
std::uint32_t supported_mxcsr_bits() {
  struct alignas(16) fxsave_image {
    std::uint32_t words[128];
  } image = {};
  constexpr int mxcsr_mask_word = 28 / 4;
  asm volatile("fxsave64 %0" : "=m"(image));
  return image.words[mxcsr_mask_word];
}

}  // namespace

// A step each: a mode that faults, because it was said to be supported and is not, does so after
// the ones before it have been set.
extern "C" void __zorva_proc_init_ftzdazule(int known, int flags) {
  const int granted = startup::supported_modes(known, flags, supported_mxcsr_bits);
  if ((flags & ZORVAC_FLUSH_TO_ZERO) != 0) mxcsr::write(mxcsr::read() | mxcsr::flush_to_zero);
  if ((granted & ZORVAC_DENORMALS_ARE_ZERO) != 0)
    mxcsr::write(mxcsr::read() | mxcsr::denormals_are_zero);
  if ((granted & ZORVAC_MXCSR_BIT_17) != 0) mxcsr::write(mxcsr::read() | mxcsr::bit_17);
}
