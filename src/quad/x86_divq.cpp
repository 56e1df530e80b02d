// Division of quads in memory. Both processor classes have the same code.
#include "core/export.h"
#include "quad/divide.h"

using namespace zorvac::softfp;

ZORVAC_EXPORT_AS("__divq.L", void divq_l(void* quotient, const void* a, const void* b));
void divq_l(void* quotient, const void* a, const void* b) {
  divide<own_rules>(to_address{quotient}, at_address{a}, at_address{b});
}
ZORVAC_EXPORT_AS("__divq.A",
                 __attribute__((alias("__divq.L"))) void divq_a(void* quotient, const void* a,
                                                                const void* b));
