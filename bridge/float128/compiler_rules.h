#ifndef ZORVAC_BRIDGE_FLOAT128_COMPILER_RULES_H
#define ZORVAC_BRIDGE_FLOAT128_COMPILER_RULES_H
// How the compilers' routines differ from this library's own: in the rules of the slow paths, and
// in the places of operands and results, which are XMM registers.
#include <emmintrin.h>

#include "quad/flags.h"
#include "quad/formats.h"
#include "quad/nan.h"
#include "quad/operands.h"

namespace zorvac::softfp {
namespace {

// For two NaNs that differ at most in sign: sums and products are the first, differences and
// quotients the second.
enum class equal_nans { first, second };

template <equal_nans Preferred>
struct compiler_rules {
  // Subnormal numbers raise DE in comparisons too, so they do not take the common path.
  static constexpr uint64_t least_compared = high(binary128::leading_one);
  static constexpr bool widening_computes = true;

  // Any subnormal operand raises DE, whatever the other one is.
  static void look_at(uint128 a, uint128 b) {
    if (is_subnormal(a) || is_subnormal(b)) raise_denormal();
  }
  static uint128 propagate_nan(uint128 a, uint128 b) {
    using f = binary128;
    if (is_signalling<f>(a) || is_signalling<f>(b)) raise_invalid();
    const bool first = f::magnitude(a) == f::magnitude(b) ? Preferred == equal_nans::first
                                                          : prefers_first_nan(a, b);
    return (first ? a : b) | f::quiet_bit;
  }
};

using first_rules = compiler_rules<equal_nans::first>;
using second_rules = compiler_rules<equal_nans::second>;

using xmm = __m128i;

// The empty statements keep g++ from moving a word out of the register, or into it, through the
// stack, and from moving it out twice.
struct in_xmm {
  xmm value;
  [[gnu::always_inline]] uint128 word() const {
    xmm above = _mm_shuffle_epi32(value, 0xee);
    asm("" : "+x"(above));
    auto low_word = static_cast<uint64_t>(_mm_cvtsi128_si64(value));
    auto high_word = static_cast<uint64_t>(_mm_cvtsi128_si64(above));
    asm("" : "+r"(low_word), "+r"(high_word));
    return make_uint128(high_word, low_word);
  }
};
struct to_xmm {
  [[gnu::always_inline]] xmm operator()(uint128 result) const {
    xmm low_word = _mm_cvtsi64_si128(static_cast<long long>(low(result)));
    xmm high_word = _mm_cvtsi64_si128(static_cast<long long>(high(result)));
    asm("" : "+x"(low_word), "+x"(high_word));
    return _mm_unpacklo_epi64(low_word, high_word);
  }
};

}  // namespace
}  // namespace zorvac::softfp
#endif
