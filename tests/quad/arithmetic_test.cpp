// Addition, subtraction, multiplication and division: value and flags.
#include <gtest/gtest.h>

#include <csetjmp>
#include <csignal>

#include "operands.h"
#include "routines.h"
#include "support/guard_pages.h"
#include "support/name_of_row.h"
#include "sweep.h"
#include "zorvac/quad.h"

namespace zorvac::test {
namespace {

using oracle::operation;

using routine = void (*)(void*, const void*, const void*);
answer run(routine r, const under_rounding& scope, bits a, bits b) {
  return stored(scope, [&](void* result) { r(result, &a, &b); });
}

// What the compiler's run-time routines make of it. Flags are where fetestexcept looks: in MXCSR
// and in the x87 status word.
answer by_compiler(operation o, const under_rounding& scope, bits a, bits b) {
  const auto x = std::bit_cast<__float128>(a), y = std::bit_cast<__float128>(b);
  asm volatile("fnclex");
  answer result = returned(scope, [&] {
    using enum operation;
    return o == add ? x + y : o == subtract ? x - y : o == multiply ? x * y : x / y;
  });
  result.flags |= read_x87().status & all_flags;
  return result;
}
// NaNs come out of those as they like, and the denormal-operand flag is not theirs to raise.
answer as_compilers_have_it(answer a) {
  const uint128 magnitude = a.value << 1 >> 1;
  return {magnitude > word_of(infinity) ? word_of(indefinite) : a.value, a.flags & ~denormal};
}

class Arithmetic : public testing::TestWithParam<arithmetic_row> {};
INSTANTIATE_TEST_SUITE_P(Quad, Arithmetic, testing::ValuesIn(arithmetic), name_of_row);

TEST_P(Arithmetic, AgreesWithMpfrAndTheCompiler) {
  const arithmetic_row& row = GetParam();
  sweep s(3'000'000 * static_cast<long>(1 + row.routines.size()));
  for (const rounding mode : roundings) {
    const under_rounding scope(mode);
    for_each_pair([&](bits a, bits b) {
      const answer expected = oracle::arithmetic(row.computes, a, b, mode);
      for (const routine r : row.routines) s.expect(run(r, scope, a, b), expected, mode, a, b);
      s.expect(as_compilers_have_it(by_compiler(row.computes, scope, a, b)),
               as_compilers_have_it(expected), "by the compiler", mode, a, b);
    });
  }
}

constexpr operation multiply = operation::multiply, divide = operation::divide;

// Flags that are set stay set, the control bits stay as they are, and the value depends neither
// on the flags nor on the flush modes, which are for the processor's own formats.
TEST_P(Arithmetic, OnlyEverAddsFlags) {
  const arithmetic_row& row = GetParam();
  constexpr std::uint32_t flush_modes = 1 << 15 | 1 << 6;
  for (const rounding mode : roundings)
    for (const bits a : notable_operands)
      for (const bits b : notable_operands) {
        const answer expected = oracle::arithmetic(row.computes, a, b, mode);
        for (unsigned earlier = 0; earlier < 64; ++earlier)
          ASSERT_EQ(run(row.routines[0], under_rounding(mode, all_masked | earlier), a, b),
                    (answer{expected.value, expected.flags & ~earlier}))
              << a << " and " << b << " after " << flag_names(earlier);
        const under_rounding scope(mode, all_masked | flush_modes);
        const answer flushed = run(row.routines[0], scope, a, b);
        EXPECT_EQ(hex(flushed.value), hex(expected.value)) << a << " and " << b;
        EXPECT_EQ(flushed.flags & ~all_flags, 0u);
      }
}

// Operands and result lie at either end of a block, in between aligned to 8 bytes only; the result
// may replace an operand, and both may be one.
TEST_P(Arithmetic, TakesAnyPlaceOfItsOperands) {
  const arithmetic_row& row = GetParam();
  const guarded_block block(1);
  unsigned char* const places[] = {block.begin(), block.begin() + 24, block.begin() + 56,
                                   block.end() - 16};
  random_operands random(5);
  for (int i = 0; i < 300; ++i) {
    const auto [a, b] = random.pair();
    for (unsigned char* const x : places)
      for (unsigned char* const y : places)
        for (unsigned char* const result : places) {
          std::memcpy(x, &a, 16);
          std::memcpy(y, &b, 16);
          const answer expected = oracle::arithmetic(row.computes, x == y ? b : a, b, to_nearest);
          row.routines[0](result, x, y);
          ASSERT_EQ(std::memcmp(result, &expected.value, 16), 0) << a << " and " << b;
        }
  }
}

// ---- Unmasked exceptions ----

sigjmp_buf after_trap;
volatile int trap_code;
extern "C" void note_trap(int, siginfo_t* info, void*) {
  trap_code = info->si_code;
  siglongjmp(after_trap, 1);
}
class catching_traps {
 public:
  catching_traps() {
    struct sigaction action {};
    action.sa_sigaction = note_trap;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGFPE, &action, &saved_);
  }
  ~catching_traps() { sigaction(SIGFPE, &saved_, nullptr); }

