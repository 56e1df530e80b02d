// Smaller floating-point formats to quads in memory.
#include "quad/nan.h"
#include "quad/widen.h"
#include "zorvac/quad.h"

using namespace zorvac::softfp;

namespace {

// The x87 multiplies a number by 1, at full precision whatever the program has set. Signalling NaNs
// become quiet, and the x87 raises its own flags. A normal number does not change and raises
// nothing.
const long double __l_one = 1.0L;

[[gnu::cold, gnu::noinline]] long double through_x87(long double value) {
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

bool is_normal(long double value) {
  x87_image image;
  std::memcpy(&image, &value, 10);
  const int exponent = image.sign_and_exponent & x87::special_exponent;
  return exponent != 0 && exponent != x87::special_exponent && image.significand >> 63 != 0;
}

}  // namespace

void __ftoq(void* destination, float value) {
  widen<binary32, own_rules>(to_address{destination}, word_of(value));
}
void __dtoq(void* destination, double value) {
  widen<binary64, own_rules>(to_address{destination}, word_of(value));
}
void __ltoq(void* destination, long double value) {
  if (!is_normal(value)) [[unlikely]]
    value = through_x87(value);
  store(destination, widened(word_of(value)));
}
