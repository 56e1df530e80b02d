// Run-time checks and propagated constants: what passes, the text and the stream of each report,
// and how the process ends. Reports are made in child processes.
#include <gtest/gtest.h>

#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
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

// A message about names is on standard error, between empty lines.
outcome reports(const char* message, const std::string& name = "", const std::string& where = "") {
  char line[1024];
  std::snprintf(line, sizeof line, message, name.c_str(), where.c_str());
  return aborts("", std::string("\n") + line + "\n\n");
}

template <class Narrow, class Wide>
void expect_narrowing(Narrow (*check)(Wide)) {
  constexpr Wide least = std::numeric_limits<Narrow>::min();
  constexpr Wide most = std::numeric_limits<std::make_unsigned_t<Narrow>>::max();
  for (const Wide value : {least, Wide{-1}, Wide{0}, Wide{most / 2 + 1}, most})
    EXPECT_EQ(check(value), static_cast<Narrow>(value));
  using limits = std::numeric_limits<Wide>;
  for (const Wide value : {limits::min(), Wide{least - 1}, Wide{most + 1}, limits::max()})
    EXPECT_EQ(run_check([=] { check(value); }), reports("Conversion Run-Time Check Failure"))
        << sizeof(Wide) << " to " << sizeof(Narrow) << ": " << value;
}

TEST(Narrowing, AcceptsWhatTheTargetHoldsSignedOrUnsigned) {
  expect_narrowing(_RTC_Check_2_to_1);
  expect_narrowing(_RTC_Check_4_to_1);
  expect_narrowing(_RTC_Check_8_to_1);
  expect_narrowing(_RTC_Check_4_to_2);
  expect_narrowing(_RTC_Check_8_to_2);
  expect_narrowing(_RTC_Check_8_to_4);
}

const std::string long_name(5000, 'n');  // too long for every report

// A frame of four variables, two in each list, of odd sizes at odd addresses, as compiled code sets
// it up.
struct frame {
  zorvac_short_variable near[2] = {{9, 7, "first"}, {-20, 1, "second"}};
  zorvac_long_variable far[2] = {{25, 0, long_name.c_str()}, {-50, 13, ""}};
  zorvac_stack_variables variables{2, near, 2, far};
  unsigned char bytes[128] = {};
  unsigned char* const base = bytes + 64;

  static constexpr int guards[] = {5,  16, -24, -19,
                                   21, 25, -54, -37};  // in the order of the checks
  frame() {
    for (const int guard : guards) std::fill_n(base + guard, 4, 0xcc);
  }
};

