// zorvac-mktrace seen from outside: what it says of programs beside what addr2line and nm say, and
// what it leaves alone. The section is decoded here a second time.
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

#include "diag/trace_format.h"
#include "support/child.h"

namespace fs = std::filesystem;
namespace trace = zorvac::diag::trace;
using namespace zorvac::test;

namespace {

std::string bytes_of(const fs::path& file) {
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

std::string must_run(const std::vector<std::string>& command) {
  const outcome o = run_program(command);
  EXPECT_EQ(o.exit_status, 0) << testing::PrintToString(command) << o;
  return o.standard_output;
}

template <class... Arguments>
outcome mktrace(const Arguments&... arguments) {
  return run_program({MKTRACE, arguments...});
}

struct position {
  std::string file;
  std::uint64_t line = 0;
  bool operator==(const position&) const = default;
};
struct routine {
  std::uint64_t length = 0;
  std::string name;
  std::map<std::uint64_t, position> lines;
  bool operator==(const routine&) const = default;
};
using routines = std::map<std::uint64_t, routine>;  // by start

routines decode(const std::string& section) {
  const auto* begin = reinterpret_cast<const unsigned char*>(section.data());
  routines result;
  auto current = result.end();
  std::size_t span_end = 0;
  for (std::size_t at = 0, length = 0; at < section.size(); at += length) {
    const unsigned char* head = begin + at;
    length = trace::record_bytes(head, section.size() - at);
    if (length == 0 || length > section.size() - at) return {};
    const unsigned char *body = head + trace::body_offset, *end = head + length;
    if (head[0] == trace::span_tag) {
      EXPECT_GE(at, span_end) << "a span in a span";
      span_end = at + length + trace::load<std::uint32_t>(body + trace::span_bytes_offset);
    } else if (head[0] == trace::routine_tag) {
      const char* name = section.data() + at + trace::routine_head_bytes;
      const auto start = trace::load<std::uint64_t>(head + trace::routine_start_offset);
      EXPECT_TRUE(result.empty() || start >= current->first + current->second.length) << start;
      current = result.emplace(start, routine{}).first;
      current->second.length = trace::load<std::uint32_t>(head + trace::routine_length_offset);
      current->second.name.assign(name, length - trace::routine_head_bytes);
    } else if (head[0] == trace::lines_tag) {
      trace::memory_source source{body, end};
      trace::line_rows rows{source};
      for (trace::line_row row; rows.next(row);) {
        trace::memory_source again{body, end};
        std::uint64_t back = 0;
        const bool known = trace::file_distance(again, row.file, back) && back <= at;
        const char* file = section.data() + at - back;
        current->second.lines[current->first + row.offset] = {
            known ? std::string(file + trace::body_offset,
                                trace::load<std::uint32_t>(head - back + trace::body_length_offset))
                  : "?",
            row.line};
      }
    }
  }
  return result;
}

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
  void SetUp() override {
    std::string name = fs::temp_directory_path() / "mktrace.XXXXXX";
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    folder = name;
    image = folder / "image";
  }
  void TearDown() override { fs::remove_all(folder); }

  void build(const std::string& compiler, std::vector<std::string> flags) {
    const std::string sources = PROGRAM, bare = folder / "bare.o";
    must_run({compiler, "-c", sources + "/bare.S", "-o", bare});
    std::vector<std::string> command{compiler};
    command.insert(command.end(), flags.begin(), flags.end());
    for (const char* source : {"/main.cpp", "/other.cpp", "/leaf.c"})
      command.push_back(sources + source);
    command.insert(command.end(), {bare, "-lstdc++", "-o", image});
    must_run(command);
  }

  std::string section() {
    must_run({"objcopy", "--dump-section", ".trace=" + (folder / "section").string(), image,
              folder / "ignored"});
    return bytes_of(folder / "section");
  }

  // What a program of the addr2line family says of each address.
  std::map<std::uint64_t, position> ask(const char* program,
                                        const std::set<std::uint64_t>& places) {
    std::ofstream list{folder / "places"};
    for (const std::uint64_t place : places) list << std::hex << "0x" << place << '\n';
    list.close();
    const auto answers = lines_of(must_run(
        {"sh", "-c", program + (" -e " + image.string() + " < ") + (folder / "places").string()}));
    std::map<std::uint64_t, position> result;
    auto place = places.begin();
    for (std::string answer : answers) {
      answer = answer.substr(0, answer.find(" (discriminator"));
      const std::size_t colon = answer.rfind(':');
      const std::string line = answer.substr(colon + 1);
      result[*place++] = {answer.substr(0, colon), line == "?" ? 0 : std::stoull(line)};
    }
    EXPECT_EQ(result.size(), places.size());
    return result;
  }

  fs::path folder, image;
};

struct build_case {
  const char* name;
  const char* compiler;
  std::vector<std::string> flags;
};
std::ostream& operator<<(std::ostream& out, const build_case& c) { return out << c.name; }

class MktraceOf : public Mktrace, public testing::WithParamInterface<build_case> {};

TEST_P(MktraceOf, SaysWhatOthersSayAndLeavesTheProgramAlone) {
  build(GetParam().compiler, GetParam().flags);
  const bool runs = GetParam().flags.back() != "-shared";
  const std::string before = bytes_of(image), said = runs ? must_run({image}) : "";
  const outcome made = mktrace(image);
  ASSERT_EQ(made, (outcome{"", "", 0, 0}));
  const std::string after = bytes_of(image);
  EXPECT_EQ(loaded(before), loaded(after));
  EXPECT_EQ(runs ? must_run({image}) : "", said);
  ASSERT_EQ(mktrace(image).exit_status, 0);
  EXPECT_EQ(bytes_of(image), after) << "made again";

  const routines all = decode(section());
  EXPECT_EQ(read_dump(must_run({MKTRACE, "--dump", image})), all);

  // Every routine of the symbol table, but for the name of a clone or of an alias.
  std::multimap<std::uint64_t, std::string> symbols;
  unsigned sized = 0;
  for (const std::string& line : lines_of(must_run({"nm", "-S", "--defined-only", image}))) {
    std::smatch m;
    static const std::regex text{"^([0-9a-f]{16})( [0-9a-f]{16})? [tTwWi] ([^.]+).*$"};
    if (!std::regex_match(line, m, text)) continue;
    const std::uint64_t start = std::stoull(m[1], nullptr, 16);
    symbols.emplace(start, m[3]);
    if (!m[2].matched) continue;
    ++sized;
    ASSERT_TRUE(all.contains(start)) << line;
    EXPECT_EQ(all.at(start).length, std::stoull(m[2], nullptr, 16)) << line;
  }
  EXPECT_GE(sized, 9U);
  std::set<std::uint64_t> places;
  for (const auto& [start, r] : all) {
    const auto [first, last] = symbols.equal_range(start);
    EXPECT_TRUE(std::any_of(first, last, [&](const auto& s) { return s.second == r.name; }))
        << std::hex << start << ' ' << r.name;
    places.insert({start, start + r.length / 2, start + r.length - 1});
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
    const routine& r = std::prev(all.upper_bound(place))->second;
    const auto row = r.lines.upper_bound(place);
    const position ours = row == r.lines.begin() ? position{} : std::prev(row)->second;
    EXPECT_EQ(ours.line, gnu.at(place).line) << std::hex << place << ' ' << r.name;
    EXPECT_EQ(ours.line, llvm.at(place).line) << std::hex << place << ' ' << r.name;
    if (ours.line == 0) continue;
    ++known;
    EXPECT_EQ(ours.file, llvm.at(place).file) << std::hex << place << ' ' << r.name;
  }
  EXPECT_GE(known, 60U);
}

const build_case builds[] = {
    {"GccPlain4", "gcc", {"-O0", "-gdwarf-4", "-no-pie"}},
    {"GccPlain5", "gcc", {"-O0", "-gdwarf-5", "-pie"}},
    {"GccOptimised4", "gcc", {"-O2", "-gdwarf-4", "-ffunction-sections", "-Wl,--gc-sections"}},
    {"GccOptimised5", "gcc", {"-O2", "-gdwarf-5", "-fPIC", "-shared"}},
    {"ClangPlain4", "clang", {"-O0", "-gdwarf-4", "-fPIC", "-shared"}},
    {"ClangPlain5", "clang", {"-O0", "-gdwarf-5", "-ffunction-sections", "-Wl,--gc-sections"}},
    {"ClangOptimised4", "clang", {"-O2", "-gdwarf-4", "-pie"}},
    {"ClangOptimised5", "clang", {"-O2", "-gdwarf-5", "-gz", "-no-pie"}},
};
INSTANTIATE_TEST_SUITE_P(Compilers, MktraceOf, testing::ValuesIn(builds),
                         [](const auto& row) { return std::string{row.param.name}; });

TEST_F(Mktrace, WritesElsewhereThroughLinksWithTheSameMode) {
  build("gcc", {"-g"});
  fs::permissions(image, fs::perms{0750});
  const std::string before = bytes_of(image);
  const fs::path link = folder / "link", target = folder / "target";
  fs::create_symlink("target", link);
  ASSERT_EQ(mktrace("-o", link, image), (outcome{"", "", 0, 0}));
  EXPECT_EQ(bytes_of(image), before);
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(fs::status(target).permissions(), fs::perms{0750});
  must_run({"strip", target});
  EXPECT_EQ(mktrace("--dump", target).exit_status, 0) << "stripped afterwards";
  ASSERT_EQ(mktrace(image).exit_status, 0);
  EXPECT_EQ(read_dump(must_run({MKTRACE, "--dump", link})), decode(section()));
}

// A file that is changed at one place, cut or grown, and what is said of it.
struct refusal {
  const char* name;
  std::ptrdiff_t offset, value;  // of a byte; offset -1: none
  std::ptrdiff_t grow;           // the file, by so many bytes
  mode_t mode;
  std::vector<std::string> options;
  int status;
  const char* says;
};

TEST_F(Mktrace, RefusesWithoutHarm) {
  build("gcc", {"-g"});
  const std::string whole = bytes_of(image);
  const std::string beside = (folder / "none" / "out").string();
  const refusal refusals[] = {
      {"text", 1, 'e', 0, 0755, {}, 1, "not an ELF file"},
      {"32 bits", EI_CLASS, ELFCLASS32, 0, 0755, {}, 1, "not a 64-bit ELF file"},
      {"machine", 18, EM_AARCH64, 0, 0755, {}, 1, "not a file for x86-64"},
      {"object", 16, ET_REL, 0, 0755, {}, 1, "neither an executable nor a shared object"},
      {"cut", -1, 0, -100, 0755, {}, 1, "truncated"},
      {"payload", 0, 0x7F, 100, 0755, {}, 1, "data behind its sections"},
      {"read-only", -1, 0, 0, 0555, {}, 1, "read-only"},
      {"no folder", -1, 0, 0, 0755, {"-o", beside}, 1, "cannot write beside"},
      {"no place", -1, 0, 0, 0755, {"-o", "/proc/self/image"}, 1, "cannot write beside"},
      {"a folder", -1, 0, 0, 0755, {"-o", folder}, 1, "not a regular file"},
      {"no section", -1, 0, 0, 0755, {"--dump"}, 1, "no .trace section"},
      {"options", -1, 0, 0, 0755, {"--dump", "-o", "x"}, 2, "Usage"},
      {"two images", -1, 0, 0, 0755, {image}, 2, "Usage"},
      {"unknown option", -1, 0, 0, 0755, {"--trace"}, 2, "Usage"},
  };
  for (const refusal& r : refusals) {
    SCOPED_TRACE(r.name);
    std::string bytes = whole;
    bytes.resize(static_cast<std::size_t>(static_cast<std::ptrdiff_t>(bytes.size()) + r.grow), 'x');
    if (r.offset >= 0) bytes[static_cast<std::size_t>(r.offset)] = static_cast<char>(r.value);
    fs::remove(image);
    write_bytes(image, bytes);
    fs::permissions(image, fs::perms{r.mode});
    std::vector<std::string> command{MKTRACE, image};
    command.insert(command.end() - 1, r.options.begin(), r.options.end());
    const outcome o = run_program(command);
    EXPECT_EQ(o.exit_status, r.status) << o;
    EXPECT_EQ(o.standard_output, "");
    EXPECT_NE(o.standard_error.find(r.says), std::string::npos) << o.standard_error;
    EXPECT_EQ(bytes_of(image), bytes);
    EXPECT_EQ(std::distance(fs::directory_iterator{folder}, {}), 2) << "image and bare.o";
  }
  build("gcc", {});
  EXPECT_NE(mktrace(image).standard_error.find("no debug information"), std::string::npos);
  EXPECT_NE(mktrace(folder).standard_error.find("not a regular file"), std::string::npos);
  EXPECT_NE(mktrace(folder / "nil").standard_error.find("No such file"), std::string::npos);
}

// Damage at random places of the headers and the debug information, and cuts: the program says no or
// writes a file, and never ends by a signal. A section that is damaged is printed as far as it goes.
TEST_F(Mktrace, SurvivesDamage) {
  build("gcc", {"-g", "-O2"});
  const fs::path out = folder / "out";
  ASSERT_EQ(mktrace(image).exit_status, 0);
  const std::string whole = bytes_of(image);
  std::mt19937 random{1};
  for (int round = 0; round < 120; ++round) {
    std::string bytes = whole;
    if (round % 4 == 0) bytes.resize(random() % bytes.size());
    for (int i = round % 4; i > 0 && !bytes.empty(); --i) {
      const std::size_t tail =
          round % 8 < 4 ? bytes.size() / 4 : 64;  // headers, or anything behind
      const std::size_t at = round % 8 < 4 ? bytes.size() - 1 - random() % tail : random() % tail;
      bytes[at] = static_cast<char>(random());
    }
    write_bytes(image, bytes);
    for (const outcome& o : {mktrace("-o", out, image), mktrace("--dump", image)}) {
      ASSERT_EQ(o.signal, 0) << round;
      ASSERT_TRUE(o.exit_status == 0 || o.standard_error.starts_with("zorvac-mktrace: ")) << o;
    }
  }
}

}  // namespace
