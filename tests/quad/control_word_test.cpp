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

// Any masks and values, of whose bits twelve and fewer mean something, from any registers. An x87
// flag would trap where it is unmasked.
TEST(ControlAndStatusWords, AreThoseOfTheModel) {
  std::mt19937 random(15);
  const auto any = [&](unsigned of) { return static_cast<std::uint32_t>(random()) & of; };
  const auto abstract = [](unsigned flags) {  // which lie as the x87's masks do
    return modelled({0, static_cast<std::uint16_t>(flags), 0}, 0, 0, true).first & 0x0008001f;
  };
  for (long i = 0; i < 32L << 12; ++i) {
    const std::uint32_t value = any(~0U), mask = any(~0U);
    registers before{any(0xffff), static_cast<std::uint16_t>(any(0xf3f) | 0x40), 0};
    for (const bool is_87 : {false, true})
      ASSERT_EQ(observe(before, [&] { return (is_87 ? _control87 : _controlfp)(value, mask); }),
                modelled(before, value, mask, is_87))
          << value << ", " << mask << " from " << before.mxcsr << ' ' << before.control;

    before.control |= all_flags;
    before.status = static_cast<std::uint16_t>(any(all_flags));
    const registers cleared{before.mxcsr & ~all_flags, before.control, 0};
    ASSERT_EQ(observe(before, _statusfp), effect(abstract(before.mxcsr & all_flags), before));
    ASSERT_EQ(observe(before, _status87), effect(abstract(before.status), before));
    ASSERT_EQ(observe(before, _clearfp), effect(abstract(before.mxcsr & all_flags), cleared));
    ASSERT_EQ(observe(before, _clear87), effect(abstract(before.status), cleared));
  }
}

// One that is unmasked traps at the next instruction that waits: asking does, clearing does not.
TEST(StatusWord, CanBeClearedWhileAnExceptionIsPending) {
  const registers pending{0x1f80, 0x037e, invalid}, cleared{0x1f80, 0x037e, 0};
  EXPECT_EQ(observe(pending, _clear87), effect(0x10, cleared));
  EXPECT_EQ(observe(pending, _clearfp), effect(0, cleared));
  EXPECT_EXIT((std::signal(SIGFPE, SIG_DFL), set(pending), _status87()),
              testing::KilledBySignal(SIGFPE), "");
}

TEST(X87State, IsSavedRestoredStoredAndLoaded) {
  const registers before{0x1f80, 0x0a7f, inexact | denormal}, last{0x1f80, 0x027f, before.status};
  long double kept = 0x1.23456789abcdefp100L, back = 0;
  std::uint16_t stored[59] = {};  // 108 bytes of state, control and status, zeros behind each
  const auto save = [&] {
    asm volatile("fldt %0" : : "m"(kept));
    return save_fp_state(&stored[0]), 0;
  };
  EXPECT_EQ(observe(before, save), effect(0, initial));
  const auto restore = [&] {
    restore_fp_state(&stored[0]);
    asm volatile("fstpt %0" : "=m"(back));
    get_fp_controlword(&stored[55]);
    get_fp_statusword(&stored[57]);
    return set_fp_controlword(&last.control), 0;
  };
  EXPECT_EQ(observe(initial, restore), effect(0, last));
  EXPECT_EQ(back, kept);
  EXPECT_EQ(std::vector(stored + 54, stored + 59),
            (std::vector<std::uint16_t>{0, before.control, 0, before.status, 0}));
}

}  // namespace
}  // namespace zorvac::test
