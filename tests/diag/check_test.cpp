// Run-time checks: what passes, what each report says and where, and how the process ends.
//
// Every check runs in a child process. Where one child sees many failures, each is left by a jump out
// of SIGABRT's handler.
#include <gtest/gtest.h>

#include <bit>
#include <cfloat>
#include <climits>
#include <cmath>
#include <csetjmp>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "support/child.h"
#include "support/guard_pages.h"
#include "support/registers.h"
#include "zorvac/diag.h"

namespace {

using namespace zorvac::test;

outcome fate_of(const std::function<void()>& check) {
  return run_in_child([&] {
    std::atexit([] { std::puts("exit handler ran"); });
    check();
  });
}

// Whether `check` aborts; for child processes.
template <class Check>
bool aborts(const Check& check) {
  static sigjmp_buf after;
  std::signal(SIGABRT, [](int) { siglongjmp(after, 1); });
  if (sigsetjmp(after, 1) != 0) return true;
  check();
  return false;
}

// ---- Narrowing

// Prints the values around every power of two and its negative that are not treated as they should.
template <class Narrow, class Wide>
void sweep(Narrow (*check)(Wide)) {
  constexpr std::int64_t least = std::numeric_limits<Narrow>::min();
  constexpr std::int64_t most = std::numeric_limits<std::make_unsigned_t<Narrow>>::max();
  for (int bit = 0; bit < 64; ++bit)
    for (unsigned near = 0; near < 160; ++near) {
      const std::uint64_t power = std::uint64_t{1} << bit;
      const auto v = static_cast<std::int64_t>((near % 2 != 0 ? power : 0 - power) + near / 2 - 40);
      if (static_cast<Wide>(v) != v) continue;  // not a value of the argument
      volatile Narrow result = 0;
      const bool accepted = !aborts([&] { result = check(static_cast<Wide>(v)); });
      if (accepted != (v >= least && v <= most) || (accepted && result != static_cast<Narrow>(v)))
        std::printf("%zu to %zu: %ld\n", sizeof(Wide), sizeof(Narrow), v);
    }
}

TEST(Narrowing, AcceptsWhatTheTargetHoldsSignedOrUnsigned) {
  const auto sweep_all = [](auto... checks) { (sweep(checks), ...); };
  const outcome o = run_in_child([&] {
    sweep_all(_RTC_Check_2_to_1, _RTC_Check_4_to_1, _RTC_Check_8_to_1);
    sweep_all(_RTC_Check_4_to_2, _RTC_Check_8_to_2, _RTC_Check_8_to_4);
  });
  EXPECT_EQ(o.standard_output, "");
  EXPECT_EQ(o.exit_status, 0);
}

// ---- Reports

TEST(Reports, StandOnStandardErrorBetweenEmptyLinesAndEndTheProcess) {
  const auto expect = [](const std::string& text, void (*check)()) {
    EXPECT_EQ(fate_of(check), (outcome{"", "\n" + text + "\n\n", -1, SIGABRT}));
  };
  const std::string uninitialized = "Run-Time Check Failure: The variable '";
  expect("Conversion Run-Time Check Failure", [] { _RTC_Check_4_to_1(256); });
  expect(uninitialized + "count' is being used without being initialized",
         [] { __zorva_rtc_uninit_use("count"); });
  expect(uninitialized + "(null)' is being used without being initialized",
         [] { __zorva_rtc_uninit_use(nullptr); });
  expect(uninitialized + "point%next%s' is being used in 100%n without being initialized",
         [] { __zorva_rtc_uninit_use_src("point%next%s", "100%n"); });
  // A name is formatted twice, so two signs are one.
  expect(uninitialized + "a%b' is being used without being initialized",
         [] { __zorva_rtc_uninit_use("a%%b"); });
  // Of 200 characters, a sign that stands alone takes two.
  const static std::string longest(200, 'x');
  static std::string signs = "%";
  for (int i = 0; i < 66; ++i) signs += "a%";
  expect(uninitialized + signs + "' is being used in " + longest + " without being initialized",
         [] { __zorva_rtc_uninit_use_src((signs + 'a').c_str(), (longest + 'x').c_str()); });
  // The word behind a variable is not read when the one in front is wrong.
  expect("Boundary Run-Time Check Failure", [] {
    const guarded_block block(4);
    const zorvac_long_variable entry{0, 0, nullptr};
    const zorvac_stack_variables variables{0, nullptr, 1, &entry};
    __zorva_rtc_CheckStackVars(nullptr, nullptr, &variables, block.end());
  });
}

// ---- Variables of a frame

// A frame of four variables, two in each list, of odd sizes at odd addresses, as compiled code
// would set it up.
struct frame {
  unsigned char bytes[128];
  unsigned char* base = bytes + 64;
  zorvac_short_variable near[2] = {{9, 7, "first"}, {-20, 1, "second"}};
  zorvac_long_variable far[2] = {{25, 0, "third"}, {-50, 13, ""}};
  zorvac_stack_variables variables{2, near, 2, far};
  int guards[8] = {5, 16, -24, -19, 21, 25, -54, -37};  // their offsets, in the order of the checks

