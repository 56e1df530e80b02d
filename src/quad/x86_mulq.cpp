// Multiplication of quads in memory. Both processor classes have the same code.
#include "core/export.h"
#include "quad/multiply.h"

using namespace zorvac::softfp;

ZORVAC_EXPORT_AS("__mulq.L", void mulq_l(void* product, const void* a, const void* b));
void mulq_l(void* product, const void* a, const void* b) {
  multiply<own_rules>(to_address{product}, at_address{a}, at_address{b});
}
ZORVAC_EXPORT_AS("__mulq.A",
                 __attribute__((alias("__mulq.L"))) void mulq_a(void* product, const void* a,
                                                                const void* b));
