// The four operations against MPFR, which has no code in common with the compiler's __float128, the
// oracle of all routines: an error that the two of them shared would show here.
#include <gtest/gtest.h>
#include <mpfr.h>

#include "quads.h"
#include "support/campaign.h"
#include "zorvac/quad.h"

// Which the header declares for compilers that call the type _Float128.
extern "C" {
int mpfr_set_float128(mpfr_ptr, __float128, mpfr_rnd_t);
__float128 mpfr_get_float128(mpfr_srcptr, mpfr_rnd_t);
}

namespace zorvac::test {
namespace {

// The numbers of binary128, as MPFR's manual does it for IEEE formats (mpfr_subnormalize): its
// significands are below 1, and exponents reach down to that of the smallest subnormal number.
class binary128 {
 public:
  binary128() {
    mpfr_set_emin(-16493);
    mpfr_set_emax(16384);
    mpfr_init2(value_, 113);
  }
  explicit binary128(word w) : binary128() {
    mpfr_set_float128(value_, load<__float128>(&w), MPFR_RNDN);
  }
  binary128(const binary128&) = delete;
  binary128& operator=(const binary128&) = delete;
  ~binary128() { mpfr_clear(value_); }
  operator mpfr_ptr() { return value_; }
  [[nodiscard]] word bits_of_value() const { return bits(mpfr_get_float128(value_, MPFR_RNDN)); }

 private:
  mpfr_t value_;
};

TEST(FourOperations, RoundAsMpfrDoes) {
  constexpr struct {
    void (*ours)(void*, const void*, const void*);
    int (*theirs)(mpfr_t, const mpfr_t, const mpfr_t, mpfr_rnd_t);
  } operations[] = {{__addq, mpfr_add}, {__subq, mpfr_sub}, {__mulq, mpfr_mul}, {__divq, mpfr_div}};
  constexpr mpfr_rnd_t modes[] = {MPFR_RNDN, MPFR_RNDD, MPFR_RNDU, MPFR_RNDZ};
  constexpr unsigned overflow = 8;
  const auto any = operands_for(kind::pair);
  for (long n = random_cases(50'000); n > 0; --n) {
    const operands in = any();
    if (is_nan(in[0]) || is_nan(in[1])) continue;
    binary128 a(in[0]), b(in[1]), expected;
    for (const auto& operation : operations)
      for (unsigned mode = 0; mode < 4; ++mode) {
        mpfr_clear_flags();
        const int rounded = operation.theirs(expected, a, b, modes[mode]);
        const bool exact = mpfr_subnormalize(expected, rounded, modes[mode]) == 0;
        if (mpfr_nan_p(expected)) continue;

        word result = 0;
        set({all_masked | mode << rounding_shift, initial.control, 0});
        operation.ours(&result, &in[0], &in[1]);
        const unsigned flags = current().mxcsr;
        set(initial);
        ASSERT_TRUE(result == expected.bits_of_value() && exact == ((flags & inexact) == 0) &&
                    (mpfr_overflow_p() != 0) == ((flags & overflow) != 0))
            << "operation " << &operation - operations << ", mode " << mode << std::hex
            << ", operands " << static_cast<std::uint64_t>(in[0] >> 64) << ' '
            << static_cast<std::uint64_t>(in[0]) << ", " << static_cast<std::uint64_t>(in[1] >> 64)
            << ' ' << static_cast<std::uint64_t>(in[1]);
      }
  }
}

}  // namespace
}  // namespace zorvac::test
