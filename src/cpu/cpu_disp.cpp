// The legacy processor indicator. Dispatch stubs call this routine, as they call feature detection,
// and it preserves all registers in the same way: general registers only, everything inlined.
#include "cpu/cpu_disp.h"

#include "core/export.h"
#include "zorvac/cpu.h"

std::uint32_t __zorva_cpu_indicator;

ZORVAC_EXPORT_AS("__zorva_cpu_indicator_init", ZORVAC_PRESERVES_REGISTERS void indicator_init());
void indicator_init() {
  __zorva_cpu_indicator =
      zorvac::cpu::classify(zorvac::hardware_processor{}, zorvac::cpu::accepted_vendor);
}
