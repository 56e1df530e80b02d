// What a traceback says of images of every kind: programs that print one of their own, with `.trace`
// sections put into them here.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "diag/section.h"
#include "support/child.h"
#include "support/name_of_row.h"

namespace {

namespace fs = std::filesystem;
using namespace zorvac::test;

struct trace {
  std::string text;
  std::vector<site> sites;  // inner, middle and outer, as the program itself describes them
  long length = -1;         // what the routine returned
  std::string error;        // what tbk_geterrorstring() said
};

trace run(const std::vector<std::string>& command) {
  const outcome o = run_program(command);
  EXPECT_EQ(o.exit_status, 0) << o;
  trace result{o.standard_output, {}, -1, ""};
  std::istringstream lines(o.standard_error);
  for (int i = 0; i < 3; ++i) {
    site s;
    lines >> s.name >> std::hex >> s.bias >> s.start >> s.pc;
    result.sites.insert(result.sites.begin(), s);
  }
  lines >> std::dec >> result.length;
  std::getline(lines >> std::ws, result.error);
  EXPECT_EQ(result.length, static_cast<long>(result.text.size()));
  return result;
}

// ---- Programs

class folder {
 public:
  folder()
      : path_(fs::path(testing::TempDir()) / ("zorvac image test " + std::to_string(getpid()))) {
    fs::remove_all(path_);
    fs::create_directory(path_);
  }
  ~folder() { fs::remove_all(path_); }
  folder(const folder&) = delete;
  folder& operator=(const folder&) = delete;
  [[nodiscard]] std::string operator/(const std::string& name) const { return path_ / name; }

