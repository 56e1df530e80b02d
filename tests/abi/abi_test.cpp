// The shared object seen from outside: what it exports, what it needs, how it is linked, and which
// instructions stand in it. The system's binary tools do the reading.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "support/child.h"

namespace {

using namespace zorvac::test;

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}
std::vector<std::string> output_of(const std::vector<std::string>& command) {
  const outcome o = run_program(command);
  EXPECT_EQ(o.exit_status, 0) << command[0] << ": " << o.standard_error;
  return lines_of(o.standard_output);
}
std::vector<std::string> words_of(const std::string& line) {
  std::istringstream in(line);
  return {std::istream_iterator<std::string>(in), {}};
}

TEST(Exports, AreTheListedNamesAndNoOthers) {
  std::map<std::string, std::string> listed, exported;  // "function" or "data SIZE" by name
  std::ifstream list(EXPORTS);
  for (std::string line; std::getline(list, line);) {
    const auto words = words_of(line);
    if (words.empty() || words[0] == "#") continue;
    ASSERT_TRUE((words[0] == "function" && words.size() == 2) ||
                (words[0] == "data" && words.size() == 3))
        << line;
    EXPECT_TRUE(
        listed.emplace(words[1], words[0] == "data" ? "data " + words[2] : "function").second)
        << words[1] << " is listed twice";
  }
  ASSERT_FALSE(listed.empty());

  // Number: Value Size Type Bind Visibility Section Name
  for (const std::string& line : output_of({READELF, "--dyn-syms", "-W", LIBRARY})) {
    const auto words = words_of(line);
    if (words.size() != 8 || words[0] == "Num:" || words[6] == "UND") continue;
    EXPECT_EQ(words[4], "GLOBAL") << line;
    exported[words[7]] = words[3] == "FUNC"     ? "function"
                         : words[3] == "OBJECT" ? "data " + words[2]
                                                : words[3];
  }
  EXPECT_EQ(exported, listed);
}

TEST(Linkage, NeedsTheCLibraryAloneAndIsBoundAtLoad) {
  std::string soname, flags;
  std::set<std::string> needed, tags;
  const std::regex entry(R"(\s*0x[0-9a-f]+ \((\w+)\)\s+(?:.*\[(.*)\]|(.*)))");
  for (const std::string& line : output_of({READELF, "-dW", LIBRARY})) {
    std::smatch m;
    if (!std::regex_match(line, m, entry)) continue;
    tags.insert(m[1]);
    if (m[1] == "NEEDED") needed.insert(m[2]);
    if (m[1] == "SONAME") soname = m[2];
    if (m[1] == "FLAGS") flags = m[3];
  }
  EXPECT_EQ(soname, "libzorvac.so.5");
  EXPECT_EQ(needed, (std::set<std::string>{"libc.so.6"}));
  EXPECT_NE(flags.find("BIND_NOW"), std::string::npos);
  EXPECT_EQ(flags.find("SYMBOLIC"), std::string::npos);
  for (const char* unwanted : {"SYMBOLIC", "TEXTREL", "RPATH", "RUNPATH"})
    EXPECT_FALSE(tags.contains(unwanted)) << unwanted;
}

TEST(Linkage, StackIsNotExecutable) {
  int stacks = 0;
  for (const std::string& line : output_of({READELF, "-lW", LIBRARY})) {
    if (line.find("GNU_STACK") == std::string::npos) continue;
    ++stacks;
    EXPECT_EQ(line.find("RWE"), std::string::npos) << line;
  }
  EXPECT_EQ(stacks, 1);
}

// Instruction-set hygiene. The objects say which source an instruction comes from; the count over
// the linked library shows that nothing came in from elsewhere.
struct object_file {
  std::string path;
  bool extended;  // may use more than the baseline
};
std::vector<object_file> objects() {
  std::vector<std::string> extended;
  std::vector<object_file> files;
  std::ifstream list(OBJECTS);
  for (std::string kind, path; list >> kind >> path;) {
    if (kind == "extended") {
      extended.push_back(path);
    } else {
      const bool match = std::any_of(extended.begin(), extended.end(),
                                     [&](const std::string& name) { return path.ends_with(name); });
      files.push_back({path, match});
    }
  }
  return files;
}

std::vector<std::string> mnemonics(const std::string& file) {
  std::vector<std::string> found;
  for (const std::string& line : output_of({OBJDUMP, "-d", "--no-show-raw-insn", "-w", file})) {
    const std::size_t tab = line.find('\t');
    if (tab == std::string::npos || line.find(':') > tab) continue;
    for (const std::string& word : words_of(line.substr(tab))) {
      if (std::regex_match(word, std::regex("rep|repz|repnz|lock|data16|cs|ds|notrack|bnd")))
        continue;
      found.push_back(word);
      break;
    }
  }
  return found;
}

