// Run-time checks and propagated constants: what passes, what each report says and where, and how
// the process ends. Reports are made in child processes.
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

// A process that prints nothing is to live on; every other one is to abort, without exit handlers.
void expect(const std::string& output, const std::string& error, const auto& check) {
  const outcome o = run_in_child([&] {
    std::atexit([] { std::puts("exit handler ran"); });
    check();
  });
  const bool lives = output.empty() && error.empty();
  EXPECT_EQ(o, (outcome{output, error, lives ? 0 : -1, lives ? 0 : SIGABRT}));
}

// Prints the values around every power of two and its negative that are not treated as they should.
// A check that fails is left by a jump out of the signal's handler.
template <class Narrow, class Wide>
void sweep(Narrow (*check)(Wide)) {
  constexpr std::int64_t least = std::numeric_limits<Narrow>::min();
  constexpr std::int64_t most = std::numeric_limits<std::make_unsigned_t<Narrow>>::max();
  static sigjmp_buf failed;
  std::signal(SIGABRT, [](int) { siglongjmp(failed, 1); });
  for (unsigned i = 0; i < 64 * 160; ++i) {
    const std::uint64_t power = 1UL << i / 160, from = i % 2 != 0 ? power : 0 - power;
    const auto v = static_cast<std::int64_t>(from + i % 160 / 2 - 40);
    if (static_cast<Wide>(v) != v) continue;  // not a value of the argument
    bool right = v < least || v > most;
    if (sigsetjmp(failed, 1) == 0)
      right = check(static_cast<Wide>(v)) == static_cast<Narrow>(v) && !right;
    if (!right) std::printf("%zu to %zu: %ld\n", sizeof(Wide), sizeof(Narrow), v);
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

// A frame of four variables, two in each list, of odd sizes at odd addresses, as compiled code sets
// it up. Whichever guards are changed in whichever byte, the first is reported: short entries before
// long ones, each in order. Where none is, no register changes but the one of the third argument.
TEST(StackVariables, TheFirstChangedGuardIsReportedElseNoRegisterChanges) {
  const zorvac_short_variable near[] = {{9, 7, "first"}, {-20, 1, "second"}};
  const zorvac_long_variable far[] = {{25, 0, "third"}, {-50, 13, ""}};
  const zorvac_stack_variables variables{2, near, 2, far};
  const int guards[] = {5, 16, -24, -19, 21, 25, -54, -37};  // in the order of the checks
  const std::string of = " for variable '",
                    names[] = {of + "first'", of + "second'", of + "third'", ""};
  unsigned char bytes[128] = {}, *const base = bytes + 64;
  for (int i = 0; i < 32; ++i) base[guards[i / 4] + i % 4] = 0xcc;
  for (unsigned i = 1; i < 256; ++i)
    expect("", "\nBoundary Run-Time Check Failure" + names[__builtin_ctz(i) / 2] + "\n\n", [&] {
      for (int g = 0; g < 8; ++g) (base + i / 64)[guards[g]] ^= (i >> g & 1) != 0;
      __zorva_rtc_CheckStackVars(nullptr, nullptr, &variables, base);
    });

  register_file before = filled_registers(1);
  before.general[rdx] = reinterpret_cast<std::uint64_t>(&variables);
  before.general[rcx] = reinterpret_cast<std::uint64_t>(base);
  register_file after =
      call_with_registers(reinterpret_cast<void (*)()>(&__zorva_rtc_CheckStackVars), before);
  for (const auto free : {rdx, rsp}) after.general[free] = before.general[free];
  EXPECT_EQ(changed_registers(before, after), std::vector<std::string>{});
  EXPECT_EQ(after.general, before.general);
}

TEST(Reports, StandOnStandardErrorBetweenEmptyLines) {
  expect("", "\nConversion Run-Time Check Failure\n\n", [] { _RTC_Check_4_to_1(256); });

  const auto use = [](const std::string& said, const char* name, const char* place = nullptr) {
    expect("", "\nRun-Time Check Failure: The variable '" + said + " without being initialized\n\n",
           [=] { place ? __zorva_rtc_uninit_use_src(name, place) : __zorva_rtc_uninit_use(name); });
  };
  use("(null)' is being used", nullptr);
  use("a%b' is being used", "a%%b");  // a name is formatted twice, so two signs are one
  use("point%next%s' is being used in 100%n", "point%next%s", "100%n");
  // Of 200 characters, a sign that stands alone takes two.
  const std::string name = "%" + std::string(197, 'n'), place(200, 'x');
  use(name + "' is being used in " + place, (name + '%').c_str(), (place + 'x').c_str());

  // A negative count counts as 0, offsets have 64 bits, and the word behind a variable is not read
  // when the one in front is wrong.
  expect("", "\nBoundary Run-Time Check Failure\n\n", [] {
    const guarded_block block(4);
    const zorvac_long_variable entry{1L << 40, 0, nullptr};
    const zorvac_stack_variables variables{INT_MIN, nullptr, 1, &entry};
    __zorva_rtc_CheckStackVars(nullptr, nullptr, &variables, block.end() - (1L << 40));
  });
}

const char text_of_60[] = "Run-Time Check Failure: The variable '%s' is being used in %s wi";
const struct {
  std::int32_t kind;
  std::uint32_t type;
  zorvac_cp_value expected, actual;
  std::string name, values;  // empty: they agree
} constants[] = {
    {0, 0, {5, 1}, {5, 2}, "", ""},
    {0, 0, {5, 0}, {5 + (1L << 32), 0}, "FORMAL", "\tI32 5 != 100000005\n"},
    {0, 1, {5, 0}, {-1UL, 0}, "FORMAL", "\tSI32 5 != -1\n"},
    {0, 2, {0x1'00000000, 0}, {0x2'80000000, 0}, "", ""},  // zeros of both signs
    {0, 2, {0x9'3fc00000, 0}, {0xc0100000, 0}, "FORMAL", "\tF32 1.500000 != -2.250000\n"},
    {0, 2, {0x7fc00000, 0}, {0x7fc00000, 0}, "FORMAL", "\tF32 nan != nan\n"},
    {0, 3, {1, 2}, {1, 2}, "", ""},
    {0, 3, {1, 2}, {-1UL, 2}, "FORMAL", "\tI64 1:2 != ffffffffffffffff:2\n"},
    {0, 4, {-1UL, 2}, {-1UL, 1UL << 63}, "FORMAL", "\tSI64 -1:2 != -1:-9223372036854775808\n"},
    {0, 5, {1UL << 63, 0}, {0, 1}, "", ""},
    {1, 5, {0x3ff8UL << 48, 0}, {0x7ff0UL << 48, 0}, "RETURN", "\tF64 1.500000 != inf\n"},
    {2, 5, {0x7ff8UL << 48, 0}, {0x7ff8UL << 48, 0}, "GLOBAL", "\tF64 nan != nan\n"},
    // Kinds past the third are those of other messages: as they stand, cut at 64 characters, or
    // none.
    {59, 1, {1, 0}, {2, 0}, "", "\tSI32 1 != 2\n"},
    {INT_MIN, 1, {1, 0}, {2, 0}, "", "\tSI32 1 != 2\n"},
    {58, 1, {1, 0}, {2, 0}, text_of_60, "\tSI32 1 != 2\n"},
};

TEST(Constants, AreComparedAndReportedOnStandardOutput) {
  const std::string error = "Constant propagation error (";
  for (const auto& c : constants)
    expect(c.values.empty() ? "" : error + c.name + " substitution):\n" + c.values, "",
           [&] { _IPO_Check_CP(c.kind, c.type, c.expected, c.actual); });
  for (const std::uint32_t type : {6U, UINT_MAX})
    expect("Bad second argument\n", "", [&] { _IPO_Check_CP(0, type, {1, 1}, {1, 1}); });
  // Values that do not fit a message: the C library ends the process, and the kind is not lost.
  const auto o = run_in_child([] { _IPO_Check_CP(0, 5, {0x7feUL << 52, 0}, {0xffeUL << 52, 0}); });
  EXPECT_EQ(o.standard_output, error + "FORMAL substitution):\n");
}

}  // namespace
