// Smaller floating-point formats to quads, by address.
#include "quad/nan.h"
#include "quad/widen.h"
#include "zorvac/quad.h"

using namespace zorvac::softfp;

namespace {

// What the x87 makes of a number multiplied by 1 with a significand of 64 bits, whatever precision
// the program has set: signalling NaNs become quiet and the x87 raises its own flags.
const long double __l_one = 1.0L;

inline long double through_x87(long double value) {
  constexpr std::uint16_t full_precision = 0x300;  // of the control word's field
  std::uint16_t saved;
  asm volatile("fnstcw %0" : "=m"(saved));
  const auto full = static_cast<std::uint16_t>(saved | full_precision);
  long double product;
  asm volatile(
      "fldcw %[full]\n\t"
      "fldt %[value]\n\t"
      "fldt %[one]\n\t"
      "fmulp\n\t"
      "fstpt %[product]\n\t"
      "fldcw %[saved]"
      : [product] "=m"(product)
      : [value] "m"(value), [one] "m"(__l_one), [full] "m"(full), [saved] "m"(saved)
      : "st", "st(1)");
  return product;
}

}  // namespace

void __ftoq(void* destination, float value) {
  widen<binary32, own_rules>(to_address{destination}, word_of(value));
}
void __dtoq(void* destination, double value) {
  widen<binary64, own_rules>(to_address{destination}, word_of(value));
}
void __ltoq(void* destination, long double value) {
  store(destination, widened(word_of(through_x87(value))));
}
