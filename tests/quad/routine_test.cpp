// Every routine against its oracle. The four operations against MPFR, too, which has no code in
// common with the compiler's __float128: an error that the two of them shared would show here.
#include <gtest/gtest.h>
#include <mpfr.h>

#include "quads.h"
#include "support/campaign.h"
#include "support/name_of_row.h"
#include "zorvac/quad.h"

// Which the header declares for compilers that call the type _Float128.
extern "C" {
int mpfr_set_float128(mpfr_ptr, __float128, mpfr_rnd_t);
__float128 mpfr_get_float128(mpfr_srcptr, mpfr_rnd_t);
}

namespace zorvac::test {
namespace {

class Routine : public testing::TestWithParam<routine> {};
INSTANTIATE_TEST_SUITE_P(Quad, Routine, testing::ValuesIn(routines), name_of_row);

TEST_P(Routine, DoesAsItsOracleDoes) {
  const auto any = operands_for(GetParam().takes);
  const bool binary = GetParam().takes == kind::pair;  // a million cases, with the four modes
  for (long n = random_cases(binary ? 250'000 : 40'000); n > 0; --n) {
    const operands in = any();
    for (unsigned mode = 0; mode < 4; ++mode) ASSERT_EQ(check(GetParam(), mode, in), "");
  }
}

// The numbers of binary128 as MPFR's manual does it for IEEE formats (mpfr_subnormalize): its
// significands are below 1, and exponents reach down to that of the smallest subnormal number.
TEST(FourOperations, RoundAsMpfrDoes) {
  constexpr struct {
    void (*ours)(void*, const void*, const void*);
    int (*theirs)(mpfr_t, const mpfr_t, const mpfr_t, mpfr_rnd_t);
  } operations[] = {{__addq, mpfr_add}, {__subq, mpfr_sub}, {__mulq, mpfr_mul}, {__divq, mpfr_div}};
  constexpr mpfr_rnd_t modes[] = {MPFR_RNDN, MPFR_RNDD, MPFR_RNDU, MPFR_RNDZ};
  mpfr_set_emin(-16493);
  mpfr_set_emax(16384);
  mpfr_t a, b, expected;
  mpfr_inits2(113, a, b, expected, nullptr);
  const auto any = operands_for(kind::pair);
  for (long n = random_cases(50'000); n > 0; --n) {
    const operands in = any();
    mpfr_set_float128(a, load<__float128>(&in[0]), MPFR_RNDN);
    mpfr_set_float128(b, load<__float128>(&in[1]), MPFR_RNDN);
    for (const auto& operation : operations)
      for (unsigned mode = 0; mode < 4; ++mode) {
        mpfr_clear_flags();
        const int rounded = operation.theirs(expected, a, b, modes[mode]);
        const bool exact = mpfr_subnormalize(expected, rounded, modes[mode]) == 0;
        if (mpfr_nan_p(expected) != 0) continue;
        const unsigned raised = (exact ? 0 : inexact) | (mpfr_overflow_p() != 0 ? overflow : 0);
        word result = 0;
        set({all_masked | mode << rounding_shift, initial.control, 0});
        operation.ours(&result, &in[0], &in[1]);
        const unsigned flags = current().mxcsr & (inexact | overflow);
        set(initial);
        ASSERT_TRUE(result == bits(mpfr_get_float128(expected, MPFR_RNDN)) && flags == raised)
            << &operation - operations << ", mode " << mode << ": " << testing::PrintToString(in);
      }
  }
  mpfr_clears(a, b, expected, nullptr);
}

}  // namespace
}  // namespace zorvac::test
