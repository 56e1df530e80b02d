// Run-time checks: what passes, what each report says and where, and how the process ends.
//
// Reports are looked at in child processes. Sweeps over many values stay in this one: the linker
// leads the library's calls of abort to a routine here that can jump back.
#include <gtest/gtest.h>
#include <unistd.h>

#include <bit>
#include <cfloat>
#include <climits>
#include <cmath>
#include <concepts>
#include <csetjmp>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "support/child.h"
#include "support/guard_pages.h"
#include "support/name_of_row.h"
#include "support/registers.h"
#include "zorvac/diag.h"

namespace {
std::jmp_buf after_abort;
bool jump_on_abort = false;
}  // namespace

extern "C" [[noreturn]] void __real_abort();
extern "C" [[noreturn]] void __wrap_abort() {
  if (jump_on_abort) std::longjmp(after_abort, 1);
  __real_abort();
}

namespace {

using namespace zorvac::test;

// Whether `check` ends the process.
template <class Check>
bool aborts(const Check& check) {
  jump_on_abort = true;
  const bool jumped = setjmp(after_abort) != 0;
  if (!jumped) check();
  jump_on_abort = false;
  return jumped;
}

outcome fate_of(const std::function<void()>& check) {
  return run_in_child([&] {
    std::atexit([] { (void)!write(STDOUT_FILENO, "exit handler ran", 16); });
    check();
  });
}
outcome failed(const std::string& out, const std::string& err) { return {out, err, -1, SIGABRT}; }

// ---- Narrowing

struct narrowing {
  const char* name;
  std::int64_t (*call)(std::int64_t);  // the result extended by its sign
  int from, to;                        // bits
};
template <class Narrow, class Wide>
std::int64_t call(Narrow (*check)(Wide), std::int64_t value) {
  return check(static_cast<Wide>(value));
}
template <auto Check>
constexpr auto call_of = [](std::int64_t value) { return call(Check, value); };
constexpr narrowing narrowings[] = {
    {"2to1", call_of<_RTC_Check_2_to_1>, 16, 8},  {"4to1", call_of<_RTC_Check_4_to_1>, 32, 8},
    {"8to1", call_of<_RTC_Check_8_to_1>, 64, 8},  {"4to2", call_of<_RTC_Check_4_to_2>, 32, 16},
    {"8to2", call_of<_RTC_Check_8_to_2>, 64, 16}, {"8to4", call_of<_RTC_Check_8_to_4>, 64, 32},
};

class Narrowing : public testing::TestWithParam<narrowing> {};
INSTANTIATE_TEST_SUITE_P(Checks, Narrowing, testing::ValuesIn(narrowings), name_of_row);

// Every 16-bit value, and the neighbourhood of every power of two and its negative.
TEST_P(Narrowing, AcceptsWhatTheTargetHoldsSignedOrUnsigned) {
  const auto& [name, call, from, to] = GetParam();
  std::vector<std::int64_t> values;
  for (std::int64_t v = INT16_MIN - 3; v <= UINT16_MAX + 3; ++v) values.push_back(v);
  for (int bit = 16; bit < 63; ++bit)
    for (std::int64_t near = -3; near <= 3; ++near)
      for (const int sign : {1, -1}) values.push_back(sign * (std::int64_t{1} << bit) + near);
  values.insert(values.end(), {INT64_MIN, INT64_MIN + 1, INT64_MAX});

  const outcome o = run_in_child([&, call = call, from = from, to = to] {
    const std::int64_t one = 1;
    for (const std::int64_t v : values) {
      if (v >> (from - 1) != v >> 63) continue;  // not a value of the argument
      volatile std::int64_t result = 0;
      const bool accepted = !aborts([&] { result = call(v); });
      const std::int64_t low_part = v << (64 - to) >> (64 - to);
      if (accepted != (v >= -(one << (to - 1)) && v < one << to) ||
          (accepted && result != low_part))
        std::printf("%ld ", v);
    }
  });
  EXPECT_EQ(o.standard_output, "");
  EXPECT_NE(o.standard_error, "");
  EXPECT_EQ(o.exit_status, 0);
}

// ---- Reports on standard error

const std::string long_name(5000, 'x');

struct report {
  const char* name;
  void (*check)();
  std::string text;
};
const report reports[] = {
    {"Conversion", [] { _RTC_Check_4_to_1(256); }, "Conversion Run-Time Check Failure"},
    {"Use", [] { __zorva_rtc_uninit_use("count"); },
     "Run-Time Check Failure: The variable 'count' is being used without being initialized"},
    {"UseAt", [] { __zorva_rtc_uninit_use_src("count", "loop.c:12"); },
     "Run-Time Check Failure: The variable 'count' is being used in loop.c:12 without being "
     "initialized"},
    {"NoName", [] { __zorva_rtc_uninit_use(nullptr); },
     "Run-Time Check Failure: The variable '(null)' is being used without being initialized"},
    {"PerCentSigns", [] { __zorva_rtc_uninit_use_src("point%next%s", "100%n"); },
     "Run-Time Check Failure: The variable 'point%next%s' is being used in 100%n without being "
     "initialized"},
    {"LongName", [] { __zorva_rtc_uninit_use(long_name.c_str()); },
     "Run-Time Check Failure: The variable '" + std::string(400, 'x') +
         "' is being used without being initialized"},
    {"LongNames",
     [] { __zorva_rtc_uninit_use_src(std::string(300, '%').c_str(), long_name.c_str()); },
     "Run-Time Check Failure: The variable '" + std::string(100, '%') + "' is being used in " +
         std::string(200, 'x') + " without being initialized"},
};

class Report : public testing::TestWithParam<report> {};
INSTANTIATE_TEST_SUITE_P(Checks, Report, testing::ValuesIn(reports), name_of_row);

TEST_P(Report, StandsBetweenEmptyLinesAndEndsTheProcess) {
  EXPECT_EQ(fate_of(GetParam().check), failed("", "\n" + GetParam().text + "\n\n"));
}

// ---- Variables of a frame

// A frame of four variables, two in each list, of odd sizes at odd addresses, as compiled code
// would set it up.
struct frame {
  unsigned char bytes[128];
  zorvac_short_variable short_entries[2] = {{9, 7, "first"}, {-20, 1, "second"}};
  zorvac_long_variable long_entries[2] = {{25, 0, "third"}, {-50, 13, ""}};
  zorvac_stack_variables variables{2, short_entries, 2, long_entries};
  std::vector<unsigned char*> guards;  // in the order of the checks

