// Run-time checks and propagated constants: what passes, what each report says and where, and how
// the process ends. Reports are made in child processes.
#include <gtest/gtest.h>

#include <climits>
#include <csetjmp>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <limits>

#include "diag/texts.h"
#include "support/bytes.h"
#include "support/child.h"
#include "support/guard_pages.h"
#include "support/registers.h"
#include "zorvac/diag.h"

namespace {

using namespace zorvac::test;

// A process that aborts runs no exit handlers.
outcome run_check(const auto& check) {
  return run_in_child([&] {
    std::atexit([] { std::puts("exit handler ran"); });
    check();
  });
}
const outcome passes{"", "", 0, 0};
outcome aborts(const std::string& output, const std::string& error) {
  return {output, error, -1, SIGABRT};
}
std::string report(const std::string& line) { return '\n' + line + "\n\n"; }

// Prints the values around every power of two and its negative that are not treated as they should.
// A check that fails is left by a jump out of the signal's handler.
template <class Narrow, class Wide>
void sweep(Narrow (*check)(Wide)) {
  constexpr auto least = static_cast<std::int64_t>(std::numeric_limits<Narrow>::min());
  constexpr std::int64_t most = std::numeric_limits<std::make_unsigned_t<Narrow>>::max();
  static sigjmp_buf failed;
  std::signal(SIGABRT, [](int) { siglongjmp(failed, 1); });
  for (unsigned i = 0; i < 64 * 160; ++i) {
    const std::uint64_t power = 1UL << i / 160;
    const std::uint64_t middle = i % 2 != 0 ? power : 0 - power;
    const auto value = static_cast<std::int64_t>(middle + i % 160 / 2 - 40);
    if (static_cast<Wide>(value) != value) continue;  // not a value of the argument
    bool passed = false;
    if (sigsetjmp(failed, 1) == 0)
      passed = check(static_cast<Wide>(value)) == static_cast<Narrow>(value);
    if (passed != (value >= least && value <= most))
      std::printf("%zu to %zu: %ld\n", sizeof(Wide), sizeof(Narrow), value);
  }
}

TEST(Narrowing, AcceptsWhatTheTargetHoldsSignedOrUnsigned) {
  const outcome o = run_in_child([] {
    sweep(_RTC_Check_2_to_1);
    sweep(_RTC_Check_4_to_1);
    sweep(_RTC_Check_8_to_1);
    sweep(_RTC_Check_4_to_2);
    sweep(_RTC_Check_8_to_2);
    sweep(_RTC_Check_8_to_4);
  });
  EXPECT_EQ(o.standard_output, "");
  EXPECT_EQ(o.exit_status, 0);
}

// A frame of four variables, two in each list, of odd sizes at odd addresses, as compiled code sets
// it up.
struct frame {
  zorvac_short_variable near[2] = {{9, 7, "first"}, {-20, 1, "second"}};
  zorvac_long_variable far[2] = {{25, 0, "third"}, {-50, 13, ""}};
  zorvac_stack_variables variables{2, near, 2, far};
  unsigned char bytes[128] = {};
  unsigned char* const base = bytes + 64;

