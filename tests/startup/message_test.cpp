// Messages: the built-in texts, the catalogue and its one retry, bounded formatting, streams.
//
// Look-up has state that is set once a process, so every case runs in a child of its own.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <nl_types.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "startup/vrt_msg_support.h"
#include "support/child.h"
#include "support/hash.h"

namespace {
int open_attempts;
std::string languages;  // LANG at each attempt

std::string language() {
  const char* lang = std::getenv("LANG");
  return lang == nullptr ? "(unset)" : lang;
}
}  // namespace

// Stands before the C library's routine and counts.
extern "C" nl_catd catopen(const char* name, int flag) {
  ++open_attempts;
  languages += language() + ";";
  return reinterpret_cast<nl_catd (*)(const char*, int)>(dlsym(RTLD_NEXT, "catopen"))(name, flag);
}

namespace {

using namespace zorvac::startup;
using namespace zorvac::test;

// The 61 entries as the catalogues and their companion tools know them: by the FNV-1a hash of
// "number category text;" of each in turn.
TEST(MessageTable, IsTheCatalogues) {
  std::string text;
  for (const table_entry& entry : vrt_msgtab)
    text += std::to_string(entry.number) + ' ' + std::to_string(entry.category) + ' ' + entry.text +
            ';';
  EXPECT_EQ(fnv_1a(text), 0x63cc'd20a'54e3'a0c5u);
}

// The end of a line needs no catalogue, nor has it a text. Formatted only with arguments; the formatted text is the format of the print that follows, which
// takes per-cent signs for its own. Any stream but 1 is standard output.
TEST(Messages, AreFormattedAndGoToTheStreamAsked) {
  const outcome o = run_in_child([] {
    __libvrt_print(to_standard_error, 0, 0);
    std::printf("[%s] %d\n", __libvrt_get_msg(0, 0), open_attempts);
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
            "[] 0\n"
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
  const std::size_t fixed = std::string("The allowed processors are: .").size();
  for (const std::size_t excess : {0u, 1u}) {
    const std::string name(511 - fixed + excess, 'x');
    const auto print = run_in_child([&] { __libvrt_print(2, 24, 1, name.c_str()); });
    const auto get = run_in_child([&] { std::puts(__libvrt_get_msg(24, 1, name.c_str())); });
    for (const outcome& o : {print, get}) {
      EXPECT_EQ(o.signal, excess == 0 ? 0 : SIGABRT);
      EXPECT_EQ(o.standard_output,
                excess == 0 ? "The allowed processors are: " + name + ".\n" : "");
    }
  }
}

// A folder with catalogues, made by the system's own tool.
class Catalogues : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = testing::TempDir() + "zorvac-catalogue-XXXXXX";
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    folder_ = name;
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  // Puts a catalogue in place for a language, from lines "number text".
  void write(const std::string& language, const std::string& lines) {
    std::filesystem::create_directory(folder_ / language);
    std::ofstream(folder_ / "source") << "$set 1\n" << lines;
    const outcome o = run_program({GENCAT, path(language).string(), (folder_ / "source").string()});
    ASSERT_EQ(o.exit_status, 0) << o.standard_error;
  }
  [[nodiscard]] std::filesystem::path path(const std::string& language) const {
    return folder_ / language / "vrt_msg.cat";
  }
  // Prints messages 26 and 54 twice under a LANG (null: unset), then what became of LANG.
  outcome look_up(const char* lang) {
    return run_in_child([&] {
      setenv("NLSPATH", (folder_ / "%L" / "%N").c_str(), 1);
      unsetenv("LANG");
      if (lang != nullptr) setenv("LANG", lang, 1);
      for (const int number : {26, 54, 26, 54}) __libvrt_print(to_standard_error, number, 0);
      std::printf("%d %s", open_attempts, languages.c_str());
      if (language() != (lang == nullptr ? "(unset)" : lang)) std::printf(" LANG changed");
    });
  }

  static outcome printed(const std::string& attempts, std::string first, std::string second) {
    const std::string once = std::move(first) + "\n" + std::move(second) + "\n";
    return {attempts, once + once, 0, 0};
  }
  static constexpr const char* text_26 = "Error:  Buffer overrun occurred, forced exit";
  static constexpr const char* text_54 = "Boundary Run-Time Check Failure";

  std::filesystem::path folder_;
};

// Texts that are missing come from the table. Only a LANG with a codeset is tried again, without
// it, and only where the first attempt failed.
TEST_F(Catalogues, AreFoundByLanguage) {
  write("tlh", "26 Fehler 26\n");
  EXPECT_EQ(look_up("tlh"), printed("1 tlh;", "Fehler 26", text_54));
  EXPECT_EQ(look_up("tlh_QO"), printed("1 tlh_QO;", text_26, text_54));
  EXPECT_EQ(look_up(nullptr), printed("1 (unset);", text_26, text_54));
  write("tlh_QO", "54 Fehler 54\n");
  EXPECT_EQ(look_up("tlh_QO.UTF-8"), printed("2 tlh_QO.UTF-8;tlh_QO;", text_26, "Fehler 54"));
  EXPECT_EQ(look_up("tlh_QO.a.b"), printed("2 tlh_QO.a.b;tlh_QO;", text_26, "Fehler 54"));
  write("tlh_QO.UTF-8", "54 Fehler\n");
  EXPECT_EQ(look_up("tlh_QO.UTF-8"), printed("1 tlh_QO.UTF-8;", text_26, "Fehler"));
}

TEST_F(Catalogues, LongLanguagesAreCutNotOverrun) {
  const std::string language(126, 'l');
  write(language, "26 Fehler 26\n");
  const auto attempts = [&](const std::string& first) {
    return "2 " + first + ";" + language + ";";
  };
  for (const std::string& codeset :
       {std::string("."), std::string(".UTF-8"), std::string(300, '.')})
    EXPECT_EQ(look_up((language + codeset).c_str()),
              printed(attempts(language + codeset), "Fehler 26", text_54));
  // The point is past what is kept, or there is none: no second attempt.
  for (const std::string& lang : {std::string(127, 'l') + ".UTF-8", std::string(128, 'l'),
                                  std::string(4000, 'l'), std::string(200, 'l') + ".x"})
    EXPECT_EQ(look_up(lang.c_str()), printed("1 " + lang + ";", text_26, text_54));
}

TEST_F(Catalogues, DamagedOnesGiveTheBuiltInTexts) {
  std::filesystem::create_directory(folder_ / "text");
  std::ofstream(path("text")) << std::string(5000, 'x');
  EXPECT_EQ(look_up("text"), printed("1 text;", text_26, text_54));
  std::filesystem::create_directories(path("folder"));
  EXPECT_EQ(look_up("folder"), printed("1 folder;", text_26, text_54));
}

// The C library opens many a truncated catalogue without complaint. A text that is gone comes from
// the table; of one that was cut in the middle what is left is printed, which nobody can tell.
TEST_F(Catalogues, TruncatedOnesGiveTheBuiltInTexts) {
  std::string lines;
  for (int i = 1; i < message_count; ++i)
    lines += std::to_string(i) + " Fehler " + std::to_string(i) + "\n";
  write("whole", lines);
  std::filesystem::create_directory(folder_ / "cut");
  std::ifstream source(path("whole"), std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(source), {}};
  const std::string text = std::string("Fehler 26") + '\0';
  const std::size_t text_begins = bytes.find(text);
  ASSERT_NE(text_begins, std::string::npos);
  for (std::size_t length = 0; length < bytes.size(); length += length < text_begins ? 31 : 1) {
    std::ofstream(path("cut"), std::ios::binary | std::ios::trunc) << bytes.substr(0, length);
    const outcome o = look_up("cut");
    EXPECT_EQ(o.exit_status, 0) << length;
    const std::string first = o.standard_error.substr(0, o.standard_error.find('\n'));
    if (length <= text_begins) {
      EXPECT_EQ(first, text_26) << length;
    } else if (first != text_26) {
      EXPECT_EQ(first, text.substr(0, length - text_begins).c_str()) << length;
    }
  }
}

}  // namespace
