// Sections that are cut, damaged or made to mislead: they cost names and nothing else, and what is
// around a section in its file is never looked at.
#include "diag/section.h"

#include <gtest/gtest.h>

namespace {

using namespace zorvac::test;

const std::vector<site> sites = {
    {"outer", 0, 0x1000, 0x1010}, {"middle", 0, 0x2000, 0x2fff}, {"inner", 0, 0x3000, 0x3001}};
const std::string file_in_front = record(11, "/src/in front.c");

std::string text_of(const tbk_pc_info& info) {
  return std::string(info.routine) + ' ' + info.file + ' ' + std::to_string(info.line);
}
std::string text_of(const site& s, std::size_t line) {
  return s.name + " /src/of " + s.name + ".c " + std::to_string(line);
}

// Looked up in a file of its own, and amid other bytes that continue it at both ends.
std::string found(const std::string& section, const std::string& behind, std::uint64_t address) {
  const std::size_t begin = file_in_front.size(), end = begin + section.size();
  std::string alone = text_of(look_up(section, address));
  EXPECT_EQ(text_of(look_up(file_in_front + section + behind, begin, end, address)), alone);
  return alone;
}

TEST(Section, IsReadAsFarAsItIsSound) {
  for (const form f : {plain, with_spans, with_unknown, without_lines}) {
    const std::string sound = section(sites, f);
    std::size_t known = 0, runs = 0;
    for (std::size_t i = 0; i <= sound.size(); ++i)
      for (const char change : {'\0', '\xff', '\x7f', '\x80'}) {
        std::string bytes = sound.substr(0, change == 0 ? i : sound.size());
        if (change != 0 && i < sound.size()) bytes[i] = change;
        for (std::size_t s = 0; s < sites.size(); ++s) {
          const bool right =
              found(bytes, sound.substr(bytes.size()), sites[s].pc) == text_of(sites[s], 101 + s);
          EXPECT_TRUE(bytes != sound || right == (f != without_lines)) << f;
          known += right;
          ++runs;
        }
      }
    EXPECT_EQ(known != 0, f != without_lines);
    EXPECT_LT(known, runs);
  }
}

TEST(Section, NamesNoFileInFrontOfItself) {
  const site& s = sites[0];
  const std::string body = routine(s);
  for (const std::size_t more : {std::size_t{0}, std::size_t{1}, file_in_front.size()}) {
    const std::string bytes = body + lines(s, 101, body.size() + more, 1);
    EXPECT_EQ(found(bytes, "", s.pc), "outer Unknown 101");
    const std::string all = file_in_front + bytes;  // and all of it as one section
    EXPECT_EQ(text_of(look_up(all, s.pc)),
              more == file_in_front.size() ? "outer /src/in front.c 101" : "outer Unknown 101");
  }
}

}  // namespace
