// Run-time checks and propagated constants: what passes, what each report says and where, and how
// the process ends. Reports are made in child processes.
#include <gtest/gtest.h>

#include <climits>
#include <csetjmp>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>

#include "diag/texts.h"
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
  use("a?[2Jb' is being used in c?d", "a\033[2Jb", "c\nd");

  // A negative count counts as 0, offsets have 64 bits, and the word behind a variable is not read
  // when the one in front is wrong.
  expect("", "\nBoundary Run-Time Check Failure\n\n", [] {
    const guarded_block block(4);
    const zorvac_long_variable entry{1L << 40, 0, nullptr};
    const zorvac_stack_variables variables{INT_MIN, nullptr, 1, &entry};
    __zorva_rtc_CheckStackVars(nullptr, nullptr, &variables, block.end() - (1L << 40));
  });
}

struct message {
  int number;
  std::string text;
};
const message in_english[] = {
    {25, "Run-Time Check Failure: The variable '%s' is being used without being initialized"},
    {53, "Boundary Run-Time Check Failure for variable '%s'"},
    {60, "Run-Time Check Failure: The variable '%s' is being used in %s without being initialized"},
};
const message in_german[] = {
    {25, "'%s' hat noch keinen Wert"},
    {53, "Um die Variable '%s' herum wurde Speicher beschrieben, der ihr nicht mehr zusteht"},
    {60, "'%s' hat in %s noch keinen Wert"},
};

void make_report(int number, const char* name, const char* where) {
  if (number == 25) __zorva_rtc_uninit_use(name);
  if (number == 60) __zorva_rtc_uninit_use_src(name, where);
  const unsigned char unguarded[16] = {};
  const zorvac_short_variable entry{4, 4, name};
  const zorvac_stack_variables variables{1, &entry, 0, nullptr};
  __zorva_rtc_CheckStackVars(nullptr, nullptr, &variables, unguarded);
}

// A name, as a program has it and as a message shows it.
struct shown_name {
  std::string name, shown;
};
shown_name cut(std::size_t bytes, std::size_t shown_bytes) {
  return {std::string(bytes, 'n'), std::string(shown_bytes, 'n')};
}

void expect_report(const message& m, const shown_name& name, const shown_name& where = {}) {
  SCOPED_TRACE("message " + std::to_string(m.number) + ", a name of " +
               std::to_string(name.name.size()) + " bytes in a place of " +
               std::to_string(where.name.size()));
  std::string expected = '\n' + m.text + "\n\n";
  for (const std::string& shown : {name.shown, where.shown})
    if (const auto at = expected.find("%s"); at != std::string::npos)
      expected.replace(at, 2, shown);

  const outcome seen =
      run_in_child([&] { make_report(m.number, name.name.c_str(), where.name.c_str()); });
  EXPECT_EQ(seen.signal, SIGABRT);
  EXPECT_EQ(seen.standard_error.size(), expected.size());
  EXPECT_EQ(seen.standard_error, expected);
}

void expect_names_to_fill(const message& m) {
  const bool has_place = m.number == 60;
  const std::size_t room = 511 - (m.text.size() - (has_place ? 4 : 2));
  if (!has_place) {
    expect_report(m, cut(room, room));
    expect_report(m, cut(room + 1, room));
    expect_report(m, cut(5000, room));
    // A per-cent sign that stands alone takes two bytes.
    const std::string rest(room - 2, 'n');
    expect_report(m, {'%' + rest, '%' + rest});
    expect_report(m, {'%' + rest + 'n', '%' + rest});
    expect_report(m, {rest + "n%", rest + 'n'});
    return;
  }
  // Each has half of the room, and what the other one leaves of its half.
  const std::size_t half = room / 2, rest = room - half;
  expect_report(m, cut(room - 9, room - 9), cut(9, 9));
  expect_report(m, cut(room, room - 9), cut(9, 9));
  expect_report(m, cut(9, 9), cut(room - 9, room - 9));
  expect_report(m, cut(9, 9), cut(5000, room - 9));
  expect_report(m, cut(half, half), cut(rest, rest));
  expect_report(m, cut(half + 1, half), cut(rest + 1, rest));
  expect_report(m, cut(5000, half), cut(5000, rest));
}

TEST(Reports, CutNamesToTheRoomThatTheMessageLeaves) {
  for (const message& m : in_english) expect_names_to_fill(m);

  std::string folder = testing::TempDir() + "zorvac-reports-XXXXXX";
  ASSERT_NE(mkdtemp(folder.data()), nullptr);
  const std::string source = folder + "/german.txt", catalogue = folder + "/german.cat";
  std::ofstream texts(source);
  texts << "$set 1\n";
  for (const message& m : in_german) texts << m.number << ' ' << m.text << '\n';
  texts.close();
  ASSERT_EQ(run_program({"gencat", catalogue, source}), (outcome{"", "", 0, 0}));
  setenv("NLSPATH", catalogue.c_str(), 1);  // for the children, which are the first to look
  for (const message& m : in_german) expect_names_to_fill(m);
  unsetenv("NLSPATH");
  std::filesystem::remove_all(folder);
}

const struct {
  const char* what;
  std::string name, shown;
} names[] = {
    {"control bytes",
     "a\x01"
     "b\n\t\x1b[2J\x1f\x7f",
     "a?b???[2J??"},
    {"UTF-8 of two to four bytes", "größe_π_変数_😀", "größe_π_変数_😀"},
    {"the first character above the controls", "\u00a0", "\u00a0"},
    {"a control of two bytes", "\u009b31m", "\xc2?31m"},
    {"a control of one byte",
     "\x9b"
     "31m",
     "?31m"},
    {"Latin-1",
     "gr\xf6\xdf"
     "e",
     "gr\xf6\xdf"
     "e"},
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
    EXPECT_EQ(seen, shown) << what;
  }
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
