// The floating-point control and status words, on the real registers, against a model of both.
#include <gtest/gtest.h>

#include <csignal>
#include <random>

#include "quads.h"
#include "zorvac/quad.h"

namespace zorvac::test {
namespace {

// What a routine returns, and the registers that it leaves. Nothing is computed meanwhile, since
// exceptions may be unmasked.
using effect = std::pair<std::uint32_t, registers>;
effect observe(const registers& before, const std::function<std::uint32_t()>& call) {
  set(before);
  const std::uint32_t result = call();
  const registers after = current();
  set(initial);
  return {result, after};
}

void expect_effect(const char* routine, const effect& seen, const effect& expected) {
  if (seen == expected) return;
  SCOPED_TRACE(routine);
  EXPECT_EQ(hex(seen.first, 8), hex(expected.first, 8)) << "returned";
  EXPECT_EQ(hex(seen.second.mxcsr, 4), hex(expected.second.mxcsr, 4)) << "MXCSR";
  EXPECT_EQ(hex(seen.second.control, 4), hex(expected.second.control, 4)) << "x87 control word";
  EXPECT_EQ(names_of(seen.second.status), names_of(expected.second.status)) << "flags in the x87";
}

// The fields of the abstract control word, and what each value is in the two registers. Values that
// are not listed change nothing, and are read as 0.
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

effect modelled(registers r, std::uint32_t value, std::uint32_t mask, bool is_87) {
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

// The abstract status word: exception flags lie in both registers as masks do in the x87's.
std::uint32_t modelled_status(unsigned flags) {
  const registers masks{0, static_cast<std::uint16_t>(flags), 0};
  return modelled(masks, 0, 0, true).first & 0x0008001f;
}

// Any masks and values, of whose bits twelve and fewer mean something, from any registers. An x87
// flag would trap where it is unmasked. Each case has a seed of its own.
TEST(ControlAndStatusWords, AreThoseOfTheModel) {
  for (std::uint32_t seed = 0; seed < 32 << 12 && !HasFailure(); ++seed) {
    std::mt19937 random(seed);
    const auto any = [&](unsigned of) { return static_cast<std::uint32_t>(random()) & of; };
    const std::uint32_t value = any(~0U), mask = any(~0U);
    registers before{any(0xffff), static_cast<std::uint16_t>(any(0xf3f) | 0x40), 0};
    expect_effect("_control87", observe(before, [&] { return _control87(value, mask); }),
                  modelled(before, value, mask, true));
    expect_effect("_controlfp", observe(before, [&] { return _controlfp(value, mask); }),
                  modelled(before, value, mask, false));

    before.control |= all_flags;
    before.status = static_cast<std::uint16_t>(any(all_flags));
    const std::uint32_t of_mxcsr = modelled_status(before.mxcsr & all_flags);
    const std::uint32_t of_x87 = modelled_status(before.status);
    const registers cleared{before.mxcsr & ~all_flags, before.control, 0};
    expect_effect("_statusfp", observe(before, _statusfp), {of_mxcsr, before});
    expect_effect("_status87", observe(before, _status87), {of_x87, before});
    expect_effect("_clearfp", observe(before, _clearfp), {of_mxcsr, cleared});
    expect_effect("_clear87", observe(before, _clear87), {of_x87, cleared});
    if (HasFailure())
      ADD_FAILURE() << "seed " << seed << ": value " << hex(value, 8) << ", mask " << hex(mask, 8)
                    << " from MXCSR " << hex(before.mxcsr, 4) << ", x87 control word "
                    << hex(before.control, 4);
  }
}

// One that is unmasked traps at the next instruction that waits: asking does, clearing does not.
TEST(StatusWord, CanBeClearedWhileAnExceptionIsPending) {
  const std::uint16_t invalid_unmasked = 0x037e;
  const registers pending{all_masked, invalid_unmasked, invalid};
  const registers cleared{all_masked, invalid_unmasked, 0};
  expect_effect("_clear87", observe(pending, _clear87), {ZORVAC_FP_INVALID, cleared});
  expect_effect("_clearfp", observe(pending, _clearfp), {0, cleared});
  EXPECT_EXIT((std::signal(SIGFPE, SIG_DFL), set(pending), _status87()),
              testing::KilledBySignal(SIGFPE), "");
}

// What the routines store, each with a word behind it that is to stay as it is.
struct x87_memory {
  std::uint16_t state[54];  // as FSAVE has it
  std::uint16_t behind_state, control, behind_control, status, behind_status;
};

TEST(X87State, IsSavedRestoredStoredAndLoaded) {
  const registers before{all_masked, 0x0a7f, inexact | denormal};
  const registers last{all_masked, 0x027f, before.status};
  const long double kept = 0x1.23456789abcdefp100L;
  long double back = 0;
  x87_memory memory = {};
  const auto save = [&] {
    asm volatile("fldt %0" : : "m"(kept));
    save_fp_state(&memory.state);
    return 0;
  };
  expect_effect("save_fp_state", observe(before, save), {0, initial});
  const auto restore = [&] {
    restore_fp_state(&memory.state);
    asm volatile("fstpt %0" : "=m"(back));
    get_fp_controlword(&memory.control);
    get_fp_statusword(&memory.status);
    set_fp_controlword(&last.control);
    return 0;
  };
  expect_effect("restore_fp_state", observe(initial, restore), {0, last});
  EXPECT_EQ(back, kept);
  EXPECT_EQ(hex(memory.control, 4), hex(before.control, 4));
  EXPECT_EQ(hex(memory.status, 4), hex(before.status, 4));
  EXPECT_EQ(memory.behind_state, 0);
  EXPECT_EQ(memory.behind_control, 0);
  EXPECT_EQ(memory.behind_status, 0);
}

}  // namespace
}  // namespace zorvac::test
