#ifndef ZORVAC_QUAD_FROM_INTEGER_H
#define ZORVAC_QUAD_FROM_INTEGER_H
// Integers to quads: always exact, because a quad's significand is wider than any of them.
#include "quad/formats.h"
#include "quad/places.h"

namespace zorvac::softfp {
namespace {

[[gnu::always_inline]] constexpr uint128 from_magnitude(bool negative, uint64_t magnitude) {
  using f = binary128;
  if (magnitude == 0) return 0;
  const int unused_bits = leading_zeros(magnitude);
  const uint64_t at_top = magnitude << unused_bits;
  const uint128 significand =
      make_uint128(at_top >> (127 - f::fraction_bits), at_top << (f::fraction_bits - 63));
  return f::signed_word(negative, pack<f>(f::bias + 63 - unused_bits, significand));
}
[[gnu::always_inline]] constexpr uint128 from_signed(std::int64_t value) {
  const auto mask = static_cast<uint64_t>(value >> 63);  // all ones where negative
  return from_magnitude(value < 0, (static_cast<uint64_t>(value) ^ mask) - mask);
}

}  // namespace
}  // namespace zorvac::softfp
#endif
