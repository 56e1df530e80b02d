// zorvac-mktrace seen from outside: what the library reads in a section that it has made, beside what
// addr2line and nm say of the program; and what it leaves alone.
#include <elf.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <regex>
#include <set>
#include <sstream>

#include "diag/section.h"
#include "support/child.h"

namespace fs = std::filesystem;
using namespace zorvac::test;

namespace {

std::string contents_of(const fs::path& file) {
  std::ifstream in{file, std::ios::binary};
  return {std::istreambuf_iterator<char>{in}, {}};
}

void write_bytes(const fs::path& file, const std::string& bytes) {
  std::ofstream{file, std::ios::binary} << bytes;
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in{text};
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// What a shell command prints.
std::string shell(const std::string& command) {
  const outcome o = run_program({"sh", "-c", command});
  EXPECT_EQ(o.exit_status, 0) << command << o;
  return o.standard_output;
}

template <class... Arguments>
outcome mktrace(const Arguments&... arguments) {
  return run_program({MKTRACE, arguments...});
}

struct position {
  std::string file;
  std::uint64_t line = 0;
};
struct described {
  std::uint64_t length = 0;
  std::string name;
  std::map<std::uint64_t, position> lines;
};
using routines = std::map<std::uint64_t, described>;  // by start

// The routines and rows that --dump prints.
routines read_dump(const std::string& text) {
  static const std::regex pattern{
      "^(?:[0-9a-f]{8} routine 0x([0-9a-f]+)\\+0x([0-9a-f]+) (.*)| +0x([0-9a-f]+) (.*):([0-9]+))$"};
  routines result;
  std::uint64_t current = 0;
  for (const std::string& line : lines_of(text)) {
    std::smatch m;
    if (!std::regex_match(line, m, pattern)) continue;
    if (m[1].matched)
      result[current = std::stoull(m[1], nullptr, 16)] = {std::stoull(m[2], nullptr, 16), m[3], {}};
    else
      result[current].lines[std::stoull(m[4], nullptr, 16)] = {m[5], std::stoull(m[6])};
  }
  return result;
}

// The bytes that are loaded when a program runs, without the fields of the ELF header that say where
// the section headers are.
std::string loaded(std::string file) {
  Elf64_Ehdr header;
  std::memcpy(&header, file.data(), sizeof header);
  header.e_shoff = header.e_shnum = header.e_shstrndx = 0;
  std::memcpy(file.data(), &header, sizeof header);
  std::string result;
  for (unsigned i = 0; i < header.e_phnum; ++i) {
    Elf64_Phdr segment;
    std::memcpy(&segment, file.data() + header.e_phoff + i * sizeof segment, sizeof segment);
    result += std::to_string(segment.p_vaddr) + file.substr(segment.p_offset, segment.p_filesz);
  }
  return result;
}

class Mktrace : public testing::Test {
 protected:
  Mktrace() {
    std::string name = fs::temp_directory_path() / "mktrace.XXXXXX";
    folder = mkdtemp(name.data());
    image = folder / "image";
  }
  ~Mktrace() override { fs::remove_all(folder); }

  // Builds the program, its assembler part without debug information.
  void build(const std::string& compiler) {
    shell("cd " PROGRAM "; gcc -c bare.S -o " + (folder / "bare.o").string() + " && " + compiler +
          " $PWD/main.cpp $PWD/other.cpp $PWD/leaf.c -lstdc++ -o " + image.string() + " " +
          (folder / "bare.o").string());
  }

  std::string section() {
    const fs::path file = folder / "section";
    shell("objcopy --dump-section .trace=" + file.string() + " " + image.string() + " /dev/null");
    return contents_of(file);
  }

  // What a program of the addr2line family says of each address.
  std::map<std::uint64_t, position> ask(const char* program,
                                        const std::set<std::uint64_t>& places) {
    const std::string list = folder / "places";
    std::ofstream out{list};
    for (const std::uint64_t place : places) out << std::hex << "0x" << place << '\n';
    out.close();
    std::map<std::uint64_t, position> result;
    auto place = places.begin();
    for (const std::string& answer :
         lines_of(shell(program + (" -e " + image.string()) + " <" + list))) {
      std::smatch m;
      static const std::regex text{"^(.*):([0-9]+|\\?).*$"};
      if (std::regex_match(answer, m, text))
        result[*place++] = {m[1], m[2] == "?" ? 0 : std::stoull(m[2])};
    }
    EXPECT_EQ(result.size(), places.size());
    return result;
  }

  fs::path folder, image;
};

class MktraceOf : public Mktrace, public testing::WithParamInterface<const char*> {};

TEST_P(MktraceOf, SaysWhatOthersSayAndLeavesTheProgramAlone) {
  const bool big = std::string{GetParam()} == "the tool itself";
  big ? fs::copy(MKTRACE, image) : build(GetParam());
  const std::string before = contents_of(image);
  const bool runs = !big && before.find("/ld-linux") != std::string::npos;
  const std::string said = runs ? shell(image) : "";
  ASSERT_EQ(mktrace(image), (outcome{"", "", 0, 0}));
  const std::string after = contents_of(image);
  EXPECT_EQ(loaded(before), loaded(after));
  EXPECT_EQ(runs ? shell(image) : "", said);
  ASSERT_EQ(mktrace(image).exit_status, 0);
  EXPECT_EQ(contents_of(image), after) << "made again";

  const routines all = read_dump(mktrace("--dump", image).standard_output);
  const std::string trace = section();

  // Every routine of the symbol table, but for the name of a clone or of an alias.
  std::multimap<std::uint64_t, std::string> symbols;
  unsigned sized = 0;
  for (const std::string& line : lines_of(shell("nm -S --defined-only " + image.string()))) {
    std::smatch m;
    static const std::regex text{"^([0-9a-f]{16})( [0-9a-f]{16})? [tTwWi] (.*)$"};
    if (!std::regex_match(line, m, text)) continue;
    const std::uint64_t start = std::stoull(m[1], nullptr, 16);
    symbols.emplace(start, m[3]);
    if (!m[2].matched || start < all.begin()->first) continue;  // or weak data of a thread
    ++sized;
    ASSERT_TRUE(all.contains(start)) << line;
    EXPECT_EQ(all.at(start).length, std::stoull(m[2], nullptr, 16)) << line;
  }
  EXPECT_GE(sized, 9U);
  std::set<std::uint64_t> places;
  for (const auto& [start, r] : all) {
    const auto [first, last] = symbols.equal_range(start);
    // Copies that a linker kept without their symbols are known by debug information alone.
    EXPECT_TRUE(first == last || std::any_of(first, last,
                                             [name = r.name + '.'](const auto& s) {
                                               return (s.second + '.').starts_with(name);
                                             }))
        << std::hex << start << ' ' << r.name;
    places.insert({start, start + r.length / 2, start + r.length - 1});
    if (big) continue;
    for (const auto& [address, where] : r.lines) {
      places.insert(address);
      if (address > start) places.insert(address - 1);
    }
  }

  // Every line, and every file: by LLVM's, since some versions of GNU's take file 1 for file 0 of
  // DWARF 5.
  const auto gnu = ask("addr2line", places), llvm = ask(LLVM_ADDR2LINE, places);
  unsigned known = 0;
  for (const std::uint64_t place : places) {
    const described& r = std::prev(all.upper_bound(place))->second;
    const auto row = r.lines.upper_bound(place);
    const position dumped = row == r.lines.begin() ? position{} : std::prev(row)->second;
    const tbk_pc_info read = look_up(trace, place);
    SCOPED_TRACE(testing::Message() << std::hex << place << ' ' << r.name);
    EXPECT_EQ(read.routine, r.name);
    EXPECT_EQ(read.line, dumped.line);
    EXPECT_EQ(read.line, gnu.at(place).line);
    EXPECT_EQ(read.line, llvm.at(place).line);
    if (read.line == 0) continue;
    ++known;
    EXPECT_EQ(read.file, dumped.file);
    EXPECT_EQ(read.file, llvm.at(place).file);
  }
  EXPECT_GE(known, 60U);
}

INSTANTIATE_TEST_SUITE_P(
    Compilers, MktraceOf,
    testing::Values("gcc -O0 -gdwarf-4 -no-pie", "gcc -O0 -gdwarf-5 -pie",
                    "gcc -O2 -gdwarf-4 -ffunction-sections -Wl,--gc-sections",
                    "gcc -O2 -gdwarf-5 -fPIC -shared", "clang -O0 -gdwarf-4 -fPIC -shared",
                    "clang -O0 -gdwarf-5 -ffunction-sections -Wl,--gc-sections",
                    "clang -O2 -gdwarf-4 -pie", "clang -O2 -gdwarf-5 -gz -no-pie",
                    "the tool itself"));

TEST_F(Mktrace, WritesElsewhereThroughLinksWithTheSameMode) {
  build("gcc -g");
  fs::permissions(image, fs::perms{0750});
  const std::string before = contents_of(image);
  const fs::path link = folder / "link", target = folder / "target";
  fs::create_symlink("target", link);
  ASSERT_EQ(mktrace("-o", link, image), (outcome{"", "", 0, 0}));
  EXPECT_EQ(contents_of(image), before);
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(fs::status(target).permissions(), fs::perms{0750});
  shell("strip " + target.string());
  ASSERT_EQ(mktrace(image).exit_status, 0);
  EXPECT_EQ(mktrace("--dump", target), mktrace("--dump", image)) << "stripped";
}

// What is said of a file that is changed at one place, cut or grown, or cannot be written.
struct refusal {
  const char* says;
  int offset, value;  // of a byte; offset -1: none
  int grow;           // the file, by so many bytes
  mode_t mode;
  std::vector<std::string> options;
};

TEST_F(Mktrace, RefusesWithoutHarm) {
  build("gcc -g");
  const std::string whole = contents_of(image);
  const refusal refusals[] = {
      {"not an ELF file", 1, 'e', 0, 0755, {}},
      {"not a 64-bit ELF file", EI_CLASS, ELFCLASS32, 0, 0755, {}},
      {"not a file for x86-64", 18, EM_AARCH64, 0, 0755, {}},
      {"neither an executable nor a shared object", 16, ET_REL, 0, 0755, {}},
      {"truncated", -1, 0, -100, 0755, {}},
      {"data behind its sections", -1, 0, 100, 0755, {}},
      {"read-only", -1, 0, 0, 0555, {}},
      {"cannot write beside", -1, 0, 0, 0755, {"-o", folder / "none" / "out"}},
      {"cannot write beside", -1, 0, 0, 0755, {"-o", "/proc/self/image"}},
      {"not a regular file", -1, 0, 0, 0755, {"-o", folder}},
      {"no .trace section", -1, 0, 0, 0755, {"--dump"}},
      {"Usage", -1, 0, 0, 0755, {"--dump", "-o", "x"}},
      {"Usage", -1, 0, 0, 0755, {image}},
      {"Usage", -1, 0, 0, 0755, {"--trace"}},
  };
  for (const refusal& r : refusals) {
    SCOPED_TRACE(r.says);
    std::string bytes = whole;
    bytes.resize(bytes.size() + static_cast<std::size_t>(r.grow), 'x');  // wraps to a smaller size
    if (r.offset >= 0) bytes[static_cast<std::size_t>(r.offset)] = static_cast<char>(r.value);
    fs::remove(image);
    write_bytes(image, bytes);
    fs::permissions(image, fs::perms{r.mode});
    std::vector<std::string> command{MKTRACE, image};
    command.insert(command.end() - 1, r.options.begin(), r.options.end());
    const outcome o = run_program(command);
    EXPECT_EQ(o.exit_status, std::string{r.says} == "Usage" ? 2 : 1) << o;
    EXPECT_NE(o.standard_error.find(r.says), std::string::npos) << o;
    EXPECT_EQ(contents_of(image), bytes);
    EXPECT_EQ(std::distance(fs::directory_iterator{folder}, {}), 2) << "image and bare.o";
  }
  build("gcc");
  EXPECT_NE(mktrace(image).standard_error.find("no debug information"), std::string::npos);
  EXPECT_NE(mktrace(folder).standard_error.find("not a regular file"), std::string::npos);
  EXPECT_NE(mktrace(folder / "nil").standard_error.find("No such file"), std::string::npos);
}

// Damage at random places of the headers and the debug information, and cuts: the program says no or
// writes a file, and never ends by a signal. A section that is damaged is printed as far as it goes.
TEST_F(Mktrace, SurvivesDamage) {
  build("gcc -g -O2");
  const fs::path out = folder / "out";
  ASSERT_EQ(mktrace(image).exit_status, 0);
  const std::string whole = contents_of(image);
  std::mt19937 random{1};
  for (int round = 0; round < 60; ++round) {
    std::string bytes = whole;
    if (round % 4 == 0) bytes.resize(random() % bytes.size());
    const bool ends = round % 8 < 4;  // the ELF header, or the section and the section headers
    const std::size_t range = std::min<std::size_t>(bytes.size(), ends ? 4000 : 64);
    for (int i = round % 4; i > 0; --i) {
      const std::size_t at = random() % range;
      bytes[ends ? bytes.size() - 1 - at : at] = static_cast<char>(random());
    }
    write_bytes(image, bytes);
    for (const outcome& o : {mktrace("-o", out, image), mktrace("--dump", image)}) {
      ASSERT_EQ(o.signal, 0) << round;
      ASSERT_TRUE(o.exit_status == 0 || o.standard_error.starts_with("zorvac-mktrace: ")) << o;
    }
  }
}

}  // namespace