  frame() {
    std::memset(bytes, 0xaa, sizeof bytes);
    for (const auto& v : short_entries) guard(v.offset, v.size);
    for (const auto& v : long_entries) guard(v.offset, v.size);
  }
  void guard(std::int64_t offset, std::int64_t size) {
    for (const std::int64_t at : {offset - 4, offset + size}) {
      guards.push_back(bytes + 64 + at);
      std::memset(guards.back(), 0xcc, 4);
    }
  }
  void check() const { __zorva_rtc_CheckStackVars(nullptr, nullptr, &variables, bytes + 64); }
};

const std::string& boundary_report(std::size_t entry) {
  static const std::string texts[] = {"\nBoundary Run-Time Check Failure for variable 'first'\n\n",
                                      "\nBoundary Run-Time Check Failure for variable 'second'\n\n",
                                      "\nBoundary Run-Time Check Failure for variable 'third'\n\n",
                                      "\nBoundary Run-Time Check Failure\n\n"};
  return texts[entry];
}

TEST(StackVariables, AnyChangedByteOfAGuardIsReported) {
  for (std::size_t word = 0; word < 8; ++word)
    for (std::size_t byte = 0; byte < 4; ++byte) {
      frame f;
      f.guards[word][byte] ^= static_cast<unsigned char>(1u << (word + byte) % 8);
      EXPECT_EQ(fate_of([&] { f.check(); }), failed("", boundary_report(word / 2))) << word << byte;
    }
}

// Short entries before long ones, each list in order.
TEST(StackVariables, TheFirstBrokenEntryIsReported) {
  for (unsigned broken = 1; broken < 16; ++broken) {
    frame f;
    for (unsigned entry = 0; entry < 4; ++entry)
      if ((broken >> entry & 1) != 0) ++*f.guards[2 * entry + (broken & 1)];
    EXPECT_EQ(fate_of([&] { f.check(); }),
              failed("", boundary_report(static_cast<std::size_t>(std::countr_zero(broken)))));
  }
}

// The word behind a variable is not read when the word in front is wrong, and no later entry is.
TEST(StackVariables, NothingIsReadPastTheFirstFailure) {
  const guarded_block block(4);
  const zorvac_long_variable entries[] = {{0, 0, nullptr}, {0, 1 << 20, "not reached"}};
  const zorvac_stack_variables variables{0, nullptr, 2, entries};
  EXPECT_EQ(fate_of([&] { __zorva_rtc_CheckStackVars(nullptr, nullptr, &variables, block.end()); }),
            failed("", "\nBoundary Run-Time Check Failure\n\n"));
}

TEST(StackVariables, SoundFramesChangeNoRegisterButTheThirdArgument) {
  const frame whole;
  const std::uint64_t far = 0x7edcba9876543210;  // from a base that needs wrapping arithmetic
  zorvac_long_variable far_entry{0, 13, "far"};
  far_entry.offset =
      static_cast<std::int64_t>(reinterpret_cast<std::uint64_t>(whole.bytes + 64 - 50) - far * 3);
  const zorvac_stack_variables nothing{0, nullptr, 0, nullptr},
      negative{-1, nullptr, INT_MIN, nullptr}, wrapping{0, nullptr, 1, &far_entry};
  const std::pair<const zorvac_stack_variables*, std::uint64_t> frames[] = {
      {&whole.variables, reinterpret_cast<std::uint64_t>(whole.bytes + 64)},
      {&nothing, 0},
      {&negative, 0},
      {&wrapping, far * 3}};
  for (const auto& [variables, base] : frames) {
    register_file before = filled_registers(static_cast<unsigned>(base));
    before.general[rdx] = reinterpret_cast<std::uint64_t>(variables);
    before.general[rcx] = base;
    register_file after =
        call_with_registers(reinterpret_cast<void (*)()>(&__zorva_rtc_CheckStackVars), before);
    after.general[rdx] = before.general[rdx];
    EXPECT_EQ(changed_registers(before, after), std::vector<std::string>{});
    EXPECT_EQ(after.general[r10], before.general[r10]);
    EXPECT_EQ(after.general[r11], before.general[r11]);
  }
}

// ---- Propagated constants

zorvac_cp_value of(float v, std::uint64_t upper = 0) {
  return {std::bit_cast<std::uint32_t>(v) | upper << 32, 7};
}
zorvac_cp_value of(double v) { return {std::bit_cast<std::uint64_t>(v), 7}; }
template <std::integral Integer>
zorvac_cp_value of(Integer first, std::int64_t second = 0) {
  return {static_cast<std::uint64_t>(std::int64_t{first}), static_cast<std::uint64_t>(second)};
}
const float nan32 = std::numeric_limits<float>::quiet_NaN();
const double nan64 = std::numeric_limits<double>::quiet_NaN();

struct constant {
  const char* name;
  std::int32_t kind;
  std::uint32_t type;
  zorvac_cp_value expected, actual;
  std::string text;  // empty: they agree
  std::string kind_name = "FORMAL";
};
const std::string cut_text =  // 64 characters of message 42
    "Zorva(R) Nexil(TM) Duo processors and compatible Zorva processor";
const constant constants[] = {
    {"I32Agrees", 0, 0, of(5, 1), of(5, 2), ""},
    {"I32AllBits", 0, 0, of(5), of(5 + (1L << 32)), "\tI32 5 != 100000005"},
    {"Si32Agrees", 1, 1, of(5), of(5), ""},
    {"Si32", 1, 1, of(5), of(-1), "\tSI32 5 != -1", "RETURN"},
    {"F32LowHalf", 0, 2, of(1.5f, 1), of(1.5f, 2), ""},
    {"F32Zeros", 0, 2, of(0.0f), of(-0.0f), ""},
    {"F32", 2, 2, of(1.5f, 99), of(-2.25f), "\tF32 1.500000 != -2.250000", "GLOBAL"},
    {"F32NaNs", 0, 2, of(nan32), of(nan32), "\tF32 nan != nan"},
    {"I64Agrees", 0, 3, of(1, 2), of(1, 2), ""},
    {"I64First", 0, 3, of(1, 2), of(-1, 2), "\tI64 1:2 != ffffffffffffffff:2"},
    {"I64Second", 0, 3, of(1, 2), of(1, 3), "\tI64 1:2 != 1:3"},
    {"Si64Agrees", 0, 4, of(-1, 2), of(-1, 2), ""},
    {"Si64", 0, 4, of(-1, 2), of(-1, LONG_MIN), "\tSI64 -1:2 != -1:-9223372036854775808"},
    {"F64Agrees", 0, 5, of(-0.0), of(0.0), ""},
    {"F64", 0, 5, of(1e15), of(double{INFINITY}), "\tF64 1000000000000000.000000 != inf"},
    {"F64NaN", 0, 5, of(nan64), of(1.0), "\tF64 nan != 1.000000"},
    {"F64NaNs", 0, 5, of(nan64), of(nan64), "\tF64 nan != nan"},
    {"KindOfAnotherMessage", 38, 1, of(1), of(2), "\tSI32 1 != 2", "No error"},
    {"KindWithConversions", 3, 1, of(1), of(2), "\tSI32 1 != 2", "\tI32 %lx != %lx"},
    {"KindCutAt64", 40, 1, of(1), of(2), "\tSI32 1 != 2", cut_text},
    {"KindOfTheEmptyLine", -2, 1, of(1), of(2), "\tSI32 1 != 2", ""},
    {"KindOfTheLastMessage", 58, 1, of(1), of(2), "\tSI32 1 != 2",
     "Run-Time Check Failure: The variable '%s' is being used in %s wi"},
    {"KindPastTheLast", 59, 1, of(1), of(2), "\tSI32 1 != 2", ""},
    {"KindMost", INT_MAX, 1, of(1), of(2), "\tSI32 1 != 2", ""},
    {"KindLeast", INT_MIN, 1, of(1), of(2), "\tSI32 1 != 2", ""},
};

class Constant : public testing::TestWithParam<constant> {};
INSTANTIATE_TEST_SUITE_P(Checks, Constant, testing::ValuesIn(constants), name_of_row);

TEST_P(Constant, IsComparedAndReportedOnStandardOutput) {
  const constant& c = GetParam();
  const std::string report =
      "Constant propagation error (" + c.kind_name + " substitution):\n" + c.text + "\n";
  EXPECT_EQ(fate_of([&] {
              _IPO_Check_CP(c.kind, c.type, c.expected, c.actual);
              _exit(0);
            }),
            c.text.empty() ? (outcome{"", "", 0, 0}) : failed(report, ""));
}

TEST(Constants, TypesPastTheLastAreRefused) {
  for (const std::uint32_t type : {6u, 7u, UINT_MAX})
    EXPECT_EQ(fate_of([&] { _IPO_Check_CP(0, type, of(1), of(1)); }),
              failed("Bad second argument\n", ""));
}

// Two values that do not fit a message together: the C library ends the process in their place.
TEST(Constants, KindIsNotLostWithValuesTooLongToPrint) {
  const outcome o = fate_of([] { _IPO_Check_CP(0, 5, of(DBL_MAX), of(-DBL_MAX)); });
  EXPECT_EQ(o.standard_output, "Constant propagation error (FORMAL substitution):\n");
  EXPECT_EQ(o.signal, SIGABRT);
}

}  // namespace
