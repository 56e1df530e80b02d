// Addition, subtraction, multiplication, division and negation: value and flags.
#include <gtest/gtest.h>

#include <csetjmp>
#include <csignal>

#include "operands.h"
#include "oracle.h"
#include "support/guard_pages.h"
#include "sweep.h"
#include "zorvac/cpu.h"
#include "zorvac/quad.h"

extern "C" {
void mulq_l(void*, const void*, const void*) __asm__("__mulq.L");
void mulq_a(void*, const void*, const void*) __asm__("__mulq.A");
void divq_l(void*, const void*, const void*) __asm__("__divq.L");
void divq_a(void*, const void*, const void*) __asm__("__divq.A");
}

namespace zorvac::test {
namespace {

using oracle::operation;

struct routine {
  const char* name;
  operation computes;
  void (*call)(void*, const void*, const void*);
};
void PrintTo(const routine& r, std::ostream* out) { *out << r.name; }

constexpr routine routines[] = {
    {"addq", operation::add, __addq},        {"subq", operation::subtract, __subq},
    {"mulq", operation::multiply, __mulq},   {"divq", operation::divide, __divq},
    {"mulq_L", operation::multiply, mulq_l}, {"mulq_A", operation::multiply, mulq_a},
    {"divq_L", operation::divide, divq_l},   {"divq_A", operation::divide, divq_a},
};

answer run(const routine& r, const under_rounding& scope, bits a, bits b) {
  return stored(scope, [&](void* result) { r.call(result, &a, &b); });
}

template <class Check>
void for_each_pair(int random_pairs, Check check) {
  static const std::vector<bits> boundary = boundary_operands();
  static const std::vector<operand_pair> aligned = aligned_pairs();
  for (const bits a : boundary)
    for (const bits b : boundary) check(a, b);
  for (const auto& [a, b] : aligned) check(a, b);
  random_operands random(4);
  for (int i = 0; i < random_pairs; ++i) {
    const auto [a, b] = random.pair();
    check(a, b);
  }
}

class Arithmetic : public testing::TestWithParam<routine> {};
INSTANTIATE_TEST_SUITE_P(Quad, Arithmetic, testing::ValuesIn(routines),
                         [](const auto& row) { return row.param.name; });

TEST_P(Arithmetic, AgreesWithMpfr) {
  const routine& r = GetParam();
  sweep s(2'000'000);
  for (const rounding mode : roundings) {
    const under_rounding scope(mode);
    for_each_pair(100'000, [&](bits a, bits b) {
      s.expect(run(r, scope, a, b), oracle::arithmetic(r.computes, a, b, mode), mode, a, b);
    });
  }
}

// The compiler's run-time routines: NaNs come out as they like, and the denormal-operand flag is
// not theirs to raise. Flags are where fetestexcept looks: in MXCSR and in the x87 status word.
TEST_P(Arithmetic, AgreesWithTheCompiler) {
  const routine& r = GetParam();
  const auto compiled = [&](bits a, bits b) {
    const auto x = std::bit_cast<__float128>(a), y = std::bit_cast<__float128>(b);
    switch (r.computes) {
      case operation::add:
        return x + y;
      case operation::subtract:
        return x - y;
      case operation::multiply:
        return x * y;
      default:
        return x / y;
    }
  };
  const auto without_payload = [](answer g) -> answer {
    const uint128 magnitude = g.value << 1 >> 1;
    return {magnitude > word_of(infinity) ? word_of(indefinite) : g.value, g.flags & ~denormal};
  };
  sweep s(1'000'000);
  for (const rounding mode : roundings) {
    const under_rounding scope(mode);
    for_each_pair(100'000, [&](bits a, bits b) {
      const answer ours = run(r, scope, a, b);
      scope.restart();
      asm volatile("fnclex");
      const __float128 theirs = compiled(a, b);
      const unsigned flags = scope.raised() | (read_x87().status & all_flags);
      s.expect(without_payload(ours), without_payload({std::bit_cast<uint128>(theirs), flags}),
               mode, a, b);
    });
  }
}

struct known {
  operation o;
  bits a, b;
  unsigned flags;
  bits results[4];  // to nearest, down, up, toward zero
};
#define IN_EVERY_MODE(q) \
  { q, q, q, q }