  frame() {
    std::memset(bytes, 0xaa, sizeof bytes);
    for (const int guard : guards) std::memset(base + guard, 0xcc, 4);
  }
};

// Whichever guards are changed in whichever byte: short entries before long ones, each in order.
TEST(StackVariables, TheFirstChangedGuardIsReported) {
  const std::string names[] = {" for variable 'first'", " for variable 'second'",
                               " for variable 'third'", ""};
  for (int byte = 0; byte < 4; ++byte) {
    std::string expected;
    const outcome o = run_in_child([&] {
      for (unsigned changed = 0; changed < 256; ++changed) {
        frame f;
        for (unsigned guard = 0; guard < 8; ++guard)
          f.base[f.guards[guard] + byte] ^= static_cast<unsigned char>(changed & 1u << guard);
        aborts([&] { __zorva_rtc_CheckStackVars(nullptr, nullptr, &f.variables, f.base); });
      }
    });
    for (unsigned changed = 1; changed < 256; ++changed)
      expected +=
          "\nBoundary Run-Time Check Failure" + names[std::countr_zero(changed) / 2] + "\n\n";
    EXPECT_EQ(o.exit_status, 0);
    EXPECT_TRUE(o.standard_error == expected) << o.standard_error.substr(0, 1000);
  }
}

TEST(StackVariables, SoundFramesChangeNoRegisterButTheThirdArgument) {
  const frame whole;
  const std::uint64_t base = reinterpret_cast<std::uint64_t>(whole.base);
  const std::uint64_t far = 0xcdcdcdcd00001111;  // from where reaching the frame wraps around
  const zorvac_long_variable far_entry{static_cast<std::int64_t>(base - 50 - far), 13, "far"};
  const zorvac_stack_variables negative{-1, nullptr, INT_MIN, nullptr},
      wrapping{0, nullptr, 1, &far_entry};
  const std::pair<const zorvac_stack_variables*, std::uint64_t> frames[] = {
      {&whole.variables, base}, {&negative, 0}, {&wrapping, far}};
  for (const auto& [variables, frame_base] : frames) {
    register_file before = filled_registers(static_cast<unsigned>(frame_base));
    before.general[rdx] = reinterpret_cast<std::uint64_t>(variables);
    before.general[rcx] = frame_base;
    register_file after =
        call_with_registers(reinterpret_cast<void (*)()>(&__zorva_rtc_CheckStackVars), before);
    for (const auto free : {rdx, rsp}) after.general[free] = before.general[free];
    EXPECT_EQ(changed_registers(before, after), std::vector<std::string>{});
    EXPECT_EQ(after.general, before.general);
  }
}

// ---- Propagated constants

constexpr std::uint64_t bits(float v, std::uint64_t upper = 0) {
  return std::bit_cast<std::uint32_t>(v) | upper << 32;
}
constexpr std::uint64_t bits(double v) { return std::bit_cast<std::uint64_t>(v); }
constexpr std::uint64_t minus_1 = UINT64_MAX;

// What is printed, or nothing where the values agree.
void expect(std::int32_t kind, std::uint32_t type, const zorvac_cp_value& expected,
            const zorvac_cp_value& actual, const std::string& text) {
  const outcome o = fate_of([&] { _IPO_Check_CP(kind, type, expected, actual); });
  EXPECT_EQ(o.standard_output, text);
  EXPECT_EQ(o.signal, text.empty() ? 0 : SIGABRT) << text;
}
std::string error(const std::string& kind, const std::string& values) {
  return "Constant propagation error (" + kind + " substitution):\n" + values;
}

struct pair {
  std::uint32_t type;
  zorvac_cp_value expected, actual;
  std::string values = {};  // empty: they agree
};
const pair pairs[] = {
    {0, {5, 1}, {5, 2}},
    {0, {5, 0}, {5 + (1L << 32), 0}, "\tI32 5 != 100000005\n"},
    {1, {5, 0}, {5, 0}},
    {1, {5, 0}, {minus_1, 0}, "\tSI32 5 != -1\n"},
    {2, {bits(1.5f, 1), 0}, {bits(1.5f, 2), 0}},
    {2, {bits(0.0f), 0}, {bits(-0.0f), 0}},
    {2, {bits(1.5f, 9), 0}, {bits(-2.25f), 0}, "\tF32 1.500000 != -2.250000\n"},
    {2, {bits(NAN), 0}, {bits(NAN), 0}, "\tF32 nan != nan\n"},
    {3, {1, 2}, {1, 2}},
    {3, {1, 2}, {minus_1, 2}, "\tI64 1:2 != ffffffffffffffff:2\n"},
    {4, {minus_1, 2}, {minus_1, 1UL << 63}, "\tSI64 -1:2 != -1:-9223372036854775808\n"},
    {5, {bits(-0.0), 0}, {bits(0.0), 1}},
    {5, {bits(1e15), 0}, {bits(HUGE_VAL), 0}, "\tF64 1000000000000000.000000 != inf\n"},
    {5, {bits(double{NAN}), 0}, {bits(double{NAN}), 0}, "\tF64 nan != nan\n"},
};

// Kinds past the third are those of other messages: as they stand, cut at 64 characters, or none.
const std::pair<std::int32_t, std::string> kinds[] = {
    {1, "RETURN"},
    {2, "GLOBAL"},
    {3, "\tI32 %lx != %lx"},
    {59, ""},
    {INT_MIN, ""},
    {40, "Zorva(R) Nexil(TM) Duo processors and compatible Zorva processor"},
    {58, "Run-Time Check Failure: The variable '%s' is being used in %s wi"},
};

TEST(Constants, AreComparedAndReportedOnStandardOutput) {
  for (const pair& p : pairs)
    expect(0, p.type, p.expected, p.actual, p.values.empty() ? "" : error("FORMAL", p.values));
  for (const auto& [kind, name] : kinds)
    expect(kind, 1, {1, 0}, {2, 0}, error(name, "\tSI32 1 != 2\n"));
  for (const std::uint32_t type : {6u, 7u, UINT_MAX})
    expect(0, type, {1, 1}, {1, 1}, "Bad second argument\n");
  // Values that do not fit a message: the C library ends the process, and the kind is not lost.
  expect(0, 5, {bits(DBL_MAX), 0}, {bits(-DBL_MAX), 0}, error("FORMAL", ""));
}

}  // namespace