// VEX and EVEX instructions: those that begin with V, besides a few old system ones, and those on
// mask registers.
bool is_vex(const std::string& mnemonic) {
  static const std::set<std::string> old = {"verr", "verw", "vmcall", "vmmcall"};
  static const std::regex mask(
      "k(mov|add|and|andn|not|or|ortest|shiftl|shiftr|test|unpck|xnor|xor)[bwdq]+");
  return (mnemonic[0] == 'v' && !old.contains(mnemonic)) || std::regex_match(mnemonic, mask);
}
// Everything else past plain x86-64 (SSE2) that a compiler or a programmer could let in. Not TZCNT:
// to a processor that does not know it, its code is a bit scan with a prefix that changes nothing,
// and compilers write the scan of a value that is not zero so for every processor.
bool is_past_baseline(const std::string& mnemonic) {
  static const std::regex sse3("addsubp[sd]|h(add|sub)p[sd]|lddqu|movddup|movs[hl]dup|fisttp.*");
  static const std::regex ssse3(
      "pabs[bwd]|palignr|ph(add|sub)(w|d|sw)|pmaddubsw|pmulhrsw|pshufb|psign[bwd]");
  static const std::regex sse4(
      "p?blendv?(p[sd]|b|w)?|dpp[sd]|extractps|insertps|mpsadbw|packusdw|pcmp(eq|gt)q|p(ext|ins)r["
      "bdq]|"
      "phminposuw|p(max|min)(sb|sd|ud|uw)|pmov[sz]x.*|pmul(dq|ld)|ptest|round[ps][sd]|movntdqa|"
      "pcmp[ei]str[im]|crc32.?|popcnt.?");
  static const std::regex scalar(
      "movbe.?|lzcnt.?|andn.?|bextr.?|bls(i|msk|r).?|bzhi.?|mulx.?|pdep.?|pext.?|rorx.?|"
      "s[ahr]r?[lr]?x[lq]?|adcx|adox|rdrand|rdseed|aes.*|pclmul.*|sha(1|256).*");
  return std::regex_match(mnemonic, sse3) || std::regex_match(mnemonic, ssse3) ||
         std::regex_match(mnemonic, sse4) || std::regex_match(mnemonic, scalar);
}

TEST(Instructions, PastTheBaselineStandOnlyInSourcesThatMayHaveThem) {
  const auto files = objects();
  ASSERT_FALSE(files.empty());
  std::size_t permitted = 0;
  for (const object_file& file : files) {
    const auto found = mnemonics(file.path);
    EXPECT_FALSE(found.empty() && file.extended) << file.path;
    for (const std::string& mnemonic : found) {
      if (file.extended) {
        permitted += is_vex(mnemonic) ? 1 : 0;
      } else {
        EXPECT_FALSE(is_vex(mnemonic) || is_past_baseline(mnemonic))
            << mnemonic << " in " << file.path;
      }
    }
  }
  const auto linked = mnemonics(LIBRARY);
  ASSERT_GT(linked.size(), 500u);
  EXPECT_EQ(static_cast<std::size_t>(std::count_if(linked.begin(), linked.end(), is_vex)),
            permitted);
}

// A weak symbol of an object with special instructions could become everybody's copy.
TEST(Instructions, ObjectsThatMayHaveThemDefineNoWeakSymbols) {
  for (const object_file& file : objects()) {
    if (!file.extended) continue;
    for (const std::string& line : output_of({NM, "--defined-only", file.path})) {
      const auto words = words_of(line);
      if (words.size() == 3) {
        EXPECT_FALSE(words[1] == "W" || words[1] == "V" || words[1] == "u") << line << file.path;
      }
    }
  }
}

TEST(Instructions, CheckKnowsWhatToLookFor) {
  for (const char* mnemonic : {"vmovdqu", "vzeroupper", "kmovq", "vpaddd"})
    EXPECT_TRUE(is_vex(mnemonic)) << mnemonic;
  for (const char* mnemonic : {"popcnt", "pshufb", "palignr", "pcmpistri", "shlx", "sarx",
                               "pblendw", "roundsd", "crc32b", "movbe", "lddqu"})
    EXPECT_TRUE(is_past_baseline(mnemonic)) << mnemonic;
  for (const char* mnemonic :
       {"mov", "movdqu", "tzcnt", "shl", "sar", "shrd", "bsr", "pcmpeqb", "pmovmskb", "xgetbv",
        "fxsave64", "pextrw", "pinsrw", "shufps", "pmaxub"})
    EXPECT_FALSE(is_vex(mnemonic) || is_past_baseline(mnemonic)) << mnemonic;
}

}  // namespace