 private:
  struct sigaction saved_ {};
};

// The code of the trap that one unmasked exception leads to, or 0. Nothing with a destructor and no
// variable of a caller may live in the frame that the handler jumps back to.
__attribute__((noinline)) int code_of_trap(routine r, unsigned unmasked, rounding mode,
                                           const bits& a, const bits& b) {
  bits result;
  trap_code = 0;
  if (sigsetjmp(after_trap, 1) == 0) {
    __builtin_ia32_ldmxcsr((all_masked & ~(unmasked << 7)) | mode << 13);
    r(&result, &a, &b);
  }
  __builtin_ia32_ldmxcsr(all_masked);
  return trap_code;
}

TEST_P(Arithmetic, TrapsWhereAFlagIsUnmasked) {
  struct {
    unsigned flag;
    int code;
  } static constexpr exceptions[] = {{invalid, FPE_FLTINV},        {denormal, FPE_FLTUND},
                                     {divide_by_zero, FPE_FLTDIV}, {overflow, FPE_FLTOVF},
                                     {underflow, FPE_FLTUND},      {inexact, FPE_FLTRES}};
  const arithmetic_row& row = GetParam();
  const bool scales = row.computes == multiply || row.computes == divide;
  const catching_traps scope;
  unsigned trapped = 0;
  for (const rounding mode : roundings)
    for (const bits a : notable_operands)
      for (const bits b : notable_operands) {
        const answer expected = oracle::arithmetic(row.computes, a, b, mode);
        const uint128 magnitude = expected.value << 1 >> 1;
        for (const auto& e : exceptions) {
          bool traps = (expected.flags & e.flag) != 0;
          if (e.flag == underflow) {
            const bool exact = (expected.flags & inexact) == 0;
            if (scales && exact && magnitude != 0 && magnitude >> 112 == 0) continue;  // see below
            // What raises the denormal flag is a double operation with an exact subnormal result,
            // which underflow, if unmasked, traps as well.
            traps |= (expected.flags & denormal) != 0;
          }
          EXPECT_EQ(code_of_trap(row.routines[0], e.flag, mode, a, b), traps ? e.code : 0)
              << a << " and " << b << " with unmasked " << flag_names(e.flag);
          if (traps) trapped |= e.flag;
        }
      }
  EXPECT_EQ(trapped, row.computes == divide ? all_flags : all_flags & ~divide_by_zero);
}

// An exact result below the normal range raises no flag. Unmasked, underflow traps for it, unless
// it is the quotient of equal significands.
TEST(Underflow, OfExactResults) {
  const catching_traps catching;
  std::mt19937_64 random(21);
  const auto expect = [&](routine r, bits a, bits b, uint128 result, int code) {
    EXPECT_EQ(run(r, under_rounding(to_nearest), a, b), (answer{result, 0})) << a << ' ' << b;
    EXPECT_EQ(code_of_trap(r, underflow, to_nearest, a, b), code) << a << ' ' << b;
  };
  for (int k = 1; k <= 112; ++k) {
    const uint128 result = uint128{1} << (112 - k);
    for (int i = 0; i < 500; ++i) {
      const std::uint64_t f = i == 0 ? 0 : random() & fraction_ones, g = i < 100 ? 0 : random();
      expect(__divq, quad(false, 1, f, g), quad(false, static_cast<unsigned>(0x3fff + k), f, g),
             result, 0);
    }
    expect(__mulq, smallest_normal, power_of_two(-k), result, FPE_FLTUND);
    if (k == 112) break;
    const bits one_and_half = quad(false, 1, quiet_bit);  // times the smallest normal number
    expect(__divq, one_and_half, power_of_two(k), (uint128{3} << 111) >> k, FPE_FLTUND);
    expect(__mulq, one_and_half, power_of_two(-k), (uint128{3} << 111) >> k, FPE_FLTUND);
  }
}

}  // namespace
}  // namespace zorvac::test