// What IEEE 754 says in words, or leaves open and the library promises.
const known known_results[] = {
    {operation::add, zero, negated(zero), 0, {zero, negated(zero), zero, zero}},
    {operation::add, negated(zero), negated(zero), 0, IN_EVERY_MODE(negated(zero))},
    {operation::subtract, negated(one), negated(one), 0, {zero, negated(zero), zero, zero}},
    {operation::subtract, infinity, infinity, invalid, IN_EVERY_MODE(indefinite)},
    {operation::add, infinity, negated(infinity), invalid, IN_EVERY_MODE(indefinite)},
    {operation::add, largest, largest, overflow | inexact, {infinity, largest, infinity, largest}},
    {operation::add, quad(false, 0, fraction_ones, all_ones), smallest, denormal,
     IN_EVERY_MODE(smallest_normal)},
    {operation::add,
     one,
     power_of_two(-113),
     inexact,
     {one, one, quad(false, 0x3fff, 0, 1), one}},  // a tie, the even neighbour below
    {operation::add,
     quad(false, 0x3fff, 0, 1),
     power_of_two(-113),
     inexact,
     {quad(false, 0x3fff, 0, 2), quad(false, 0x3fff, 0, 1), quad(false, 0x3fff, 0, 2),
      quad(false, 0x3fff, 0, 1)}},
    {operation::add, one, smallest, denormal | inexact, {one, one, quad(false, 0x3fff, 0, 1), one}},
    {operation::multiply, zero, infinity, invalid, IN_EVERY_MODE(indefinite)},
    {operation::multiply,
     smallest,
     smallest,
     denormal | underflow | inexact,
     {zero, zero, smallest, zero}},
    {operation::multiply, zero, smallest, denormal, IN_EVERY_MODE(zero)},
    {operation::multiply, infinity, smallest, 0, IN_EVERY_MODE(infinity)},
    {operation::multiply,
     largest,
     power_of_two(1),
     overflow | inexact,
     {infinity, largest, infinity, largest}},
    // (1 - 2^-113) * smallest normal is tiny, though a tie makes it the smallest normal itself.
    {operation::multiply,
     quad(false, 0x3ffe, fraction_ones, all_ones),
     smallest_normal,
     underflow | inexact,
     {smallest_normal, quad(false, 0, fraction_ones, all_ones), smallest_normal,
      quad(false, 0, fraction_ones, all_ones)}},
    {operation::divide, one, zero, divide_by_zero, IN_EVERY_MODE(infinity)},
    {operation::divide, negated(one), zero, divide_by_zero, IN_EVERY_MODE(negated(infinity))},
    {operation::divide, smallest, zero, divide_by_zero, IN_EVERY_MODE(infinity)},
    {operation::divide, zero, smallest, 0, IN_EVERY_MODE(zero)},
    {operation::divide, smallest, infinity, 0, IN_EVERY_MODE(zero)},
    {operation::divide, smallest_normal, power_of_two(1), 0,
     IN_EVERY_MODE(quad(false, 0, 0x8000'0000'0000))},
    // NaNs: the quiet one; of two alike the larger; of equal ones the second, unless the first is
    // negative.
    {operation::add, signalling_nan, one, invalid,
     IN_EVERY_MODE(quad(false, 0x7fff, quiet_bit | 1, 7))},
    {operation::subtract, one, negated(signalling_nan), invalid,
     IN_EVERY_MODE(quad(true, 0x7fff, quiet_bit | 1, 7))},
    {operation::multiply, signalling_nan, quiet_nan, invalid, IN_EVERY_MODE(quiet_nan)},
    {operation::divide, quiet_nan, signalling_nan, invalid, IN_EVERY_MODE(quiet_nan)},
    {operation::add, quiet_nan, indefinite, 0, IN_EVERY_MODE(quiet_nan)},
    {operation::add, indefinite, quiet_nan, 0, IN_EVERY_MODE(quiet_nan)},
    {operation::subtract, quiet_nan, negated(quiet_nan), 0, IN_EVERY_MODE(negated(quiet_nan))},
    {operation::multiply, negated(quiet_nan), quiet_nan, 0, IN_EVERY_MODE(negated(quiet_nan))},
    {operation::divide, quiet_nan, infinity, 0, IN_EVERY_MODE(quiet_nan)},
};

TEST_P(Arithmetic, GivesKnownResults) {
  const routine& r = GetParam();
  for (const known& k : known_results) {
    if (k.o != r.computes) continue;
    for (const rounding mode : roundings) {
      const under_rounding scope(mode);
      EXPECT_EQ(run(r, scope, k.a, k.b), (answer{word_of(k.results[mode]), k.flags}))
          << k.a << " and " << k.b << " in mode " << mode;
    }
  }
}

