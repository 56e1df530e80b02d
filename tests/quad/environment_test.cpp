// The floating-point control and status words, on the real registers, against a model of both.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>

#include "binary128.h"
#include "support/child.h"
#include "zorvac/quad.h"

namespace zorvac::test {
namespace {

struct registers {
  std::uint32_t mxcsr;
  std::uint16_t control, status;  // x87; of the status word the exception flags
  bool operator==(const registers&) const = default;
};
constexpr registers initial{0x1f80, 0x037f, 0};

void load(const registers& r) {
  std::array<std::uint16_t, 14> environment;  // as FNSTENV and FLDENV have it
  asm volatile("fnstenv %0" : "=m"(environment));
  environment[0] = r.control;
  environment[2] = r.status;
  asm volatile("fldenv %0" : : "m"(environment));
  __builtin_ia32_ldmxcsr(r.mxcsr);
}
registers current() {
  const x87_words x87 = read_x87();
  return {__builtin_ia32_stmxcsr(), x87.control,
          static_cast<std::uint16_t>(x87.status & all_flags)};
}

// What a routine returns and how it leaves the registers; nothing is computed meanwhile, since
// exceptions may be unmasked.
struct effect {
  std::uint32_t result;
  registers after;
  bool operator==(const effect&) const = default;
};
std::ostream& operator<<(std::ostream& out, const effect& e) {
  return out << std::hex << e.result << " leaving MXCSR " << e.after.mxcsr << ", x87 control "
             << e.after.control << ", status " << e.after.status;
}
template <class Call>
effect observe(const registers& before, Call call) {
  load(before);
  const std::uint32_t result = call();
  const registers after = current();
  load(initial);
  return {result, after};
}

// ---- The model: abstract words, bit by bit ----

struct exception {
  std::uint32_t abstract;
  unsigned hardware;  // the flag's bit in both registers
};
constexpr exception exceptions[] = {{0x1, inexact},        {0x2, underflow}, {0x4, overflow},
                                    {0x8, divide_by_zero}, {0x10, invalid},  {0x80000, denormal}};

std::uint32_t abstract_flags(unsigned hardware) {
  std::uint32_t word = 0;
  for (const exception& e : exceptions)
    if ((hardware & e.hardware) != 0) word |= e.abstract;
  return word;
}

// By the values 0 to 3 of the abstract fields: MXCSR's flush bits, of which 1 sets both and 3 only
// one, and the bits of the x87's precision field.
constexpr std::uint32_t flush_bits[] = {0, 0x8040, 0x0040, 0x8000};
constexpr int precision_bits[] = {0x300, 0x200, 0x000, -1};  // the last changes nothing

effect modelled_control(registers r, std::uint32_t value, std::uint32_t mask, bool is_87) {
  unsigned chosen = 0, set = 0;  // exceptions
  for (const exception& e : exceptions) {
    if ((mask & e.abstract) != 0 && (e.hardware != denormal || is_87)) chosen |= e.hardware;
    if ((value & e.abstract) != 0) set |= e.hardware;
  }
  std::uint32_t control = (r.control & ~chosen) | (set & chosen);
  r.mxcsr = (r.mxcsr & ~(chosen << 7)) | (set & chosen) << 7;
  if ((mask >> 8 & 3) == 3) {
    r.mxcsr = (r.mxcsr & ~0x6000U) | (value >> 8 & 3) << 13;
    control = (control & ~0xc00U) | (value >> 8 & 3) << 10;
  }
  if ((mask >> 16 & 3) == 3 && precision_bits[value >> 16 & 3] >= 0)
    control = (control & ~0x300U) | static_cast<unsigned>(precision_bits[value >> 16 & 3]);
  if ((mask >> 24 & 3) == 3) r.mxcsr = (r.mxcsr & ~0x8040U) | flush_bits[value >> 24 & 3];
  r.control = static_cast<std::uint16_t>(control);

  std::uint32_t word = is_87 ? abstract_flags(control & all_flags) | (control >> 10 & 3) << 8
                             : abstract_flags(r.mxcsr >> 7 & all_flags) | (r.mxcsr >> 13 & 3) << 8;
  for (std::uint32_t flush = 0; flush < 4; ++flush)
    if ((r.mxcsr & 0x8040) == flush_bits[flush]) word |= flush << 24;
  for (std::uint32_t precision = 0; precision < 3; ++precision)  // the reserved 0x100 gives 0
    if ((r.control & 0x300) == precision_bits[precision]) word |= precision << 16;
  return {word, r};
}

// All masks, each with many values, bits that mean nothing among both; from any control bits and
// MXCSR flags, without an x87 flag, which would trap where it is unmasked.
TEST(ControlWord, SetsAnyFieldsTogether) {
  constexpr std::uint32_t every_field = 0x030b031f;
  std::mt19937 random(15);
  std::uint32_t some = 0;
  do {
    for (int i = 0; i < 32; ++i) {
      const auto noise = static_cast<std::uint32_t>(i % 2 != 0 ? random() & ~every_field : 0);
      const std::uint32_t mask = some | noise;
      const auto value = static_cast<std::uint32_t>(random());
      const registers before{static_cast<std::uint32_t>(random() & 0xffff),
                             static_cast<std::uint16_t>((random() & 0xf3f) | 0x40), 0};
      ASSERT_EQ(observe(before, [&] { return _controlfp(value, mask); }),
                modelled_control(before, value, mask, false))
          << std::hex << value << ", " << mask << " from " << (effect{0, before});
      ASSERT_EQ(observe(before, [&] { return _control87(value, mask); }),
                modelled_control(before, value, mask, true))
          << std::hex << value << ", " << mask << " from " << (effect{0, before});
    }
    some = (some - every_field) & every_field;  // the next larger choice of its bits
  } while (some != 0);
}

TEST(StatusWord, ReportsAndClears) {
  for (unsigned sse = 0; sse < 64; ++sse)
    for (unsigned x87 = 0; x87 < 64; ++x87) {
      const registers before{0x9f80 | sse, 0x0a7f, static_cast<std::uint16_t>(x87)};
      const registers cleared{0x9f80, 0x0a7f, 0};
      EXPECT_EQ(observe(before, _statusfp), (effect{abstract_flags(sse), before}));
      EXPECT_EQ(observe(before, _status87), (effect{abstract_flags(x87), before}));
      EXPECT_EQ(observe(before, _clearfp), (effect{abstract_flags(sse), cleared}));
      EXPECT_EQ(observe(before, _clear87), (effect{abstract_flags(x87), cleared}));
    }
}

// One that is unmasked traps at the next instruction that waits: asking does, clearing does not.
TEST(StatusWord, CanBeClearedWhileAnExceptionIsPending) {
  const registers pending{0x1f80, 0x037e, invalid}, cleared{0x1f80, 0x037e, 0};
  EXPECT_EQ(observe(pending, _clear87), (effect{0x10, cleared}));
  EXPECT_EQ(observe(pending, _clearfp), (effect{0, cleared}));
  const outcome asked = run_in_child([&] {
    load(pending);
    _status87();
  });
  EXPECT_NE(asked.signal, 0);  // SIGFPE, or what a sanitizer makes of it
}

TEST(X87State, IsSavedRestoredStoredAndLoaded) {
  std::array<unsigned char, 128> area;
  area.fill(0x77);
  std::array<std::uint16_t, 2> control{0x5555, 0x5555}, status = control;
  const std::uint16_t other_control = 0x027f;
  const registers before{0x1f80, 0x0a7f, inexact | denormal};
  load(before);
  long double kept = 0x1.23456789abcdefp100L, back = 0;
  asm volatile("fldt %0" : : "m"(kept));
  save_fp_state(area.data());
  const registers reinitialised = current();
  restore_fp_state(area.data());
  const registers restored = current();
  asm volatile("fstpt %0" : "=m"(back));
  get_fp_controlword(control.data());
  get_fp_statusword(status.data());
  set_fp_controlword(&other_control);
  const registers after = current();
  load(initial);
  EXPECT_EQ(reinitialised, initial);
  EXPECT_EQ(restored, before);
  EXPECT_EQ(hex(image(back)), hex(image(kept)));
  EXPECT_EQ(area[0] | area[1] << 8, 0x0a7f);
  EXPECT_EQ(std::count(area.begin() + 108, area.end(), 0x77), 20);
  EXPECT_EQ(control, (std::array<std::uint16_t, 2>{0x0a7f, 0x5555}));
  EXPECT_EQ(status[0] & all_flags, inexact | denormal);
  EXPECT_EQ(status[1], 0x5555);
  EXPECT_EQ(after, (registers{0x1f80, 0x027f, before.status}));
}

}  // namespace
}  // namespace zorvac::test
