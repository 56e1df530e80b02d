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
    __libvrt_print(1, 53, 1, "counter");
    __libvrt_print(1, 53, 1, "100%%");
    __libvrt_print(1, 10, 2, 1.5, -2.25);
    __libvrt_print(1, 9, 4, -1L, 2L, 3L, 4L);
    __libvrt_print(1, 26, -1);
    __libvrt_print(2, 40, 0);
    __libvrt_print(0, 54, 0);
    std::printf("%s|", __libvrt_get_msg(24, 1, "none"));
    std::printf("%s", __libvrt_get_msg(24, 0));
  });
  EXPECT_EQ(o.standard_output,
            "[]\n"
            "No error\n"
            "Boundary Run-Time Check Failure\n"
            "The allowed processors are: none.|The allowed processors are: %s.");
  EXPECT_EQ(o.standard_error,
            "\n"
            "Boundary Run-Time Check Failure for variable 'counter'\n"
            "Boundary Run-Time Check Failure for variable '100%'\n"
            "\tF64 1.500000 != -2.250000\n"
            "\tSI64 -1:2 != 3:4\n"
            "Error:  Buffer overrun occurred, forced exit\n");
}

// 511 characters fit; one more ends the process as the C library ends one on a buffer overflow.
TEST(Messages, OverflowEndsTheProcess) {
  for (const bool fits : {true, false}) {
    const std::string text = "The allowed processors are: ";
    const std::string name((fits ? 510 : 511) - text.size(), 'x');
    const auto print = run_in_child([&] { __libvrt_print(2, 24, 1, name.c_str()); });
    const auto get = run_in_child([&] { std::puts(__libvrt_get_msg(24, 1, name.c_str())); });
    for (const outcome& o : {print, get}) {
      EXPECT_EQ(o.signal, fits ? 0 : SIGABRT);
      EXPECT_EQ(o.standard_output, fits ? text + name + ".\n" : "");
    }
  }
}

// Catalogues, made by the system's own tool, of messages 26 and 27 alone.
class Catalogues : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = testing::TempDir() + "zorvac-catalogue-XXXXXX";
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    folder_ = name;
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  [[nodiscard]] std::string write(const std::string& lang) {
    std::filesystem::create_directory(folder_ / lang);
    std::ofstream(folder_ / "source") << "$set 1\n26 Fehler 26\n27 Fehler 27\n";
    std::string path = folder_ / lang / "vrt_msg.cat";
    EXPECT_EQ(run_program({GENCAT, path, folder_ / "source"}).exit_status, 0);
    return path;
  }
  // Prints messages 26 and 54 twice, and LANG at each attempt and in the end.
  outcome look_up(const std::string& lang) {
    return run_in_child([&] {
      setenv("NLSPATH", (folder_ / "%L" / "%N").c_str(), 1);
      lang == "unset" ? unsetenv("LANG") : setenv("LANG", lang.c_str(), 1);
      for (const int number : {26, 54, 26, 54}) __libvrt_print(to_standard_error, number, 0);
      std::printf("%s%s", attempts.c_str(), language().c_str());
    });
  }
  std::filesystem::path folder_;
};
constexpr const char* text_26 = "Error:  Buffer overrun occurred, forced exit";

// Texts that are missing come from the table. Only a LANG with a codeset is tried again, without
// it, and only where the first attempt failed. Of LANG 127 characters count, its point among them.
TEST_F(Catalogues, AreFoundByLanguage) {
  const std::string l126(126, 'l'), l127(127, 'l');
  for (const std::string& lang :
       {std::string("tlh"), std::string("both"), std::string("both.8"), l126})
    (void)write(lang);
  std::filesystem::create_directories(folder_ / "folder/vrt_msg.cat");
  std::filesystem::create_directory(folder_ / "text");
  std::ofstream(folder_ / "text/vrt_msg.cat") << std::string(5000, 'x');
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
    const std::string lines =
        (r.found ? "Fehler 26" : text_26) + std::string("\nBoundary Run-Time Check Failure\n");
    EXPECT_EQ(look_up(r.lang),
              (outcome{r.lang + " " + r.second_attempt + r.lang, lines + lines, 0, 0}));
  }
}

// The C library opens many a truncated catalogue without complaint. A text that is gone comes from
// the table; of one that was cut in the middle what is left is printed, which nobody can tell.
TEST_F(Catalogues, TruncatedOnesGiveTheBuiltInTexts) {
  const std::string path = write("cut"), text = "Fehler 26";
  for (auto length = std::filesystem::file_size(path); length-- > 0;) {
    std::filesystem::resize_file(path, length);
    const outcome o = look_up("cut");
    const std::string first = o.standard_error.substr(0, o.standard_error.find('\n'));
    EXPECT_EQ(o.exit_status, 0) << length;
    EXPECT_TRUE(first == text_26 || (!first.empty() && text.starts_with(first))) << first;
  }
}

}  // namespace
