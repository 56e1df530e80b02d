// Integers to quads: always exact, as a quad's significand is wider than any of them.
#include "quad/formats.h"
#include "zorvac/quad.h"

using namespace zorvac::softfp;

namespace {

using f = binary128;

[[gnu::always_inline]] inline void convert(void* q, bool negative, uint64_t magnitude) {
  if (magnitude == 0) return store(q, 0);
  const int unused_bits = leading_zeros(magnitude);
  const uint64_t at_top = magnitude << unused_bits;
  const uint128 significand =
      make_uint128(at_top >> (127 - f::fraction_bits), at_top << (f::fraction_bits - 63));
  store(q, f::signed_word(negative, pack<f>(f::bias + 63 - unused_bits, significand)));
}
[[gnu::always_inline]] inline void convert_signed(void* q, std::int64_t value) {
  const auto mask = static_cast<uint64_t>(value >> 63);  // all ones where negative
  convert(q, value < 0, (static_cast<uint64_t>(value) ^ mask) - mask);
}

}  // namespace

void __itoq(void* q, std::int32_t value) { convert_signed(q, value); }
void __jtoq(void* q, std::int64_t value) { convert_signed(q, value); }
void __utoq(void* q, std::uint32_t value) { convert(q, false, value); }
void __ktoq(void* q, uint64_t value) { convert(q, false, value); }