 private:
  fs::path path_;
};

void add_section(const std::string& image, const std::string& bytes) {
  const std::string file = image + ".section";
  std::ofstream(file, std::ios::binary) << bytes;
  EXPECT_EQ(
      run_program({OBJCOPY, "--remove-section=.trace", "--add-section", ".trace=" + file, image})
          .exit_status,
      0);
}

template <class... Values>
std::string format(const char* text, Values... values) {
  char buffer[1024];
  std::snprintf(buffer, sizeof buffer, text, values...);
  return buffer;
}

// The blocks or lines of inner, middle and outer, whose frames are numbers 1 to 3.
std::string frames(const trace& t, const std::string& image, bool table, bool routine_known,
                   bool line_known) {
  std::string result;
  for (std::size_t i = 0; i < 3; ++i) {
    const site& s = t.sites[i];
    const std::string name = routine_known ? s.name : "Unknown";
    const std::string base = line_known ? "of " + s.name + ".c" : "Unknown";
    const std::string line = line_known ? std::to_string(101 + i) : "Unknown";
    result += table ? format("%-17.17s  %16.16lX  %-17.17s  %10.10s  %s\n", image.c_str(), s.pc,
                             name.c_str(), line.c_str(), base.c_str())
                    : format(
                          "--------- Frame # %zu ---------------------------------------\n\n"
                          "Image:         %s\nPC:            0x%16.16lx\nRoutine name:  %s\n"
                          "Source file:   %s\nLine number:   %s\n\n",
                          i + 1, image.c_str(), s.pc, name.c_str(),
                          ((line_known ? "/src/" : "") + base).c_str(), line.c_str());
  }
  return result;
}

struct image_case {
  const char* name;
  const char* program;  // the executable that runs
  const char* object;   // the shared object that holds the frames, or null: the program does
  std::string file;     // what the image with the frames is called
  bool stripped = false, deleted = false;
  const char* launch = nullptr;  // how a shell in the program's folder runs it
};
std::ostream& operator<<(std::ostream& out, const image_case& c) { return out << c.name; }
const image_case images[] = {
    {"PositionIndependent", FRAMES_PIE, nullptr, "program"},
    {"Fixed", FRAMES_FIXED, nullptr, "program"},
    {"SharedObject", FRAMES_PIE, FRAMES_OBJECT, "object.so"},
    {"SharedObjectOfFixed", FRAMES_FIXED, FRAMES_OBJECT, "object.so"},
    {"Stripped", FRAMES_PIE, nullptr, "program", true},
    {"StrippedSharedObject", FRAMES_PIE, FRAMES_OBJECT, "object.so", true},
    {"NameWithBlanks", FRAMES_PIE, nullptr, "a program"},
    {"SharedObjectWithBlanks", FRAMES_FIXED, FRAMES_OBJECT, "shared object (1).so"},
    {"RelativePath", FRAMES_PIE, nullptr, "program", false, false, "exec ./program "},
    {"OtherName", FRAMES_PIE, nullptr, "program", false, false, "exec -a other ./program "},
    {"Deleted", FRAMES_PIE, nullptr, "program", false, true},
    {"DeletedSharedObject", FRAMES_PIE, FRAMES_OBJECT, "object.so", false, true},
};

class Image : public testing::TestWithParam<image_case> {};
INSTANTIATE_TEST_SUITE_P(Traceback, Image, testing::ValuesIn(images), name_of_row);

TEST_P(Image, IsNamedWithItsRoutinesAndLines) {
  const image_case& c = GetParam();
  const folder here;
  const std::string image = here / c.file;
  fs::copy_file(c.object != nullptr ? c.object : c.program, image);
  if (c.stripped) run_program({OBJCOPY, "--strip-all", image});
  const auto command = [&](const char* layout, bool deleting) {
    std::vector<std::string> words{c.object != nullptr ? c.program : image, layout};
    if (deleting) words.push_back("--delete");
    if (c.object != nullptr) words.push_back(image);
    if (c.launch != nullptr)
      words = {"bash", "-c", "cd '" + here / "" + "' && " + c.launch + layout};
    return words;
  };
  const trace before = run(command("block", false));
  EXPECT_NE(before.text.find(frames(before, c.file, false, false, false)), std::string::npos)
      << before.text << frames(before, c.file, false, false, false);
  for (int f = 0; f < form_count; ++f) {
    // A routine ends with the call that the frame is in; the address behind it is another line's.
    std::vector<site> calls = before.sites;
    for (site& s : calls) --s.pc;
    add_section(image, section(calls, static_cast<form>(f)));
    for (const bool table : {false, true}) {
      // An executable can still be read when it is gone, a shared object cannot.
      const bool deleting = c.deleted && f + 1 == form_count && table;
      const bool known = !deleting || c.object == nullptr;
      const trace t = run(command(table ? "table" : "block", deleting));
      const std::string expected = frames(t, c.file, table, known, known && f != without_lines);
      EXPECT_NE(t.text.find(expected), std::string::npos) << f << "\n" << t.text << expected;
      EXPECT_EQ(t.error, "No error");
    }
  }
}

// ---- Unwinders

TEST(Unwinder, IsMissingInACProgram) {
  const outcome o = run_program({NO_UNWINDER, "block"});
  EXPECT_EQ(o.exit_status, 0);
  EXPECT_EQ(o.standard_output, "");
  EXPECT_NE(
      o.standard_error.find("\n0 You must link with libunwind to use traceback functionality\n"),
      std::string::npos)
      << o;
}

// With a program counter the frames are those from the one on whose routine holds it, up to where
// that is; without one they are all, with two hidden. No image has any of the addresses.
TEST(Unwinder, MayHaveForcedUnwindOnly) {
  const std::string last_two = "3030>4040 0\n4040>0 0\n";
  const std::pair<std::string, std::string> walks[] = {
      {"3008", last_two},
      {"3030", last_two},
      {"3031", ""},
      {"9999", ""},
      {"1000", "1010>2020 0\n2020>3030 0\n" + last_two},
      {"0", "1010>2020 1\n2020>3030 1\n" + last_two}};
  for (const auto& [pc, frames] : walks)
    EXPECT_EQ(run_program({FORCED_UNWIND, pc}).standard_output,
              "stop 2\n" + frames + "status 0\nstop 2\n");
  EXPECT_EQ(
      run_program({FORCED_UNWIND, "4000"}).standard_error,
      "Image              PC                Routine            Line        Source             \n"
      "Unknown            0000000000004040  Unknown               Unknown  Unknown\n");
}

TEST(Unwinder, IsNotWaitedForWithTheHeapLocked) {
  const outcome o = run_program({DYING_IN_MALLOC});
  EXPECT_EQ(o.exit_status, 0) << o;
  EXPECT_NE(o.standard_output.find("PC:            " + o.standard_error + "\n"), std::string::npos)
      << o;
  EXPECT_EQ(o.standard_output.find("abnormally"), std::string::npos) << o;
}

}  // namespace
