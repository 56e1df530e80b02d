// The floating-point control and status words, on the real registers, against a model of both.
#include <gtest/gtest.h>

#include <csignal>
#include <random>

#include "quads.h"
#include "support/child.h"
#include "zorvac/quad.h"

namespace zorvac::test {
namespace {

// What a routine returns, and the registers that it leaves: MXCSR, x87 control and status. Nothing
// is computed meanwhile, since exceptions may be unmasked.
using effect = std::array<std::uint32_t, 4>;
effect leaving(std::uint32_t result, const registers& r) {
  return {result, r.mxcsr, r.control, r.status};
}
template <class Call>
effect observe(const registers& before, Call call) {
  set(before);
  const std::uint32_t result = call();
  const registers after = current();
  set(initial);
  return leaving(result, after);
}

// The fields of the abstract control word, and what each value is in the two registers. Values that
// are not listed change nothing, and are read as 0.
struct setting {
  std::uint32_t abstract, mxcsr, x87;
};
struct field {
  setting all;
  std::vector<setting> values;
};
const field fields[] = {
    // clang-format off
    {{0x00000001, 0x1000, 0x020}, {{}, {0x00000001, 0x1000, 0x020}}},  // inexact masked
    {{0x00000002, 0x0800, 0x010}, {{}, {0x00000002, 0x0800, 0x010}}},  // underflow
    {{0x00000004, 0x0400, 0x008}, {{}, {0x00000004, 0x0400, 0x008}}},  // overflow
    {{0x00000008, 0x0200, 0x004}, {{}, {0x00000008, 0x0200, 0x004}}},  // division by zero
    {{0x00000010, 0x0080, 0x001}, {{}, {0x00000010, 0x0080, 0x001}}},  // invalid
    {{0x00080000, 0x0100, 0x002}, {{}, {0x00080000, 0x0100, 0x002}}},  // denormal
    {{0x00000300, 0x6000, 0xc00},  // rounding
     {{}, {0x100, 0x2000, 0x400}, {0x200, 0x4000, 0x800}, {0x300, 0x6000, 0xc00}}},
    {{0x00030000, 0, 0x300}, {{0, 0, 0x300}, {0x10000, 0, 0x200}, {0x20000, 0, 0}}},  // precision
    {{0x03000000, 0x8040, 0},  // flush modes: both, operands, results
     {{}, {0x1000000, 0x8040, 0}, {0x2000000, 0x0040, 0}, {0x3000000, 0x8000, 0}}},
    // clang-format on
};

effect modelled_control(registers r, std::uint32_t value, std::uint32_t mask, bool is_87) {
  std::uint32_t word = 0, control = r.control;
  if (!is_87) mask &= ~std::uint32_t{ZORVAC_FP_DENORMAL};
  for (const auto& [all, values] : fields)
    for (const setting& v : values)
      if ((mask & all.abstract) == all.abstract && (value & all.abstract) == v.abstract) {
        r.mxcsr = (r.mxcsr & ~all.mxcsr) | v.mxcsr;
        control = (control & ~all.x87) | v.x87;
      }
  for (const auto& [all, values] : fields)
    for (const setting& v : values) {
      const bool in_x87 = is_87 ? all.x87 != 0 : all.mxcsr == 0;
      if (in_x87 ? (control & all.x87) == v.x87 : (r.mxcsr & all.mxcsr) == v.mxcsr)
        word |= v.abstract;
    }
  return {word, r.mxcsr, control, r.status};
}

// All masks, each with many values, bits that mean nothing among both; from any control bits and
// MXCSR flags, without an x87 flag, which would trap where it is unmasked.
TEST(ControlWord, SetsAnyFieldsTogether) {
  constexpr std::uint32_t every_field = 0x030b031f;
  std::mt19937 random(15);
  const auto any = [&] { return static_cast<std::uint32_t>(random()); };
  for (long i = 0; i < 32L << 12; ++i) {
    std::uint32_t mask = i % 2 != 0 ? any() & ~every_field : 0;
    for (std::uint32_t rest = every_field, n = 5; rest != 0; rest &= rest - 1, ++n)
      mask |= (i >> n & 1) != 0 ? rest & -rest : 0;
    const std::uint32_t value = any();
    const registers before{any() & 0xffff, static_cast<std::uint16_t>((any() & 0xf3f) | 0x40), 0};
    for (const bool is_87 : {false, true})
      ASSERT_EQ(observe(before, [&] { return (is_87 ? _control87 : _controlfp)(value, mask); }),
                modelled_control(before, value, mask, is_87))
          << value << ", " << mask << " from " << before.mxcsr << ' ' << before.control;
  }
}

TEST(StatusWord, ReportsAndClears) {
  const auto abstract = [](unsigned flags) {
    std::uint32_t word = 0;
    for (const field& f : fields) word |= (flags & f.all.x87) != 0 ? f.all.abstract : 0;
    return word;
  };
  for (unsigned sse = 0; sse < 64; ++sse)
    for (unsigned x87 = 0; x87 < 64; ++x87) {
      const registers before{0x9f80 | sse, 0x0a7f, static_cast<std::uint16_t>(x87)};
      const registers cleared{0x9f80, 0x0a7f, 0};
      EXPECT_EQ(observe(before, _statusfp), leaving(abstract(sse), before));
      EXPECT_EQ(observe(before, _status87), leaving(abstract(x87), before));
      EXPECT_EQ(observe(before, _clearfp), leaving(abstract(sse), cleared));
      EXPECT_EQ(observe(before, _clear87), leaving(abstract(x87), cleared));
    }
}

// One that is unmasked traps at the next instruction that waits: asking does, clearing does not.
TEST(StatusWord, CanBeClearedWhileAnExceptionIsPending) {
  const registers pending{0x1f80, 0x037e, invalid}, cleared{0x1f80, 0x037e, 0};
  EXPECT_EQ(observe(pending, _clear87), leaving(0x10, cleared));
  EXPECT_EQ(observe(pending, _clearfp), leaving(0, cleared));
  const outcome asked = run_in_child([&] {
    std::signal(SIGFPE, SIG_DFL);  // other tests, and sanitizers, have handlers
    set(pending);
    _status87();
  });
  EXPECT_EQ(asked.signal, SIGFPE);
}

TEST(X87State, IsSavedRestoredStoredAndLoaded) {
  const registers before{0x1f80, 0x0a7f, inexact | denormal}, last{0x1f80, 0x027f, before.status};
  const long double kept = 0x1.23456789abcdefp100L;
  long double back = 0;
  std::array<unsigned char, 112> area{};
  std::array<std::uint16_t, 4> words{};
  area[108] = 0x77, words[1] = words[3] = 0x5555;  // behind what is stored
  set(before);
  asm volatile("fldt %0" : : "m"(kept));
  save_fp_state(area.data());
  EXPECT_EQ(current(), initial);
  restore_fp_state(area.data());
  asm volatile("fstpt %0" : "=m"(back));
  EXPECT_EQ(current(), before);
  get_fp_controlword(&words[0]);
  get_fp_statusword(&words[2]);
  set_fp_controlword(&last.control);
  EXPECT_EQ(current(), last);
  set(initial);
  EXPECT_EQ(back, kept);
  EXPECT_EQ(area[108], 0x77);
  EXPECT_EQ(words, (std::array<std::uint16_t, 4>{0x0a7f, 0x5555, before.status, 0x5555}));
}

}  // namespace
}  // namespace zorvac::test
