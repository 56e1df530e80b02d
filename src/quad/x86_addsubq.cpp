// Addition and subtraction of quads in memory.
#include "quad/add.h"
#include "zorvac/quad.h"

using namespace zorvac::softfp;

void __addq(void* sum, const void* a, const void* b) {
  add<own_rules>(to_address{sum}, at_address{a}, at_address{b}, 0);
}
void __subq(void* difference, const void* a, const void* b) {
  add<own_rules>(to_address{difference}, at_address{a}, at_address{b}, high(binary128::sign_bit));
}