// Flags that are set stay set, the control bits stay as they are, and the value depends neither
// on the flags nor on the flush modes, which are for the processor's own formats.
TEST_P(Arithmetic, OnlyEverAddsFlags) {
  const routine& r = GetParam();
  static constexpr bits operands[] = {
      zero, one, smallest, largest, infinity, signalling_nan, quad(true, 0x3fff, 1, 1)};
  constexpr std::uint32_t flush_modes = 1 << 15 | 1 << 6;
  for (const rounding mode : roundings)
    for (const bits a : operands)
      for (const bits b : operands) {
        const answer expected = oracle::arithmetic(r.computes, a, b, mode);
        for (unsigned earlier = 0; earlier < 64; ++earlier) {
          const under_rounding scope(mode, all_masked | earlier);
          EXPECT_EQ(run(r, scope, a, b), (answer{expected.value, expected.flags & ~earlier}))
              << a << " and " << b << " after " << flag_names(earlier);
        }
        const under_rounding scope(mode, all_masked | flush_modes);
        const answer flushed = run(r, scope, a, b);
        EXPECT_EQ(hex(flushed.value), hex(expected.value)) << a << " and " << b;
        EXPECT_EQ(flushed.flags & ~all_flags, 0u);
      }
}

TEST_P(Arithmetic, TakesAnyPlaceOfItsOperands) {
  const routine& r = GetParam();
  const guarded_block block(1);
  random_operands random(5);
  for (int i = 0; i < 1000; ++i) {
    const auto [a, b] = random.pair();
    const uint128 expected = oracle::arithmetic(r.computes, a, b, to_nearest).value;
    const uint128 of_itself = oracle::arithmetic(r.computes, a, a, to_nearest).value;
    // At the start and at the end of the block; in between only aligned to 8 bytes.
    unsigned char* const places[] = {block.begin(), block.begin() + 24, block.begin() + 56,
                                     block.end() - 16};
    for (int p = 0; p < 4; ++p) {
      unsigned char *const x = places[p], *const y = places[(p + 1) % 4],
                           *const z = places[(p + 2) % 4];
      for (unsigned char* const destination : {x, y, z}) {
        std::memcpy(x, &a, 16);
        std::memcpy(y, &b, 16);
        r.call(destination, x, y);
        EXPECT_EQ(std::memcmp(destination, &expected, 16), 0) << a << " and " << b;
      }
      std::memcpy(x, &a, 16);
      r.call(x, x, x);
      EXPECT_EQ(std::memcmp(x, &of_itself, 16), 0) << a << " and itself";
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
__attribute__((noinline)) int code_of_trap(const routine& r, unsigned unmasked, rounding mode,
                                           const bits& a, const bits& b) {
  bits result;
  trap_code = 0;
  if (sigsetjmp(after_trap, 1) == 0) {
    __builtin_ia32_ldmxcsr((all_masked & ~(unmasked << 7)) | mode << 13);
    r.call(&result, &a, &b);
  }
  __builtin_ia32_ldmxcsr(all_masked);
  return trap_code;
}

// Whether the result is a subnormal number that the general path finds: a quotient of equal
// significands is known to be exact beforehand and never reports underflow.
bool is_exact_subnormal_of_general_path(operation o, bits a, bits b, const answer& result) {
  const uint128 magnitude = result.value << 1 >> 1;
  if (magnitude == 0 || magnitude >> 112 != 0 || (result.flags & inexact) != 0) return false;
  const auto significand = [](bits q) {
    const uint128 fraction = word_of(q) << 16;
    if ((q.high & 0x7fff'0000'0000'0000) != 0) return fraction;
    uint128 leading = fraction;
    while (leading >> 127 == 0) leading <<= 1;
    return leading << 1;
  };
  return o == operation::multiply || (o == operation::divide && significand(a) != significand(b));
}

TEST_P(Arithmetic, TrapsWhereAFlagIsUnmasked) {
  struct {
    unsigned flag;
    int code;
  } static constexpr exceptions[] = {{invalid, FPE_FLTINV},        {denormal, FPE_FLTUND},
                                     {divide_by_zero, FPE_FLTDIV}, {overflow, FPE_FLTOVF},
                                     {underflow, FPE_FLTUND},      {inexact, FPE_FLTRES}};
  static constexpr bits operands[] = {zero,
                                      negated(zero),
                                      one,
                                      negated(one),
                                      smallest,
                                      smallest_normal,
                                      largest,
                                      infinity,
                                      signalling_nan,
                                      quiet_nan,
                                      power_of_two(1),
                                      power_of_two(-1),
                                      quad(false, 0x4000, quiet_bit),
                                      quad(false, 1, quiet_bit),
                                      quad(false, 0, 0x1234),
                                      quad(false, 0x3f90, 1)};
  const routine& r = GetParam();
  const catching_traps scope;
  unsigned trapped = 0;
  for (const rounding mode : roundings)
    for (const bits a : operands)
      for (const bits b : operands) {
        const answer expected = oracle::arithmetic(r.computes, a, b, mode);
        for (const auto& e : exceptions) {
          bool traps = (expected.flags & e.flag) != 0;
          // What raises the denormal flag is a double operation with an exact subnormal result,
          // which underflow, if unmasked, traps as well.
          if (e.flag == underflow)
            traps |= (expected.flags & denormal) != 0 ||
                     is_exact_subnormal_of_general_path(r.computes, a, b, expected);
          EXPECT_EQ(code_of_trap(r, e.flag, mode, a, b), traps ? e.code : 0)
              << a << " and " << b << " with unmasked " << flag_names(e.flag);
          if (traps) trapped |= e.flag;
        }
      }
  const bool divides = r.computes == operation::divide;
  EXPECT_EQ(trapped, divides ? all_flags : all_flags & ~divide_by_zero);
}

// An exact quotient below the normal range, from equal significands and through the general path.
TEST(Division, ExactSubnormalQuotients) {
  const catching_traps scope;
  const routine divide = routines[3];
  std::mt19937_64 random(21);
  for (int k = 1; k <= 112; ++k) {
    const under_rounding masked(to_nearest);
    const answer expected{uint128{1} << (112 - k), 0};
    for (int i = 0; i < 500; ++i) {
      const std::uint64_t f = i == 0 ? 0 : random() & fraction_ones, g = i < 100 ? 0 : random();
      const bits a = quad(false, 1, f, g), b = quad(false, static_cast<unsigned>(0x3fff + k), f, g);
      EXPECT_EQ(run(divide, masked, a, b), expected) << a << " / " << b;
      EXPECT_EQ(code_of_trap(divide, underflow, to_nearest, a, b), 0) << a << " / " << b;
    }
    if (k == 112) break;
    const bits a = quad(false, 1, quiet_bit), b = power_of_two(k);  // 1.5 / 2^k
    const answer general{(uint128{3} << 111) >> k, 0};
    EXPECT_EQ(run(divide, masked, a, b), general) << a << " / " << b;
    EXPECT_EQ(code_of_trap(divide, underflow, to_nearest, a, b), FPE_FLTUND) << a << " / " << b;
  }
}

// (1 + 2^-57) * (1 - 2^-57) = 1 - 2^-114 lies halfway between 1 - 2^-113 and 1: times the smallest
// normal number it is tiny only where rounding to 113 bits, with any exponent, stays below that.
TEST(Multiplication, JudgesTininessAfterRounding) {
  const bits a = quad(false, 0x3fff, 0, std::uint64_t{1} << 55);
  const bits b = quad(false, 0, fraction_ones, all_ones << 55);
  const bits below_normal = quad(false, 0, fraction_ones, all_ones);
  for (const rounding mode : roundings) {
    const under_rounding scope(mode);
    const bool reaches = mode == to_nearest || mode == up;
    const answer expected = reaches ? answer{word_of(smallest_normal), denormal | inexact}
                                    : answer{word_of(below_normal), denormal | underflow | inexact};
    EXPECT_EQ(run(routines[2], scope, a, b), expected) << "in mode " << mode;
  }
}

TEST(Negation, FlipsTheSignAndNothingElse) {
  const under_rounding scope(up);
  for (const bits a : boundary_operands()) {
    bits result{}, itself = a;
    __negq(&result, &a);
    __negq(&itself, &itself);
    EXPECT_EQ(result, negated(a));
    EXPECT_EQ(itself, negated(a));
  }
  EXPECT_EQ(scope.raised(), 0u);
}

// Every value of the indicator's low byte leads to a result; which body ran, the shared library's
// own test sees.
TEST(Dispatch, WorksForEveryIndicator) {
  const std::uint64_t saved = __zorva_cpu_feature_indicator;
  for (const unsigned indicator : {0x00U, 0x01U, 0x7fU, 0xffU}) {
    for (const routine& r : routines) {
      __zorva_cpu_feature_indicator = indicator;
      const under_rounding scope(to_nearest);
      EXPECT_EQ(run(r, scope, one, power_of_two(3)),
                oracle::arithmetic(r.computes, one, power_of_two(3), to_nearest));
    }
  }
  __zorva_cpu_feature_indicator = saved;
}

}  // namespace
}  // namespace zorvac::test
