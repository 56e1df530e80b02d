// Run-time checks: what passes, what each report says and where, and how the process ends.
//
// Every check runs in a child process. Where one child sees many failures, each is left by a jump out
// of SIGABRT's handler.
#include <gtest/gtest.h>

#include <climits>
#include <csetjmp>
#include <csignal>
#include <cstdlib>
#include <limits>

#include "support/child.h"
#include "support/guard_pages.h"
#include "support/registers.h"
#include "zorvac/diag.h"

namespace {

using namespace zorvac::test;

// Whether `check` aborts; for child processes.
template <class Check>
bool aborts(const Check& check) {
  static sigjmp_buf after;
  std::signal(SIGABRT, [](int) { siglongjmp(after, 1); });
  if (sigsetjmp(after, 1) != 0) return true;
  check();
  return false;
}

// Prints the values around every power of two and its negative that are not treated as they should.
template <class Narrow, class Wide>
void sweep(Narrow (*check)(Wide)) {
  constexpr std::int64_t least = std::numeric_limits<Narrow>::min();
  constexpr std::int64_t most = std::numeric_limits<std::make_unsigned_t<Narrow>>::max();
  for (int i = 0; i < 64 * 160; ++i) {
    const std::uint64_t power = 1UL << i / 160, from = i % 2 != 0 ? power : 0 - power;
    const auto v = static_cast<std::int64_t>(from + i % 160 / 2 - 40);
    if (static_cast<Wide>(v) != v) continue;  // not a value of the argument
    volatile Narrow result = 0;
    const bool accepted = !aborts([&] { result = check(static_cast<Wide>(v)); });
    if (accepted != (v >= least && v <= most) || (accepted && result != static_cast<Narrow>(v)))
      std::printf("%zu to %zu: %ld\n", sizeof(Wide), sizeof(Narrow), v);
  }
}

TEST(Narrowing, AcceptsWhatTheTargetHoldsSignedOrUnsigned) {
  const outcome o = run_in_child([] {
    const auto all = [](auto... checks) { (sweep(checks), ...); };
    all(_RTC_Check_2_to_1, _RTC_Check_4_to_1, _RTC_Check_8_to_1);
    all(_RTC_Check_4_to_2, _RTC_Check_8_to_2, _RTC_Check_8_to_4);
  });
  EXPECT_EQ(o.standard_output, "");
  EXPECT_EQ(o.exit_status, 0);
}

// A frame of four variables, two in each list, of odd sizes at odd addresses, as compiled code would
// set it up. Whichever guards are changed in whichever byte, one is reported: short entries before
// long ones, each in order. Where none is, no register changes but the one of the third argument.
TEST(StackVariables, TheFirstChangedGuardIsReportedElseNoRegisterChanges) {
  const zorvac_short_variable near[] = {{9, 7, "first"}, {-20, 1, "second"}};
  const zorvac_long_variable far[] = {{25, 0, "third"}, {-50, 13, ""}};
  const zorvac_stack_variables variables{2, near, 2, far};
  const int guards[] = {5, 16, -24, -19, 21, 25, -54, -37};  // in the order of the checks
  unsigned char bytes[128] = {}, *const base = bytes + 64;
  for (int i = 0; i < 32; ++i) base[guards[i / 4] + i % 4] = 0xcc;

  const outcome o = run_in_child([&] {
    for (int i = 0; i < 4 * 256; ++i) {
      const auto flip = [&] {
        for (int guard = 0; guard < 8; ++guard) base[guards[guard] + i / 256] ^= i >> guard & 1;
      };
      flip();
      aborts([&] { __zorva_rtc_CheckStackVars(nullptr, nullptr, &variables, base); });
      flip();
    }
  });
  const std::string names[] = {" for variable 'first'", " for variable 'second'",
                               " for variable 'third'", ""};
  std::string expected;
  for (int i = 0; i < 4 * 256; ++i)
    if (i % 256 != 0)
      expected += "\nBoundary Run-Time Check Failure" + names[__builtin_ctz(i) / 2] + "\n\n";
  EXPECT_EQ(o.exit_status, 0);
  EXPECT_TRUE(o.standard_error == expected) << o.standard_error.substr(0, 1000);

  register_file before = filled_registers(1);
  before.general[rdx] = reinterpret_cast<std::uint64_t>(&variables);
  before.general[rcx] = reinterpret_cast<std::uint64_t>(base);
  register_file after =
      call_with_registers(reinterpret_cast<void (*)()>(&__zorva_rtc_CheckStackVars), before);
  for (const auto free : {rdx, rsp}) after.general[free] = before.general[free];
  EXPECT_EQ(changed_registers(before, after), std::vector<std::string>{});
  EXPECT_EQ(after.general, before.general);
}

// A process that prints nothing is to live on; every other one is to abort, without exit handlers.
void expect(const std::string& output, const std::string& error,
            const std::function<void()>& check) {
  const outcome o = run_in_child([&] {
    std::atexit([] { std::puts("exit handler ran"); });
    check();
  });
  const bool lives = output.empty() && error.empty();
  EXPECT_EQ(o, (outcome{output, error, lives ? 0 : -1, lives ? 0 : SIGABRT}));
}

TEST(Reports, StandOnStandardErrorBetweenEmptyLines) {
  expect("", "\nConversion Run-Time Check Failure\n\n", [] { _RTC_Check_4_to_1(256); });

  const auto use = [](const std::string& said, const char* name, const char* place = nullptr) {
    expect("", "\nRun-Time Check Failure: The variable '" + said + " without being initialized\n\n",
           [=] { place ? __zorva_rtc_uninit_use_src(name, place) : __zorva_rtc_uninit_use(name); });
  };
  use("count' is being used", "count");
  use("(null)' is being used", nullptr);
  use("a%b' is being used", "a%%b");  // a name is formatted twice, so two signs are one
  use("point%next%s' is being used in 100%n", "point%next%s", "100%n");
  // Of 200 characters, a sign that stands alone takes two.
  const std::string name = "%" + std::string(197, 'n'), place(200, 'x');
  use(name + "' is being used in " + place, (name + '%').c_str(), (place + 'x').c_str());

  // Offsets have 64 bits, and the word behind a variable is not read when the one in front is wrong.
  expect("", "\nBoundary Run-Time Check Failure\n\n", [] {
    const guarded_block block(4);
    const zorvac_long_variable entry{1L << 40, 0, nullptr};
    const zorvac_stack_variables variables{0, nullptr, 1, &entry};
    __zorva_rtc_CheckStackVars(nullptr, nullptr, &variables, block.end() - (1L << 40));
  });
  expect("", "", [] {
    const zorvac_stack_variables negative{-1, nullptr, INT_MIN, nullptr};
    __zorva_rtc_CheckStackVars(nullptr, nullptr, &negative, nullptr);
  });
}

TEST(Constants, AreComparedAndReportedOnStandardOutput) {
  const auto error = [](const std::string& kind, const std::string& values) {
    return "Constant propagation error (" + kind + " substitution):\n" + values;
  };
  const struct {
    std::uint32_t type;
    zorvac_cp_value expected, actual;
    std::string values = {};  // empty: they agree
  } pairs[] = {
      {0, {5, 1}, {5, 2}},
      {0, {5, 0}, {5 + (1L << 32), 0}, "\tI32 5 != 100000005\n"},
      {1, {5, 0}, {UINT64_MAX, 0}, "\tSI32 5 != -1\n"},
      {2, {0x1'00000000, 0}, {0x2'80000000, 0}},  // zeros of both signs
      {2, {0x9'3fc00000, 0}, {0xc0100000, 0}, "\tF32 1.500000 != -2.250000\n"},
      {2, {0x7fc00000, 0}, {0x7fc00000, 0}, "\tF32 nan != nan\n"},
      {3, {1, 2}, {1, 2}},
      {3, {1, 2}, {UINT64_MAX, 2}, "\tI64 1:2 != ffffffffffffffff:2\n"},
      {4, {UINT64_MAX, 2}, {UINT64_MAX, 1UL << 63}, "\tSI64 -1:2 != -1:-9223372036854775808\n"},
      {5, {1UL << 63, 0}, {0, 1}},
      {5, {0x3ff8000000000000, 0}, {0x7ff0000000000000, 0}, "\tF64 1.500000 != inf\n"},
      {5, {0x7ff8000000000000, 0}, {0x7ff8000000000000, 0}, "\tF64 nan != nan\n"},
  };
  for (const auto& [type, expected, actual, values] : pairs)
    expect(values.empty() ? "" : error("FORMAL", values), "",
           [&] { _IPO_Check_CP(0, type, expected, actual); });
  // Kinds past the third are those of other messages: as they stand, cut at 64 characters, or none.
  const std::pair<std::int32_t, std::string> kinds[] = {
      {1, "RETURN"},
      {2, "GLOBAL"},
      {59, ""},
      {INT_MIN, ""},
      {58, "Run-Time Check Failure: The variable '%s' is being used in %s wi"}};
  for (const auto& [kind, name] : kinds)
    expect(error(name, "\tSI32 1 != 2\n"), "", [&] { _IPO_Check_CP(kind, 1, {1, 0}, {2, 0}); });
  for (const std::uint32_t type : {6U, UINT_MAX})
    expect("Bad second argument\n", "", [&] { _IPO_Check_CP(0, type, {1, 1}, {1, 1}); });
  // Values that do not fit a message: the C library ends the process, and the kind is not lost.
  const outcome o = run_in_child([&] {
    _IPO_Check_CP(0, 5, {0x7fefffffffffffff, 0}, {0xffefffffffffffff, 0});
  });
  EXPECT_EQ(o.standard_output, error("FORMAL", ""));
}

}  // namespace
