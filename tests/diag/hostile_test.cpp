// Images and `.trace` sections that are cut, damaged or made to mislead: they cost names and nothing
// else, and what is around a section in its file is never looked at.
#include <gtest/gtest.h>

#include <cstring>

#include "diag/trace_scan.h"

namespace {

using namespace zorvac::diag;
using namespace std::string_literals;

// What a linker and other writers may put in front of the example of docs/trace-format.md: padding,
// records that nobody knows, a routine without lines. Then the example, byte for byte.
const std::string others =
    "\0\0\x4d\1\3\0\0\0wha\x0c\x09\1\0\0\0\xff"s
    "\x0a\2\0\x09\0\0\0\0\0\0\x10\0\0\0\1\0x"s;
const std::string example =
    "\x0b\1\x0b\0\0\0/src/area.c"s
    "\x0d\1\x14\0\0\0\0\x10\0\0\0\0\0\0\7\0\0\0\0\0\0\0\x22\0\0\0"s
    "\x0a\2\0\x10\0\0\0\0\0\0\7\0\0\0\4\0area"s
    "\x0c\1\x08\0\0\0\1\x3f\0\2\6\5\6\1"s;

struct image {
  std::string file =
      std::string(35 * 64, '\0') + "\0.trace\0\x0b\1\4\0\0\0evil"s + others + example;
  Elf64_Ehdr& header = *reinterpret_cast<Elf64_Ehdr*>(file.data());
  Elf64_Shdr& trace = reinterpret_cast<Elf64_Shdr*>(file.data())[33];
  Elf64_Shdr& names = (&trace)[1];
  char* at = file.data() + file.size() - example.size();  // the example

  image() {
    std::memcpy(header.e_ident, ELFMAG "\2", 5);
    header.e_machine = EM_X86_64;
    header.e_shoff = header.e_shentsize = 64;
    header.e_shnum = 34;
    header.e_shstrndx = 33;
    names.sh_offset = std::size_t{35} * 64;
    names.sh_size = 8;
    trace.sh_name = 1;
    trace.sh_size = others.size() + example.size();
    trace.sh_offset = file.size() - trace.sh_size;
  }
};

// What the library finds in a file: routine, source file and line.
std::string found(const std::string& file, std::uint64_t address) {
  static byte_source source;
  source.open_memory({reinterpret_cast<const unsigned char*>(file.data()), file.size()});
  tbk_pc_info info{"Unknown", "Unknown", 0};
  Elf64_Ehdr header;
  if (read_elf_header(source, header))
    scan_trace(source, find_trace_section(source, header), address, info);
  return std::string(info.routine) + ' ' + info.file + ' ' + std::to_string(info.line);
}

const std::string nothing = "Unknown Unknown 0";
struct damage {
  void (*done)(image&);
  std::string says;
  std::uint64_t address = 0x1003;
};
const damage damages[] = {
    {[](image&) {}, "area /src/area.c 7"},
    {[](image&) {}, "area /src/area.c 2", 0x1002},
    {[](image&) {}, "area /src/area.c 8", 0x1006},
    {[](image&) {}, nothing, 0x1007},
    {[](image&) {}, "x Unknown 0", 0x90f},
    {[](image& i) { i.header.e_ident[EI_MAG3] = 'f'; }, nothing},
    {[](image& i) { i.header.e_ident[EI_CLASS] = ELFCLASS32; }, nothing},
    {[](image& i) { i.header.e_machine = EM_386; }, nothing},
    {[](image& i) { i.header.e_shentsize = 65; }, nothing},
    {[](image& i) { i.header.e_shnum = 32; }, nothing},
    {[](image& i) { i.header.e_shstrndx = 32; }, nothing},
    {[](image& i) { i.names.sh_size = 7; }, nothing},
    {[](image& i) { i.trace.sh_name = 9; }, nothing},
    {[](image& i) { i.trace.sh_type = SHT_NOBITS; }, nothing},
    {[](image& i) { i.trace.sh_flags = SHF_COMPRESSED; }, nothing},
    {[](image& i) { i.trace.sh_offset = UINT64_MAX; }, nothing},
    {[](image& i) { i.trace.sh_size -= 0x4d - 0x3d; }, "ar Unknown 0"},
    {[](image& i) { i.trace.sh_size -= 0x4d - 0x49; }, "area /src/area.c 2"},
    {[](image& i) { i.at[0x01] = 2; }, "area Unknown 7"},
    {[](image& i) { i.at[0x18] = 0x20; }, nothing},
    {[](image& i) { i.at[0x18] = 0x20, i.at[0x27] = 0; }, "area /src/area.c 7"},
    {[](image& i) { i.at[0x2c] = 3; }, nothing},
    {[](image& i) { i.at[0x40] = 2; }, "area Unknown 0"},
    {[](image& i) { i.at[0x45] = 99; }, "area Unknown 0"},
    // A distance to something else, and to the file in front of the section.
    {[](image& i) { i.at[0x46] = 62; }, "area Unknown 7"},
    {[](image& i) { i.at[0x46] = static_cast<char>(63 + others.size() + 10); }, "area Unknown 7"},
};

TEST(Hostile, FieldsCostWhatTheyTellOf) {
  for (const damage& d : damages) {
    image i;
    d.done(i);
    EXPECT_EQ(found(i.file, d.address), d.says) << &d - damages;
  }
}

TEST(Hostile, NoByteOrCutDoesHarm) {
  const std::string whole = image().file;
  for (std::size_t i = 0; i < whole.size(); ++i) {
    found(whole.substr(0, i), 0x1003);
    const std::size_t section = whole.size() - others.size() - example.size();
    const bool in_front = i < section && i >= section - 10;
    for (const char value : {'\x7f', '\x80', '\xff'}) {
      std::string file = whole;
      file[i] = value;
      const std::string says = found(file, 0x1003);
      EXPECT_TRUE(!in_front || says == "area /src/area.c 7") << i;
    }
  }
}

}  // namespace
