// Tests the results of start-up checks: MXCSR modes, set by the flags word, or a refusal with its
// exact text, stream and exit status, after which exit handlers run. Then tests the messages: the
// built-in texts, the catalogue and its one retry, bounded formatting, streams.
//
// The look-up of messages has state that is set once in a process, so whatever prints runs in its
// own child process.
#include <gtest/gtest.h>
#include <nl_types.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <latch>
#include <regex>
#include <thread>

#include "cpu/features.h"
#include "mem/trace.h"
#include "startup/checks.h"
#include "startup/new_proc_init.h"
#include "startup/proc_init_utils.h"
#include "startup/vrt_msg_support.h"
#include "support/bytes.h"
#include "support/child.h"
#include "zorvac/cpu.h"

// Replaces the C library's routine.
static std::string attempts;  // LANG at each call
static std::function<void()> during_attempt = [] {};
extern "C" nl_catd catopen(const char* name, int flag) {
  const char* lang = std::getenv("LANG");
  attempts += std::string(lang == nullptr ? "unset" : lang) + ' ';
  during_attempt();
  return reinterpret_cast<nl_catd (*)(const char*, int)>(dlsym(RTLD_NEXT, "catopen"))(name, flag);
}

// Replaces the library's routine wherever a check calls it.
extern "C" void __real___zorva_proc_init_ftzdazule(int assumed, int flags);
extern "C" void __wrap___zorva_proc_init_ftzdazule(int assumed, int flags) {
  std::printf("modes are set, assumed %d, flags %d", assumed, flags);
}