// Any guards are changed, in any byte. Short entries are checked before long ones.
TEST(StackVariables, TheFirstChangedGuardIsReported) {
  const std::string names[] = {"first", "second", long_name.substr(0, 464)};
  for (unsigned changed = 1; changed < 256; ++changed) {
    const outcome o = run_check([=] {
      frame f;
      for (unsigned g = 0; g < 8; ++g)
        if ((changed >> g & 1) != 0) f.base[frame::guards[g] + static_cast<int>(changed / 64)] = 0;
      __zorva_rtc_CheckStackVars(nullptr, nullptr, &f.variables, f.base);
    });
    const int first = __builtin_ctz(changed) / 2;
    const outcome expected =
        first == 3 ? reports("Boundary Run-Time Check Failure")
                   : reports("Boundary Run-Time Check Failure for variable '%s'", names[first]);
    EXPECT_EQ(o, expected) << "guards changed: " << changed;
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

// A negative count is the same as 0, offsets have 64 bits, and the word after a variable is not
// read if the word before it is wrong.
TEST(StackVariables, MayHaveAnyDescription) {
  const outcome o = run_check([] {
    const guarded_block block(4);
    const zorvac_long_variable entry{1L << 40, 0, nullptr};
    const zorvac_stack_variables variables{INT_MIN, nullptr, 1, &entry};
    __zorva_rtc_CheckStackVars(nullptr, nullptr, &variables, block.end() - (1L << 40));
  });
  EXPECT_EQ(o, reports("Boundary Run-Time Check Failure"));
}

// ---- Names in reports ----

const char uninitialized[] =
    "Run-Time Check Failure: The variable '%s' is being used without being initialized";
const char uninitialized_at[] =
    "Run-Time Check Failure: The variable '%s' is being used in %s without being initialized";

std::string letters(std::size_t count) { return long_name.substr(0, count); }

TEST(Reports, CutANameToTheRoomThatTheMessageLeaves) {
  const std::size_t room = 511 - std::strlen(uninitialized) + std::strlen("%s");
  const struct {
    std::string name, shown;
  } rows[] = {
      {"a%%b", "a%b"},  // a name is formatted twice, so two signs are one
      {letters(room), letters(room)},
      {letters(room + 1), letters(room)},
      {long_name, letters(room)},
      // A single percent sign takes two bytes.
      {'%' + letters(room - 1), '%' + letters(room - 2)},
      {letters(room - 1) + '%', letters(room - 1)},
  };
  for (const auto& row : rows)
    EXPECT_EQ(run_check([&] { __zorva_rtc_uninit_use(row.name.c_str()); }),
              reports(uninitialized, row.shown));
}

// Each name has half of the room, plus what the other one leaves of its half. If the room is odd,
// as here, the second half is larger.
TEST(Reports, CutTwoNamesToTheRoomInAnyLanguage) {
  const char message[] = "'%s' hat in %s noch keinen Wert.";
  const std::size_t room = 511 - std::strlen(message) + std::strlen("%s%s");
  const std::size_t half = room / 2, rest = room - half;
  const struct {
    std::string name, where, name_shown, where_shown;
  } rows[] = {
      {"point%next%s", "c\n100%n", "point%next%s", "c?100%n"},
      {letters(room), letters(half), letters(rest), letters(half)},
      {letters(9), long_name, letters(9), letters(room - 9)},
      {letters(half), letters(rest), letters(half), letters(rest)},
      {letters(half + 1), letters(rest + 1), letters(half), letters(rest)},
  };
  const std::string source = testing::TempDir() + "zorvac-german-" + std::to_string(getpid());
  const std::string catalogue = source + ".cat";
  std::ofstream(source) << "$set 1\n60 " << message << '\n';
  ASSERT_EQ(run_program({"gencat", catalogue, source}), passes);
  setenv("NLSPATH", catalogue.c_str(), 1);  // for the children: the parent opens no catalogue
  for (const auto& row : rows)
    EXPECT_EQ(run_check([&] { __zorva_rtc_uninit_use_src(row.name.c_str(), row.where.c_str()); }),
              reports(message, row.name_shown, row.where_shown));
  unsetenv("NLSPATH");
  std::remove(source.c_str());
  std::remove(catalogue.c_str());
  EXPECT_EQ(run_check([] { __zorva_rtc_uninit_use_src(nullptr, nullptr); }),
            reports(uninitialized_at, "(null)", "(null)"));
}

const struct {
  const char* what;
  std::string name, shown;
} names[] = {
    {"control bytes", "y\x01z\n\t\x1b[2J\x1f\x7f", "y?z???[2J??"},
    {"UTF-8 of two to four bytes", "größe_π_変数_😀", "größe_π_変数_😀"},
    {"the first character above the controls", "\u00a0", "\u00a0"},
    {"a control of two bytes", "\u009bm", "\xc2?m"},
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

const struct {
  std::int32_t kind;
  std::uint32_t type;
  zorvac_cp_value expected, actual;
  std::string name, values;  // empty: the values agree
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
    // Other kinds select other messages: unchanged, cut to 64 characters, or no text.
    {59, 1, {1, 0}, {2, 0}, "", "\tSI32 1 != 2\n"},
    {INT_MIN, 1, {1, 0}, {2, 0}, "", "\tSI32 1 != 2\n"},
    {58, 1, {1, 0}, {2, 0}, std::string(uninitialized_at, 64), "\tSI32 1 != 2\n"},
};
TEST(Constants, AreComparedAndReportedOnStandardOutput) {
  for (const auto& c : constants) {
    const std::string text =
        "Constant propagation error (" + c.name + " substitution):\n" + c.values;
    const outcome expected = c.values.empty() ? passes : aborts(text, "");
    const outcome o = run_check([&] { _IPO_Check_CP(c.kind, c.type, c.expected, c.actual); });
    EXPECT_EQ(o, expected) << "kind " << c.kind << ", type " << c.type;
  }
  for (const std::uint32_t type : {6U, UINT_MAX}) {
    const outcome o = run_check([=] { _IPO_Check_CP(0, type, {1, 1}, {1, 1}); });
    EXPECT_EQ(o, aborts("Bad second argument\n", "")) << "type " << type;
  }
}

// The C library ends the process, but the line with the kind is not lost.
TEST(Constants, MayBeTooLongForAMessage) {
  const outcome o = run_check([] { _IPO_Check_CP(0, 5, {0x7feUL << 52, 0}, {0xffeUL << 52, 0}); });
  EXPECT_EQ(o.standard_output, "Constant propagation error (FORMAL substitution):\n");
}

}  // namespace
