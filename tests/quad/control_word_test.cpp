// The floating-point control and status words, on the real registers, against a model of both.
#include <gtest/gtest.h>

#include <csignal>
#include <functional>

#include "quads.h"
#include "support/bytes.h"
#include "zorvac/quad.h"

namespace zorvac::test {
namespace {

// Calls a routine with these registers, and compares what it returns and the registers afterwards.
// Nothing is computed in between, because exceptions may be unmasked.
using result = std::pair<std::uint32_t, registers>;
void expect_result(const char* name, const registers& before, const result& expected,
                   const std::function<std::uint32_t()>& routine) {
  set(before);
  const std::uint32_t returned = routine();
  const registers after = current();
  set(initial);
  if (result(returned, after) == expected) return;
  EXPECT_EQ(hex(returned, 4), hex(expected.first, 4)) << name << " returns";
  EXPECT_EQ(difference(expected.second, after), "") << name << " leaves";
}

// The fields of the abstract control word, and each value's bits in the two registers. Values that
// are not listed change nothing and are read as 0.
struct setting {
  std::uint32_t abstract, mxcsr, x87;
};
struct field {
  setting all;
  std::vector<setting> values = {{}, all};
};
const field fields[] = {
    // clang-format off
    {{0x00000001, 0x1000, 0x020}},  // inexact masked
    {{0x00000002, 0x0800, 0x010}},  // underflow
    {{0x00000004, 0x0400, 0x008}},  // overflow
    {{0x00000008, 0x0200, 0x004}},  // division by zero
    {{0x00000010, 0x0080, 0x001}},  // invalid
    {{0x00080000, 0x0100, 0x002}},  // denormal
    {{0x00000300, 0x6000, 0xc00},   // rounding
     {{}, {0x100, 0x2000, 0x400}, {0x200, 0x4000, 0x800}, {0x300, 0x6000, 0xc00}}},
    {{0x00030000, 0, 0x300}, {{0, 0, 0x300}, {0x10000, 0, 0x200}, {0x20000, 0, 0}}},  // precision
    {{0x03000000, 0x8040, 0},       // flush modes: both, operands, results
     {{}, {0x1000000, 0x8040, 0}, {0x2000000, 0x0040, 0}, {0x3000000, 0x8000, 0}}},
    // clang-format on
};

result modelled(registers r, std::uint32_t value, std::uint32_t mask, bool is_87) {
  std::uint32_t word = 0;
  if (!is_87) mask &= ~std::uint32_t{ZORVAC_FP_DENORMAL};
  for (const auto& [all, values] : fields) {
    for (const setting& v : values)
      if ((mask & all.abstract) == all.abstract && (value & all.abstract) == v.abstract) {
        r.mxcsr = (r.mxcsr & ~all.mxcsr) | v.mxcsr;
        r.control = static_cast<std::uint16_t>((r.control & ~all.x87) | v.x87);
      }
    const bool in_x87 = is_87 ? all.x87 != 0 : all.mxcsr == 0;
    for (const setting& v : values)
      if (in_x87 ? (r.control & all.x87) == v.x87 : (r.mxcsr & all.mxcsr) == v.mxcsr)
        word |= v.abstract;
  }
  return {word, r};
}

// The abstract status word: in both registers the flags have the places of the x87's masks.
std::uint32_t modelled_status(unsigned flags) {
  const registers masks{0, static_cast<std::uint16_t>(flags), 0};
  return modelled(masks, 0, 0, true).first & 0x0008001f;
}

// Random masks, values and registers. Each case has a seed of its own. Where flags are set in the
// x87 all its exceptions are masked, or the next instruction would trap.
TEST(ControlAndStatusWords, MatchTheModel) {
  const auto [first, end] = seeds_of_cases(32 << 12);
  for (std::uint64_t seed = first; seed < end && !HasFailure(); ++seed) {
    case_random random(seed);
    const auto any = [&](unsigned of) { return static_cast<std::uint32_t>(random()) & of; };
    const std::uint32_t value = any(~0U), mask = any(~0U);
    SCOPED_TRACE(testing::Message() << "ZORVAC_SEED=" << seed << ": value 0x" << std::hex << value
                                    << ", mask 0x" << mask);
    registers before{any(0xffff), static_cast<std::uint16_t>(any(0xf3f) | 0x40), 0};
    expect_result("_control87", before, modelled(before, value, mask, true),
                  [&] { return _control87(value, mask); });
    expect_result("_controlfp", before, modelled(before, value, mask, false),
                  [&] { return _controlfp(value, mask); });

    before.control |= all_flags;
    before.status = static_cast<std::uint16_t>(any(all_flags));
    const std::uint32_t of_mxcsr = modelled_status(before.mxcsr & all_flags);
    const std::uint32_t of_x87 = modelled_status(before.status);
    const registers cleared{before.mxcsr & ~all_flags, before.control, 0};
    expect_result("_statusfp", before, {of_mxcsr, before}, _statusfp);
    expect_result("_status87", before, {of_x87, before}, _status87);
    expect_result("_clearfp", before, {of_mxcsr, cleared}, _clearfp);
    expect_result("_clear87", before, {of_x87, cleared}, _clear87);
  }
}

// A pending unmasked exception traps at the next instruction that waits. Reading the status waits,
// clearing it does not.
TEST(StatusWord, CanBeClearedWhileAnExceptionIsPending) {
  const registers pending{all_masked, 0x037e, invalid};  // invalid alone is unmasked
  const registers cleared{all_masked, 0x037e, 0};
  expect_result("_clear87", pending, {ZORVAC_FP_INVALID, cleared}, _clear87);
  expect_result("_clearfp", pending, {0, cleared}, _clearfp);
  EXPECT_EXIT((std::signal(SIGFPE, SIG_DFL), set(pending), _status87()),
              testing::KilledBySignal(SIGFPE), "");
}

TEST(X87State, IsSavedRestoredStoredAndLoaded) {
  const registers before{all_masked, 0x0a7f, inexact | denormal};
  const registers last{all_masked, 0x027f, before.status};
  const long double kept = 0x1.23456789abcdefp100L;
  long double back = 0;
  std::array<std::uint16_t, 55> state = {};  // FSAVE's image, and a word behind it
  std::array<std::uint16_t, 2> control = {}, status = {};
  set(before);
  asm volatile("fldt %0" : : "m"(kept));
  save_fp_state(&state);
  const registers when_saved = current();
  restore_fp_state(&state);
  asm volatile("fstpt %0" : "=m"(back));
  get_fp_controlword(&control);
  get_fp_statusword(&status);
  set_fp_controlword(&last.control);
  const registers at_end = current();
  set(initial);
  EXPECT_EQ(difference(initial, when_saved), "");
  EXPECT_EQ(difference(last, at_end), "");
  EXPECT_EQ(back, kept);
  EXPECT_EQ(state[54], 0) << "is written, behind the state";
  EXPECT_ELEMENTS(control, (std::array<std::uint16_t, 2>{before.control, 0}));
  EXPECT_ELEMENTS(status, (std::array<std::uint16_t, 2>{before.status, 0}));
}

}  // namespace
}  // namespace zorvac::test