namespace {

using namespace zorvac;
using namespace zorvac::startup;
using namespace zorvac::test;

// ---- Setting modes ------------------------------------------------------------------------------

constexpr std::uint32_t daz_bit = mxcsr_bit::denormals_are_zero,
                        bit_17 = mxcsr_bit::misaligned_exceptions_masked;

constexpr std::uint32_t all_modes_set = 0xffc0;  // and all exceptions masked

// The optional modes that are granted, by what is assumed of the processor, by the flags, and by
// the processor's mask of MXCSR bits; and whether the mask is read.
constexpr struct {
  const char* what;
  int assumed, flags;
  std::uint32_t mask;
  int granted, questions;
} grants[] = {
    {"denormals-are-zero is there", nothing, 2, daz_bit, 2, 1},
    {"denormals-are-zero is not", nothing, 3, bit_17, 0, 1},
    {"bit 17 is there", nothing, 4, bit_17, 4, 1},
    {"bit 17 is not", daz, 4, daz_bit, 0, 1},
    {"both are there", nothing, 6, daz_bit | bit_17, 6, 1},
    {"what is assumed is granted", daz, 3, 0, 2, 0},
    {"once asked, the processor decides on both", daz, 6, bit_17, 4, 1},
    {"all is assumed", daz_and_bit_17, 6, 0, 6, 0},
    {"no optional mode is wanted", nothing, ~6, 0, 0, 0},
};
TEST(Modes, AreGrantedByAssumptionOrElseByTheMask) {
  for (const auto& g : grants) {
    int questions = 0;
    const auto mask = [&] { return ++questions, g.mask; };
    EXPECT_EQ(supported_modes(g.assumed, g.flags, mask), g.granted) << g.what;
    EXPECT_EQ(questions, g.questions) << g.what;
  }
}

// The first call leaves its area on the stack full of ones. The second call has its area at the
// same place, and must clear it.
TEST(Modes, AreNotReadFromAnAreaThatNobodyCleared) {
  const auto stores_ones = [](fxsave_image& area) { std::memset(&area, 0xff, sizeof area); };
  const auto stores_nothing = [](fxsave_image& area) {
    EXPECT_ELEMENTS(area.words, std::vector<std::uint32_t>(128));
  };
  EXPECT_EQ(supported_mxcsr_bits(stores_ones), ~0u);
  EXPECT_EQ(supported_mxcsr_bits(stores_nothing), 0u);
}

// On this machine's processor. Modes are set, and none is cleared.
TEST(Modes, AreSetAndTheProcessorAskedOnlyWhereTheTableSaysSo) {
  alignas(16) std::uint32_t image[128] = {};
  __builtin_ia32_fxsave64(image);
  const std::uint32_t supported = image[7];  // the bits that MXCSR has
  for (const auto& g : grants)
    for (const std::uint32_t before : {mxcsr_bit::all_exceptions_masked, all_modes_set}) {
      std::uint32_t modes = (g.flags & 1) != 0 ? mxcsr_bit::flush_to_zero : 0;
      if ((g.flags & 2) != 0) modes |= daz_bit;
      if ((g.flags & 4) != 0) modes |= bit_17;
      if (g.questions != 0) modes &= supported;
      if ((modes & ~supported) != 0) continue;  // assumed but not supported: it would fault
      int fxsaves = 0;
      const auto count = [&](const step& s) { return fxsaves += s.what.starts_with("fxsave"), 0; };
      mxcsr::write(before);
      trace(count, __real___zorva_proc_init_ftzdazule, g.assumed, g.flags);
      const std::uint32_t after = mxcsr::read();
      mxcsr::write(mxcsr_bit::all_exceptions_masked);
      EXPECT_EQ(after, before | modes) << g.what;
      EXPECT_EQ(fxsaves, g.questions) << g.what;
    }
}

// ---- Checks -------------------------------------------------------------------------------------

const auto built_in = [](int message) { return std::string(vrt_msgtab[message].text); };

// A check on a processor with the features of `indicator`.
outcome start(std::uint64_t indicator, const std::function<void()>& check) {
  return run_in_child([&] {
    std::atexit([] { std::printf("exit handler ran"); });
    __zorva_cpu_feature_indicator = indicator;
    check();
  });
}
const outcome nothing_done{"", "", 0, 0};
outcome modes_set(int assumed, int flags) {
  return {"modes are set, assumed " + std::to_string(assumed) + ", flags " + std::to_string(flags),
          "", 0, 0};
}
outcome refused(const std::string& why) { return {"exit handler ran", "\n" + why + "\n\n", 1, 0}; }

TEST(Letters, SetTheModesByWhatTheyAssume) {
  for (const check& c : checks)
    for (const variant& v : c.variants)
      for (const int flags : {0, 1, 2, 3, 4, 5, 6, 7})
        EXPECT_EQ(start(level::generic, [&] { routine(c.name + v.letter)(flags); }),
                  modes_set(v.assumes, effective(c, flags)))
            << c.name << v.letter << " with flags " << flags;
}

// Messages 42 to 48 describe a processor, 50 to 52 what a system must support.
TEST(Letters, RefuseOrIgnoreWhatTheyDoNotTake) {
  for (const check& c : checks) {
    outcome expected = nothing_done;
    if (c.refusal >= 50)
      expected = refused(built_in(49) + '\n' + built_in(c.refusal));
    else if (c.refusal != 0)
      expected =
          refused(built_in(23) + "\nThe allowed processors are: " + built_in(c.refusal) + '.');
    EXPECT_EQ(start(level::generic, [&] { routine(c.name + ".A")(7); }), expected) << c.name;
  }
}

// Nothing is assumed. A processor without SSE has no MXCSR to set.
TEST(FeatureMask, SetsTheModesOrNamesWhatIsMissing) {
  const outcome misfit = refused(built_in(58));  // of a program and a library
  const auto lacks = [](const std::string& names) {
    return refused("Please verify that both the operating system and the processor support " +
                   ("Zorva(R) " + names) + " instructions.");
  };
  constexpr std::uint64_t bit_25 = 1ul << 25, bit_40 = 1ul << 40, bit_63 = 1ul << 63;
  const struct {
    std::uint64_t indicator, required;
    outcome expected;
  } rows[] = {// clang-format off
      {level::sse2, level::sse2, modes_set(nothing, 5)},
      {level::sse2, mask_of("X87, SSE2"), modes_set(nothing, 5)},
      {level::sse2 ^ mask_of("SSE"), mask_of("X87, SSE2"), nothing_done},
      {level::sse2, mask_of("SSE2, SSE3"), lacks("SSE3")},
      {level::generic, mask_of("AVX, AVX2"), lacks("AVX and AVX2")},
      {level::generic, mask_of("X87, SSE3, FMA, AVX512DQ, AVX512VBMI"),
       lacks("X87, SSE3, FMA, AVX512DQ and AVX512VBMI")},
      {level::avx2, mask_of("QRTNI"), lacks("QRTNI")},  // is never detected
      {level::sse2, level::sse3, misfit},               // with bit 0
      {level::sse2, mask_of("SSE3") | bit_25, misfit},  // a bit without a name
      {level::sse2, bit_40 | bit_63, misfit},           // only unknown bits
      {level::sse2, bit_63 | mask_of("SSE3"), lacks("SSE3")}};
  // clang-format on
  for (const auto& r : rows)
    EXPECT_EQ(start(r.indicator, [&] { __zorva_new_feature_proc_init(5, r.required); }), r.expected)
        << std::hex << "indicator " << r.indicator << ", required " << r.required;
  EXPECT_EQ(start(0, [] { __zorva_new_feature_proc_init(0, mask_of("QRTNI")); }), lacks("QRTNI"))
      << "it detects first";
}

// A catalogue may hold a separator of any length. A name is appended only if the list, the pending
// name, the separator, the next name and ", " together are below 1024 bytes. Here they are 12 bytes
// and the separator.
TEST(FeatureMask, ListDropsItsLastNamesAfterALongSeparator) {
  const auto plus = [](std::size_t length) { return std::string(length, '+'); };
  const std::pair<std::string, std::string> rows[] = {
      {plus(1011), "X87, CMOV" + plus(1011) + "MMX"},
      {plus(1012), "X87" + plus(1012) + "CMOV"},
      {plus(5000), "X87" + plus(1020)}};
  for (const auto& [separator, expected] : rows) {
    feature_list list;
    EXPECT_TRUE(list_features(mask_of("X87, CMOV, MMX"), separator.c_str(), list));
    EXPECT_EQ(list.c_str(), expected);
  }
}

// ---- Messages -----------------------------------------------------------------------------------

// The published messages: number, category, text with escapes.
TEST(Messages, AreThePublishedOnes) {
  std::ifstream file(MESSAGES);
  int number = 0, category = 0, rows = 0;
  std::string text;
  for (; file >> number >> category >> std::quoted(text, '"', '^'); ++rows) {
    text = std::regex_replace(text, std::regex("\\\\n"), "\n");
    text = std::regex_replace(text, std::regex("\\\\t"), "\t");
    ASSERT_EQ(number, rows);
    EXPECT_EQ(vrt_msgtab[number].number, number);
    EXPECT_EQ(vrt_msgtab[number].category, category) << "of message " << number;
    EXPECT_EQ(vrt_msgtab[number].text, text) << "message " << number;
  }
  EXPECT_EQ(rows, message_count);
}

TEST(Messages, NameFeatures) {
  EXPECT_STREQ(c_feature_names[0], "");
  for (const feature& f : features)
    EXPECT_EQ(std::string_view(c_feature_names[f.indicator_bit + 1]), f.name)
        << "bit " << f.indicator_bit;
}

// Message 0, the end of a line, has no text and needs no catalogue. A message is formatted only if
// it has arguments. The result is then the format of a print, so percent signs in it count again.
// Any stream but 1 is standard output.
TEST(Messages, AreFormattedAndGoToTheStreamAsked) {
  const outcome o = run_in_child([] {
    __libvrt_print(to_standard_error, 0, 0);
    std::printf("[%s%s]\n", __libvrt_get_msg(0, 0), attempts.c_str());
    __libvrt_print(1, 53, 1, "100%%");
    __libvrt_print(1, 10, 2, 1.5, -2.25);
    __libvrt_print(2, 40, 0);
    std::printf("%s|", __libvrt_get_msg(24, 1, "none"));
    std::printf("%s", __libvrt_get_msg(24, -1));
  });
  EXPECT_EQ(o, (outcome{"[]\nNo error\n"
                        "The allowed processors are: none.|The allowed processors are: %s.",
                        "\nBoundary Run-Time Check Failure for variable '100%'\n"
                        "\tF64 1.500000 != -2.250000\n",
                        0, 0}));
}

// 511 characters fit. One more ends the process, as the C library does on a buffer overflow.
TEST(Messages, OverflowEndsTheProcess) {
  const std::string longest(482, 'x'), longer = longest + 'x';
  const std::tuple<std::string, int, std::string> rows[] = {
      {longest, 0, "The allowed processors are: " + longest + ".\n"}, {longer, SIGABRT, ""}};
  for (const auto& [name, signal, printed] : rows) {
    const char* text = name.c_str();
    const outcome print = run_in_child([=] { __libvrt_print(2, 24, 1, text); });
    const outcome get = run_in_child([=] { std::puts(__libvrt_get_msg(24, 1, text)); });
    for (const outcome& o : {print, get}) {
      EXPECT_EQ(o.signal, signal);
      EXPECT_EQ(o.standard_output, printed);
    }
  }
}

// Prints messages 26 and 54 twice with a value of LANG, then LANG at each attempt and at the end.
outcome look_up(const std::string& lang) {
  return run_in_child([&] {
    lang == "unset" ? unsetenv("LANG") : setenv("LANG", lang.c_str(), 1);
    for (const int number : {26, 54, 26, 54}) __libvrt_print(to_standard_error, number, 0);
    catopen("", 0);
    std::printf("%s", attempts.c_str());
  });
}

// The catalogues have only messages 26 and 27, and are made by the system's own tool. A missing
// message comes from the table; all do where there is no catalogue, or another file at its place. A
// second attempt, without the codeset, is made only for a LANG with a codeset and only where the
// first attempt failed. Only the first 127 characters of LANG count, including its dot.
TEST(Catalogues, AreFoundByLanguage) {
  std::string folder = testing::TempDir() + "zorvac-catalogue-XXXXXX";
  ASSERT_NE(mkdtemp(folder.data()), nullptr);
  setenv("NLSPATH", (folder + "/%L-%N").c_str(), 1);
  const auto file = [&](const std::string& lang) { return folder + '/' + lang + "-vrt_msg.cat"; };
  std::ofstream(file("text")) << "$set 1\n26 Fehler 26\n27 Fehler 27\n";
  const std::string l126(126, 'l');
  for (const std::string& lang : {std::string("tlh"), std::string("both.8"), l126})
    ASSERT_EQ(run_program({"gencat", file(lang), file("text")}), (outcome{"", "", 0, 0}));
  const std::tuple<std::string, std::string, bool> rows[] = {
      // LANG, second attempt, found
      {"tlh.a.b", "tlh ", true},
      {"both.8", "", true},
      {"unset", "", false},
      {"text", "", false},
      {"none.UTF-8", "none ", false},
      {l126 + std::string(300, '.'), l126 + ' ', true},
      {std::string(127, 'l') + ".UTF-8", "", false},
      {std::string(4000, 'l'), "", false}};
  for (const auto& [lang, second, found] : rows) {
    const std::string lines = (found ? "Fehler 26" : built_in(26)) + '\n' + built_in(54) + '\n';
    EXPECT_EQ(look_up(lang), (outcome{lang + ' ' + second + lang + ' ', lines + lines, 0, 0}));
  }

  // The C library opens many truncated catalogues without an error. A text that is missing comes
  // from the table. Of a text that was cut in the middle the rest is printed, because nothing shows
  // that it was cut.
  for (auto length = std::filesystem::file_size(file("tlh")); length-- > 0;) {
    std::filesystem::resize_file(file("tlh"), length);
    const outcome o = look_up("tlh");
    const std::string first = o.standard_error.substr(0, o.standard_error.find('\n'));
    const bool begins = !first.empty() && std::string("Fehler 26").starts_with(first);
    EXPECT_EQ(o.exit_status, 0) << length << o;
    if (!begins) {
      EXPECT_EQ(first, built_in(26)) << length;
    }
  }
  std::filesystem::remove_all(folder);
}

// If another thread is in the first or second attempt during a fork, the child makes both attempts
// itself, with the original LANG, which it also has afterwards. The parent's thread is not
// affected.
TEST(Catalogues, AreOpenedAgainInAChildForkedDuringTheirOpening) {
  for (const std::string amid : {"none.UTF-8 ", "none.UTF-8 none "}) {
    const outcome o = run_in_child([&] {
      setenv("LANG", "none.UTF-8", 1);
      std::latch reached(1), forked(1);
      during_attempt = [&] {
        if (attempts != amid) return;
        reached.count_down();
        forked.wait();
      };
      std::thread printing([] { __libvrt_print(to_standard_error, 26, 0); });
      reached.wait();
      const outcome child = run_in_child([] {
        during_attempt = [] {};
        attempts.clear();
        __libvrt_print(to_standard_error, 54, 0);
        std::printf("child: %sLANG %s", attempts.c_str(), std::getenv("LANG"));
      });
      forked.count_down();
      printing.join();
      std::printf("%s\nparent: %s", child.standard_output.c_str(), attempts.c_str());
      std::fprintf(stderr, "%s", child.standard_error.c_str());
    });
    EXPECT_EQ(o, (outcome{"child: none.UTF-8 none LANG none.UTF-8\n"
                          "parent: none.UTF-8 none ",
                          std::string(built_in(26)) + '\n' + built_in(54) + '\n', 0, 0}))
        << "forked amid " << amid;
  }
}

}  // namespace
