// Messages: the built-in texts, the catalogue and its one retry, bounded formatting, streams.
//
// Look-up has state that is set once a process, so every case runs in a child of its own.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <nl_types.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "startup/vrt_msg_support.h"
#include "support/child.h"
#include "support/hash.h"

namespace {
std::string attempts;  // LANG at each
std::string language() {
  const char* lang = std::getenv("LANG");
  return lang == nullptr ? "unset" : lang;
}
}  // namespace

// Stands before the C library's routine.
extern "C" nl_catd catopen(const char* name, int flag) {
  attempts += language() + ' ';
  return reinterpret_cast<nl_catd (*)(const char*, int)>(dlsym(RTLD_NEXT, "catopen"))(name, flag);
}

namespace {

using namespace zorvac::startup;
using namespace zorvac::test;

// The 61 entries as the catalogues and their companion tools know them: by the FNV-1a hash of
// "number category text;" of each in turn.
TEST(Messages, AreTheCatalogues) {
  std::string text;
  for (const table_entry& entry : vrt_msgtab)
    text += std::to_string(entry.number) + ' ' + std::to_string(entry.category) + ' ' + entry.text +
            ';';
  EXPECT_EQ(fnv_1a(text), 0x63cc'd20a'54e3'a0c5u);
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
    __libvrt_print(1, 9, 4, -1L, 2L, 3L, 4L);
    __libvrt_print(2, 40, 0);
    __libvrt_print(0, 54, -1);
    std::printf("%s|", __libvrt_get_msg(24, 1, "none"));
    std::printf("%s", __libvrt_get_msg(24, -1));
  });
  EXPECT_EQ(o, (outcome{"[]\nNo error\nBoundary Run-Time Check Failure\n"
                        "The allowed processors are: none.|The allowed processors are: %s.",
                        "\nBoundary Run-Time Check Failure for variable '100%'\n"
                        "\tF64 1.500000 != -2.250000\n\tSI64 -1:2 != 3:4\n",
                        0, 0}));
}

// 511 characters fit; one more ends the process as the C library ends one on a buffer overflow.
TEST(Messages, OverflowEndsTheProcess) {
  const std::string text = "The allowed processors are: ", fits(510 - text.size(), 'x');
  for (const std::string& name : {fits, fits + 'x'}) {
    const auto print = run_in_child([&] { __libvrt_print(2, 24, 1, name.c_str()); });
    const auto get = run_in_child([&] { std::puts(__libvrt_get_msg(24, 1, name.c_str())); });
    for (const outcome& o : {print, get}) {
      EXPECT_EQ(o.signal, name == fits ? 0 : SIGABRT);
      EXPECT_EQ(o.standard_output, name == fits ? text + name + ".\n" : "");
    }
  }
}

constexpr const char* text_26 = "Error:  Buffer overrun occurred, forced exit";

// Prints messages 26 and 54 twice under a LANG, and LANG at each attempt and in the end.
outcome look_up(const std::string& lang) {
  return run_in_child([&] {
    lang == "unset" ? unsetenv("LANG") : setenv("LANG", lang.c_str(), 1);
    for (const int number : {26, 54, 26, 54}) __libvrt_print(to_standard_error, number, 0);
    std::printf("%s%s", attempts.c_str(), language().c_str());
  });
}

// Catalogues of messages 26 and 27 alone, made by the system's own tool: what is missing comes from
// the table, and all of it where there is none, or something else in its place. Only a LANG with a
// codeset is tried again, without it, and only where the first attempt failed. Of LANG 127
// characters count, its point among them.
TEST(Catalogues, AreFoundByLanguage) {
  std::string folder = testing::TempDir() + "zorvac-catalogue-XXXXXX";
  ASSERT_NE(mkdtemp(folder.data()), nullptr);
  setenv("NLSPATH", (folder + "/%L/%N").c_str(), 1);
  std::ofstream(folder + "/source") << "$set 1\n26 Fehler 26\n27 Fehler 27\n";
  const std::string l126(126, 'l'), l127(127, 'l'), cut = folder + "/cut/vrt_msg.cat";
  for (const std::string lang : {"tlh", "both", "both.8", "cut", l126.c_str()}) {
    std::filesystem::create_directory(folder + '/' + lang);
    const auto made =
        run_program({GENCAT, folder + '/' + lang + "/vrt_msg.cat", folder + "/source"});
    ASSERT_EQ(made.exit_status, 0) << made;
  }
  std::filesystem::create_directories(folder + "/folder/vrt_msg.cat");
  std::filesystem::create_directory(folder + "/text");
  std::ofstream(folder + "/text/vrt_msg.cat") << std::string(5000, 'x');
  const struct {
    std::string lang;
    bool found;
    std::string second_attempt = "";
  } rows[] = {{"tlh", true},
              {"tlh.UTF-8", true, "tlh "},
              {"tlh.a.b", true, "tlh "},
              {"both.8", true},
              {"unset", false},
              {"text", false},
              {"folder", false},
              {"none", false},
              {"none.UTF-8", false, "none "},
              {l126 + ".", true, l126 + " "},
              {l126 + std::string(300, '.'), true, l126 + " "},
              {l127 + ".UTF-8", false},
              {std::string(4000, 'l'), false}};
  for (const auto& r : rows) {
    std::string lines = r.found ? "Fehler 26" : text_26;
    lines += "\nBoundary Run-Time Check Failure\n";
    EXPECT_EQ(look_up(r.lang),
              (outcome{r.lang + ' ' + r.second_attempt + r.lang, lines + lines, 0, 0}));
  }

  // The C library opens many a truncated catalogue without complaint. A text that is gone comes
  // from the table; of one that was cut in the middle what is left is printed, which nobody can
  // tell.
  for (auto length = std::filesystem::file_size(cut); length-- > 0;) {
    std::filesystem::resize_file(cut, length);
    const outcome o = look_up("cut");
    const std::string first = o.standard_error.substr(0, o.standard_error.find('\n'));
    EXPECT_EQ(o.exit_status, 0) << length;
    EXPECT_TRUE(first == text_26 || (!first.empty() && std::string("Fehler 26").starts_with(first)))
        << first;
  }
  std::filesystem::remove_all(folder);
}

}  // namespace
