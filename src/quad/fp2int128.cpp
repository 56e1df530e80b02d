// Floating-point numbers to 128-bit integers, truncated: one conversion over the source's format.
#include "quad/flags.h"
#include "quad/formats.h"
#include "quad/to_integer.h"
#include "zorvac/quad.h"

using namespace zorvac::softfp;

namespace {

constexpr uint128 indefinite = uint128{1} << 127;

enum class target { is_unsigned, is_signed };

// The exponent alone decides whether a number is in range: -2^127 is not, although the type can
// hold it. The exponent of infinities and NaNs is beyond every range.
template <class F, target Target>
uint128 truncated(typename F::word w) {
  constexpr int end_of_range = F::bias + (Target == target::is_signed ? 127 : 128);
  static_assert(end_of_range <= F::special_exponent);

  const bool negative = F::negative(w);
  const int exponent = F::exponent(w);
  if (exponent < F::bias) {
    if (F::magnitude(w) != 0) raise_inexact();
    return 0;
  }
  if (exponent >= end_of_range || (Target == target::is_unsigned && negative)) [[unlikely]] {
    raise_invalid();
    return indefinite;
  }

  const uint128 magnitude = truncate_wide<F>(w);
  const uint128 sign_mask = -uint128{negative};
  return (magnitude ^ sign_mask) - sign_mask;
}

template <class F>
zorvac_uint128_t to_unsigned(typename F::word w) {
  return truncated<F, target::is_unsigned>(w);
}
template <class F>
zorvac_int128_t to_signed(typename F::word w) {
  return static_cast<zorvac_int128_t>(truncated<F, target::is_signed>(w));
}

}  // namespace

zorvac_uint128_t __fton(float value) { return to_unsigned<binary32>(word_of(value)); }
zorvac_uint128_t __dton(double value) { return to_unsigned<binary64>(word_of(value)); }
zorvac_uint128_t __lton(long double value) { return to_unsigned<x87>(word_of(value)); }
zorvac_uint128_t __qton(const void* q) { return to_unsigned<binary128>(load(q)); }

zorvac_int128_t __ftom(float value) { return to_signed<binary32>(word_of(value)); }
zorvac_int128_t __dtom(double value) { return to_signed<binary64>(word_of(value)); }
zorvac_int128_t __ltom(long double value) { return to_signed<x87>(word_of(value)); }
zorvac_int128_t __qtom(const void* q) { return to_signed<binary128>(load(q)); }