  static constexpr int guards[] = {5,  16, -24, -19,
                                   21, 25, -54, -37};  // in the order of the checks
  frame() {
    for (const int guard : guards) std::fill_n(base + guard, 4, 0xcc);
  }
};

// Whichever guards are changed, in whichever byte. Short entries come before long ones.
TEST(StackVariables, TheFirstChangedGuardIsReported) {
  const std::string of[] = {" for variable 'first'", " for variable 'second'",
                            " for variable 'third'", ""};
  for (unsigned changed = 1; changed < 256; ++changed) {
    const outcome o = run_check([=] {
      frame f;
      for (unsigned g = 0; g < 8; ++g)
        if ((changed >> g & 1) != 0) f.base[frame::guards[g] + static_cast<int>(changed / 64)] = 0;
      __zorva_rtc_CheckStackVars(nullptr, nullptr, &f.variables, f.base);
    });
    const int first = __builtin_ctz(changed) / 2;
    EXPECT_EQ(o, aborts("", report("Boundary Run-Time Check Failure" + of[first])))
        << "guards changed: " << changed;
  }
}

TEST(StackVariables, WithAllGuardsNoRegisterChangesButTheThirdArgument) {
  frame f;
  register_file before = filled_registers(1);
  before.general[rdx] = reinterpret_cast<std::uint64_t>(&f.variables);
  before.general[rcx] = reinterpret_cast<std::uint64_t>(f.base);
  register_file after =
      call_with_registers(reinterpret_cast<void (*)()>(&__zorva_rtc_CheckStackVars), before);
  for (const auto free : {rdx, rsp}) after.general[free] = before.general[free];
  EXPECT_EQ(changed_registers(before, after), std::vector<std::string>{});
  EXPECT_ELEMENTS(after.general, before.general);
}

// A negative count counts as 0, offsets have 64 bits, and the word behind a variable is not read
// when the one in front is wrong.
TEST(StackVariables, MayHaveAnyDescription) {
  const outcome o = run_check([] {
    const guarded_block block(4);
    const zorvac_long_variable entry{1L << 40, 0, nullptr};
    const zorvac_stack_variables variables{INT_MIN, nullptr, 1, &entry};
    __zorva_rtc_CheckStackVars(nullptr, nullptr, &variables, block.end() - (1L << 40));
  });
  EXPECT_EQ(o, aborts("", report("Boundary Run-Time Check Failure")));
}

// ---- Names in reports ----

// The messages with names in them, which have one or two.
struct message {
  int number;
  std::string text;
};
const message uninitialized{
    25, "Run-Time Check Failure: The variable '%s' is being used without being initialized"};
const message boundary{53, "Boundary Run-Time Check Failure for variable '%s'"};
const message uninitialized_at{
    60, "Run-Time Check Failure: The variable '%s' is being used in %s without being initialized"};
const message in_german{60, "'%s' hat in %s noch keinen Wert."};

// A name, as a program has it and as a message shows it.
struct shown_name {
  std::string name, shown;
};
shown_name letters(std::size_t bytes, std::size_t shown_bytes) {
  return {std::string(bytes, 'n'), std::string(shown_bytes, 'n')};
}

void expect_report(const message& m, const shown_name& name, const shown_name& where = {}) {
  std::string expected = report(m.text);
  expected.replace(expected.find("%s"), 2, name.shown);
  if (m.number == 60) expected.replace(expected.rfind("%s"), 2, where.shown);
  const outcome o = run_check([&] {
    if (m.number == 25) __zorva_rtc_uninit_use(name.name.c_str());
    if (m.number == 60) __zorva_rtc_uninit_use_src(name.name.c_str(), where.name.c_str());
    const unsigned char unguarded[16] = {};
    const zorvac_short_variable entry{4, 4, name.name.c_str()};
    const zorvac_stack_variables variables{1, &entry, 0, nullptr};
    __zorva_rtc_CheckStackVars(nullptr, nullptr, &variables, unguarded);
  });
  EXPECT_EQ(o, aborts("", expected)) << "message " << m.number << ", names of " << name.name.size()
                                     << " and " << where.name.size();
}

TEST(Reports, StandOnStandardErrorBetweenEmptyLines) {
  EXPECT_EQ(run_check([] { _RTC_Check_4_to_1(256); }),
            aborts("", report("Conversion Run-Time Check Failure")));
  EXPECT_EQ(
      run_check([] { __zorva_rtc_uninit_use_src(nullptr, nullptr); }),
      aborts("", report("Run-Time Check Failure: The variable '(null)' is being used in (null) "
                        "without being initialized")));
  expect_report(uninitialized, {"a%%b", "a%b"});  // a name is formatted twice, so two signs are one
  expect_report(uninitialized, {"a\033[2Jb", "a?[2Jb"});
  expect_report(uninitialized_at, {"point%next%s", "point%next%s"}, {"c\n100%n", "c?100%n"});
}

// What the longest message leaves beside its own text.
std::size_t room_in(const message& m, std::size_t names) {
  return 511 - (m.text.size() - 2 * names);
}

TEST(Reports, CutANameToTheRoomThatTheMessageLeaves) {
  for (const message& m : {uninitialized, boundary}) {
    const std::size_t room = room_in(m, 1);
    for (const std::size_t bytes : {room, room + 1, std::size_t{5000}})
      expect_report(m, letters(bytes, room));
  }
  // A per-cent sign that stands alone takes two bytes.
  const std::string rest(room_in(uninitialized, 1) - 2, 'n');
  expect_report(uninitialized, {'%' + rest + 'n', '%' + rest});
  expect_report(uninitialized, {rest + "n%", rest + 'n'});
}

// Each has half of the room, and what the other one leaves of its half. Of an odd room the second
// half is larger.
void expect_two_names_to_fill(const message& m) {
  const std::size_t room = room_in(m, 2), half = room / 2, rest = room - half;
  expect_report(m, letters(room, room - 9), letters(9, 9));
  expect_report(m, letters(9, 9), letters(5000, room - 9));
  expect_report(m, letters(half, half), letters(rest, rest));
  expect_report(m, letters(half + 1, half), letters(rest + 1, rest));
}

TEST(Reports, CutTwoNamesToTheRoomInAnyLanguage) {
  expect_two_names_to_fill(uninitialized_at);

  const std::string source = testing::TempDir() + "zorvac-german-" + std::to_string(getpid());
  const std::string catalogue = source + ".cat";
  std::ofstream(source) << "$set 1\n" << in_german.number << ' ' << in_german.text << '\n';
  ASSERT_EQ(run_program({"gencat", catalogue, source}), passes);
  setenv("NLSPATH", catalogue.c_str(), 1);  // for the children, which are the first to look
  expect_two_names_to_fill(in_german);
  unsetenv("NLSPATH");
  std::remove(source.c_str());
  std::remove(catalogue.c_str());
}

const struct {
  const char* what;
  std::string name, shown;
} names[] = {
    {"control bytes", "y\x01z\n\t\x1b[2J\x1f\x7f", "y?z???[2J??"},
    {"UTF-8 of two to four bytes", "größe_π_変数_😀", "größe_π_変数_😀"},
    {"the first character above the controls", "\u00a0", "\u00a0"},
    {"a control of two bytes", "\u009bm", "\xc2?m"},
    {"a control of one byte", "\x9bm", "?m"},
    {"Latin-1", "gr\xf6\xdfm", "gr\xf6\xdfm"},
    {"a control in too many bytes", "\xe0\x82\x9b|\xf0\x80\x82\x9b", "\xe0??|\xf0???"},
    {"half of a surrogate pair", "\xed\xa0\x80", "\xed\xa0?"},
    {"beyond the last character", "\xf4\x90\x80\x80", "\xf4???"},
    {"a character cut short", "\xe2\x82|\xe2\x82", "\xe2?|\xe2?"},
    {"bytes that begin no character", "\x80\xbf\xff\x90\x90\x90\x90", "?\xbf\xff????"},
};

TEST(Names, AreShownWithoutWhatTerminalsTakeForCommands) {
  for (const auto& [what, name, shown] : names) {
    std::string seen = name;
    zorvac::diag::hide_commands(seen.data());
    EXPECT_BYTES(seen, shown) << what;
  }
}

// ---- Propagated constants ----

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
std::string first_line(const std::string& kind) {
  return "Constant propagation error (" + kind + " substitution):\n";
}

TEST(Constants, AreComparedAndReportedOnStandardOutput) {
  for (const auto& c : constants) {
    const outcome expected = c.values.empty() ? passes : aborts(first_line(c.name) + c.values, "");
    const outcome o = run_check([&] { _IPO_Check_CP(c.kind, c.type, c.expected, c.actual); });
    EXPECT_EQ(o, expected) << "kind " << c.kind << ", type " << c.type;
  }
  for (const std::uint32_t type : {6U, UINT_MAX}) {
    const outcome o = run_check([=] { _IPO_Check_CP(0, type, {1, 1}, {1, 1}); });
    EXPECT_EQ(o, aborts("Bad second argument\n", "")) << "type " << type;
  }
}

// The C library ends the process, and the kind is not lost.
TEST(Constants, MayBeTooLongForAMessage) {
  const outcome o = run_check([] { _IPO_Check_CP(0, 5, {0x7feUL << 52, 0}, {0xffeUL << 52, 0}); });
  EXPECT_EQ(o.standard_output, first_line("FORMAL"));
}

}  // namespace
