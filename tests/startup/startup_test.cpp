// What a start-up check ends in: the MXCSR modes of its flags word, or a refusal with its exact
// text, stream and exit status, and with exit handlers run. Then the messages that refusals are
// made of: the built-in texts, the catalogue and its one retry, bounded formatting, streams.
//
// Look-up has state that is set once a process, so whatever prints runs in a child of its own.
#include <gtest/gtest.h>
#include <nl_types.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <latch>
#include <thread>

#include "startup/checks.h"
#include "startup/new_proc_init.h"
#include "startup/proc_init_utils.h"
#include "startup/vrt_msg_support.h"
#include "support/child.h"
#include "support/hash.h"
#include "zorvac/cpu.h"

// Stands before the C library's routine.
static std::string attempts;  // LANG at each
static std::function<void()> during_attempt = [] {};
extern "C" nl_catd catopen(const char* name, int flag) {
  const char* lang = std::getenv("LANG");
  attempts += std::string(lang == nullptr ? "unset" : lang) + ' ';
  during_attempt();
  return reinterpret_cast<nl_catd (*)(const char*, int)>(dlsym(RTLD_NEXT, "catopen"))(name, flag);
}

namespace {

using namespace zorvac;
using namespace zorvac::startup;
using namespace zorvac::test;

// Where all that is wanted is known, it is granted unasked; one bit that is not makes the probe,
// and the probe decides on both, against what is known. A mask of zero supports nothing.
TEST(Modes, AreGrantedAndTheProcessorAskedOnlyWhenItMatters) {
  for (const int known : {0, 2, 4, 6})
    for (const int flags : {0, 1, 2, 4, 6, ~0})
      for (const std::uint32_t mask : {0u, 0x40u, 0x20000u, 0x20040u}) {
        int questions = 0;
        const int granted = supported_modes(known, flags, [&] { return ++questions, mask; });
        const int wanted = flags & 6, supported = (mask & 0x40 ? 2 : 0) | (mask & 0x20000 ? 4 : 0);
        const bool asks = (known | wanted) != known;
        EXPECT_EQ(granted, asks ? wanted & supported : wanted) << known << ' ' << mask;
        EXPECT_EQ(questions, asks) << known << ' ' << mask;
      }
}

// The first call leaves its area full of ones where the second finds its own, which is to be clear.
TEST(Modes, AreNotReadFromAnAreaThatNobodyCleared) {
  const auto stores_ones = [](fxsave_image& area) { std::memset(&area, 0xff, sizeof area); };
  const auto stores_nothing = [](fxsave_image& area) {
    for (const std::uint32_t word : area.words) EXPECT_EQ(word, 0u);
  };
  EXPECT_EQ(supported_mxcsr_bits(stores_ones), ~0u);
  EXPECT_EQ(supported_mxcsr_bits(stores_nothing), 0u);
}

const auto built_in = [](int message) { return std::string(vrt_msgtab[message].text); };

// A check on a processor with the features of `indicator`, with the modes all clear and all set.
outcome start(std::uint64_t indicator, const std::function<void()>& check) {
  return run_in_child([&] {
    std::atexit([] { std::printf("exit handler ran"); });
    for (const std::uint32_t before : {0x1f80u, 0xffc0u}) {
      __zorva_cpu_feature_indicator = indicator;
      mxcsr::write(before);
      check();
      std::printf("%u ", mxcsr::read());
    }
  });
}
outcome started(std::uint32_t modes) {
  return {std::to_string(0x1f80 | modes) + ' ' + std::to_string(0xffc0 | modes) + ' ', "", 0, 0};
}
outcome refused(const std::string& why) { return {"exit handler ran", "\n" + why + "\n\n", 1, 0}; }

// Every processor that runs these tests has denormals-are-zero, so accepting variants differ only
// in where their flags come from. Message 42 to 48 describes a processor, 50 to 52 what a system
// must support.
TEST(Letters, SetTheModesOrRefuse) {
  for (const check& c : checks) {
    const auto variant = [&](const std::string& letter, int flags) {
      return start(1, [&] { reinterpret_cast<void (*)(int)>(routine(c.name + letter))(flags); });
    };
    for (const auto& [mask, letter] : c.variants)
      for (const int flags : {0, 1, 2, 3}) {
        const int set = c.name.starts_with("__zorva_new") ? flags : 3;
        EXPECT_EQ(variant(letter, flags), started((set & 1 ? 0x8000 : 0) | (set & 2 ? 0x40 : 0)))
            << c.name << letter << flags;
      }
    const std::string why =
        c.refusal < 50 ? built_in(23) + "\nThe allowed processors are: " + built_in(c.refusal) + '.'
                       : built_in(49) + '\n' + built_in(c.refusal);
    EXPECT_EQ(variant(".A", 3), c.refusal == 0 ? started(0) : refused(why)) << c.name;
  }
}

// The processor is asked for its modes, except for one without SSE, which has no MXCSR to set.
TEST(FeatureMask, SetsTheModesOrNamesWhatIsMissing) {
  alignas(16) std::uint32_t image[128] = {};
  __builtin_ia32_fxsave64(image);  // word 7: the bits that MXCSR has
  const outcome set = started(0x8000 | (image[7] & 0x20000));
  const outcome misfit = refused(built_in(58));  // of a program and a library
  const auto lacks = [](const std::string& features) {
    return refused("Please verify that both the operating system and the processor support " +
                   ("Zorva(R) " + features) + " instructions.");
  };
  constexpr std::uint64_t bit_63 = 1ul << 63;
  const std::tuple<std::uint64_t, std::uint64_t, outcome> rows[] = {
      {0x7f, 0x7f, set},
      {0x7f, 0x7e, set},
      {0x5f, 0x5f, started(0)},
      {0x7f, 0xfe, lacks("SSE3")},
      {1, 0x810000, lacks("AVX and AVX2")},
      {1, 0x58000, lacks("F16C, AVX and FMA")},
      {1, 0x8001040082, lacks("X87, SSE3, FMA, AVX512DQ and AVX512VBMI")},
      {0x9d97ff, 0x4000000, lacks("QRTNI")},  // is never detected
      {0x7f, 0xff, misfit},                   // with bit 0
      {0x7f, 0x2000080, misfit},              // a bit without a name
      {0x7f, bit_63 | bit_63 >> 23, misfit},  // unknown bits, and besides
      {0x7f, bit_63 | 0x80, lacks("SSE3")}};
  for (const auto& [indicator, required, expected] : rows) {
    const auto check = [mask = required] { __zorva_new_feature_proc_init(5, mask); };
    EXPECT_EQ(start(indicator, check), expected) << std::hex << indicator << ' ' << required;
  }
  EXPECT_EQ(start(0, [] { __zorva_new_feature_proc_init(0, 0); }), started(0));  // detects
}

// A catalogue may hold a separator of any length. A name is appended only while the list, the held
// name, the separator, the next name and ", " together stay below 1024 bytes: here, 12 bytes and
// the separator.
TEST(FeatureMask, ListDropsItsLastNamesAfterALongSeparator) {
  for (const std::size_t length : {1011u, 1012u, 5000u}) {
    const std::string separator(length, '+');
    feature_list list;
    EXPECT_TRUE(list_features(2 | 4 | 8, separator.c_str(), list));
    EXPECT_EQ(list.c_str(), length == 1011 ? "X87, CMOV" + separator + "MMX"
                                           : ("X87" + separator + "CMOV").substr(0, 1023));
  }
}

// The 61 entries as the catalogues and their companion tools know them, "number category text;" of
// each in turn, and "name;" of each feature: by their FNV-1a hash.
TEST(Messages, AreTheCatalogues) {
  std::string all;
  for (const auto& [number, category, text] : vrt_msgtab)
    all += std::to_string(number) + ' ' + std::to_string(category) + ' ' + text + ';';
  for (const char* name : c_feature_names) (all += name) += ';';
  EXPECT_EQ(fnv_1a(all), 0x207a'1005'4d75'fae2u);
}

// The end of a line needs no catalogue, nor has it a text. Formatted only with arguments; the
// formatted text is the format of the print that follows, which takes per-cent signs for its own.
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

// 511 characters fit; one more ends the process as the C library ends one on a buffer overflow.
TEST(Messages, OverflowEndsTheProcess) {
  for (const bool fits : {true, false}) {
    const std::string name(fits ? 482 : 483, 'x');
    const auto print = run_in_child([&] { __libvrt_print(2, 24, 1, name.c_str()); });
    const auto get = run_in_child([&] { std::puts(__libvrt_get_msg(24, 1, name.c_str())); });
    for (const outcome& o : {print, get}) {
      EXPECT_EQ(o.signal, fits ? 0 : SIGABRT);
      EXPECT_EQ(o.standard_output, fits ? "The allowed processors are: " + name + ".\n" : "");
    }
  }
}

// Prints messages 26 and 54 twice under a LANG, then LANG at each attempt and in the end.
outcome look_up(const std::string& lang) {
  return run_in_child([&] {
    lang == "unset" ? unsetenv("LANG") : setenv("LANG", lang.c_str(), 1);
    for (const int number : {26, 54, 26, 54}) __libvrt_print(to_standard_error, number, 0);
    catopen("", 0);
    std::printf("%s", attempts.c_str());
  });
}

// Catalogues of messages 26 and 27 alone, made by the system's own tool: what is missing comes from
// the table, and all of it where there is none, or something else in its place. Only a LANG with a
// codeset is tried again, without it, and only where the first attempt failed. Of LANG 127
// characters count, its point among them.
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

  // The C library opens many a truncated catalogue without complaint. A text that is gone comes
  // from the table; of one that was cut in the middle what is left is printed, which nobody can
  // tell.
  for (auto length = std::filesystem::file_size(file("tlh")); length-- > 0;) {
    std::filesystem::resize_file(file("tlh"), length);
    const outcome o = look_up("tlh");
    const std::string first = o.standard_error.substr(0, o.standard_error.find('\n'));
    const bool begins = !first.empty() && std::string("Fehler 26").starts_with(first);
    EXPECT_TRUE(o.exit_status == 0 && (first == built_in(26) || begins)) << length << o;
  }
  std::filesystem::remove_all(folder);
}

// Where another thread is in the first or second attempt, a child of fork makes both attempts itself,
// with the LANG of before, which it has again afterwards. The parent's thread goes on as if nothing had been.
TEST(Catalogues, AreOpenedAnewInAChildOfForkAmidTheirOpening) {
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
