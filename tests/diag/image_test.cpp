// What a traceback says of images of every kind: programs that print one of their own, with `.trace`
// sections written here, byte by byte after docs/trace-format.md.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/name_of_row.h"

namespace {

namespace fs = std::filesystem;
using namespace zorvac::test;

// One of the routines outer, middle and inner, as the program itself describes it.
struct site {
  std::string name;
  std::uint64_t bias, start, pc;
};
struct trace {
  std::string text;
  std::vector<site> sites;  // innermost first
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

// ---- Sections

template <class Integer>
std::string bytes_of(Integer value) {
  return {reinterpret_cast<const char*>(&value), sizeof value};
}
std::string uleb(std::uint64_t value) {
  std::string bytes;
  for (; value >= 0x80; value >>= 7) bytes += static_cast<char>(value | 0x80);
  return bytes + static_cast<char>(value);
}
std::string sleb(std::int64_t value) {
  std::string bytes;
  for (; value < -64 || value > 63; value >>= 7) bytes += static_cast<char>(value | 0x80);
  return bytes + static_cast<char>(value & 0x7f);
}
std::string record(int tag, const std::string& body, int version = 1) {
  return std::string{static_cast<char>(tag), static_cast<char>(version)} +
         bytes_of(static_cast<std::uint32_t>(body.size())) + body;
}
std::string routine(const site& s) {
  return std::string{10, 2} + bytes_of(s.start - s.bias) +
         bytes_of(static_cast<std::uint32_t>(s.pc - s.start)) +
         bytes_of(static_cast<std::uint16_t>(s.name.size())) + s.name;
}
// A row for the routine's start, one for the last byte of the call, and one behind it, where the call
// returns to; two files of which the second is meant, so many bytes in front.
std::string lines(const site& s, std::size_t line, std::uint64_t distance,
                  std::uint64_t other_file) {
  return record(12, uleb(2) + uleb(other_file) + uleb(distance) +  //
                        uleb(0) + sleb(500) +                      //
                        uleb((s.pc - 1 - s.start) * 2 + 1) + uleb(1) +
                        sleb(static_cast<std::int64_t>(line) - 500) +  //
                        uleb(1 * 2 + 1) + uleb(0) + sleb(7));
}

enum form { plain, with_spans, with_unknown, without_lines, form_count };

// One piece for each routine, as a compiler would write them and a linker join them, or with what
// other writers may put in between.
std::string section(const std::vector<site>& sites, form f) {
  std::string all;
  std::size_t line = 101;
  for (const site& s : sites) {
    const std::string other = record(11, "/src/other.c"),
                      file = record(11, "/src/of " + s.name + ".c");
    std::string body = routine(s);
    if (f == with_unknown) body += record(77, "what is this?") + record(12, "\xff", 9);
    if (f != without_lines)
      body += lines(s, line++, file.size() + body.size() + (f == with_spans ? 26 : 0),
                    other.size() + file.size() + body.size() + (f == with_spans ? 26 : 0));
    all += std::string(line % 3, '\0') + other + file;
    if (f == with_spans) {
      site wrong = s;  // in a span that cannot hold it: to be passed over
      wrong.name = "wrong";
      const std::string hidden = routine(wrong);
      all.insert(0, record(13, bytes_of(s.pc - s.bias) + bytes_of(std::uint64_t{99}) +
                                   bytes_of(static_cast<std::uint32_t>(hidden.size()))) +
                        hidden);
      all += record(13, bytes_of(s.start - s.bias) + bytes_of(s.pc - s.start) +
                            bytes_of(static_cast<std::uint32_t>(body.size())));
    }
    all += body;
  }
  return all;
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
    add_section(image, section(before.sites, static_cast<form>(f)));
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

// A section that is cut anywhere, or has any byte changed, costs names and nothing else.
TEST(HostileSection, IsNeverMoreThanUnknown) {
  const folder here;
  const std::string image = here / "program";
  fs::copy_file(FRAMES_FIXED, image);
  const std::vector<site> sites = run({image, "table"}).sites;
  const std::string sound = section(sites, with_spans);
  add_section(image, sound);
  std::ifstream stream(image, std::ios::binary);
  const std::string file(std::istreambuf_iterator<char>(stream), {});
  const std::size_t at = file.find(sound);
  ASSERT_NE(at, std::string::npos);
  std::size_t known = 0, runs = 0;
  for (std::size_t i = 0; i < sound.size(); ++i) {
    std::string bytes = file;
    if (i % 4 == 0)  // what follows is padding
      std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(at + i), sound.size() - i, '\0');
    else
      bytes[at + i] = "\xff\x7f\x80"[i % 4 - 1];
    std::ofstream(image, std::ios::binary) << bytes;
    const trace t = run({image, "table"});
    ++runs;
    known += t.text.find(frames(t, "program", true, true, true)) != std::string::npos;
    EXPECT_EQ(t.text.find("abnormally"), std::string::npos) << i << t.text;
    for (const site& s : t.sites)
      EXPECT_NE(t.text.find(format("program            %16.16lX  ", s.pc)), std::string::npos);
  }
  EXPECT_GT(known, 0u);
  EXPECT_LT(known, runs);
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
