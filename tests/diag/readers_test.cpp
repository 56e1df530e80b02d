// Tests the traceback's readers of files: the limit on how much of a file is read, lines of the
// process map, the addresses of bytes by an ELF file's segments, and `.trace` sections that are
// damaged or malicious. These may only lose names.
#include <elf.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "diag/byte_source.h"
#include "diag/elf_image.h"
#include "diag/process_files.h"
#include "diag/trace_scan.h"
#include "support/bytes.h"
#include "support/guard_pages.h"

namespace {

using namespace zorvac::diag;
using namespace std::string_literals;

byte_source source;

// The file ends at a page that must not be touched.
void open_text(const std::string& text) {
  static const zorvac::test::guarded_block memory(1 << 14);
  unsigned char* const begin = memory.end() - text.size();
  std::copy(text.begin(), text.end(), begin);
  source.open_memory({begin, text.size()});
}

// A sparse file that is too large to be read. Every block is asked for, and the last ones are not
// given.
TEST(ByteSource, GivesAFileUpAfterSixtyFiveThousandBlocks) {
  constexpr std::uint64_t stride = 1 << 14, limit = 1 << 16;  // the stride is more than a block
  const int file = memfd_create("holes", 0);
  ASSERT_EQ(ftruncate(file, static_cast<off_t>(stride * (limit + 10))), 0);
  ASSERT_TRUE(source.open_file(("/proc/self/fd/" + std::to_string(file)).c_str()));
  std::uint64_t blocks = 0;
  while (!source.at(blocks * stride).empty()) ++blocks;
  EXPECT_EQ(blocks, limit);
  source.close();
  close(file);
}

// ---- The process map ----

const std::string inode = "fe:00 1234    ", long_path = "/" + std::string(9000, 'x');
const struct {
  const char* name;
  std::string text;
  std::vector<std::string> lines;  // begin, end and offset in hexadecimal, and the path
} map_texts[] = {
    {"blanks in the path",
     "1000-2000 r-xp 3000 " + inode + "/a b/c (deleted)\n",
     {"1000 2000 3000 /a b/c (deleted)"}},
    {"no file", "1-2 rw-p 0 00:00 0\n3-4 r-xp 0 00:00 0 [vdso]\n", {"1 2 0 ", "3 4 0 "}},
    {"no end of the line", "1-2 r--p 3 " + inode + "/a", {"1 2 3 /a"}},
    {"largest numbers",
     "ffffffffffff0000-ffffffffffffffff r--p ffffffffffff0000 " + inode + "/a\n",
     {"ffffffffffff0000 ffffffffffffffff ffffffffffff0000 /a"}},
    {"too large a number", "10000000000000000-2 r--p 3 /a\n4-5 r--p 6 /b\n", {"4 5 6 /b"}},
    {"no lines of a map",
     "\n \n-\n1\n1-\n1-2\n1-2 r--p\n1-2 r--p \nhello\n4-5 r--p 6 /b\n",
     {"4 5 6 /b"}},
    {"too long a line",
     "1-2 r--p 3 " + long_path + "\n4-5 r--p 6 /b\n",
     {("1 2 3 " + long_path).substr(0, 8192 - 5), "4 5 6 /b"}},
};

TEST(MapReader, SaysWhatIsMappedWhere) {
  for (const auto& row : map_texts) {
    open_text(row.text);
    map_reader map(source);
    std::vector<std::string> lines;
    for (map_line line; map.next(line);) {
      char numbers[64];
      std::snprintf(numbers, sizeof numbers, "%lx %lx %lx ", line.begin, line.end, line.offset);
      lines.push_back(numbers + std::string(line.path));
    }
    EXPECT_EQ(lines, row.lines) << row.name;
  }
}

// The addresses are in ascending order, for one reading. Some lie between two lines.
TEST(MapReader, FindsTheLineThatHoldsAnAddress) {
  open_text("1000-2000 r--p 0 /a\n2000-3000 r--p 0 /b\n4000-5000 r--p 0 /c\n");
  map_reader map(source);
  const std::pair<std::uint64_t, const char*> paths[] = {
      {0xfff, ""},  {0x1000, "/a"}, {0x1fff, "/a"}, {0x2000, "/b"},
      {0x3000, ""}, {0x3fff, ""},   {0x4000, "/c"}, {0x5000, ""}};
  for (const auto& [address, path] : paths) {
    map_line line;
    const bool found = map.find(address, line);
    EXPECT_STREQ(found ? line.path : "", path) << std::hex << address;
  }
}

// ---- Segments ----

// The last segment has 0x2000 bytes of code from offset 0x1000 on, linked for address 0x41000.
// Before it in the table is a data segment, whose bytes are also the last ones of the code.
constexpr Elf64_Phdr segments[] = {
    {PT_LOAD, PF_R, 0, 0x40000, 0, 0x1000, 0x1000, 0x1000},
    {PT_NOTE, PF_X, 0x1000, 0x77000, 0, 0x2000, 0x2000, 8},
    {PT_LOAD, PF_R | PF_W, 0x2f00, 0x53f00, 0, 0x200, 0x900, 0x1000},
    {PT_LOAD, PF_R | PF_X, 0x1000, 0x41000, 0, 0x2000, 0x2000, 0x1000},
};
const struct {
  const char* name;
  std::uint64_t offset;
  std::uint64_t address;  // in the file; 0: it is in no segment
  std::uint64_t table = 0;
  std::uint16_t entry_bytes = sizeof segments[0];
  std::uint16_t entries = std::size(segments);
} placed_bytes[] = {
    {"last in front of the code", 0xfff, 0x40fff},
    {"first of the code", 0x1000, 0x41000},
    {"code rather than data", 0x2fff, 0x42fff},
    {"last of the data", 0x30ff, 0x540ff},
    {"behind the file", 0x3100, 0},
    {"far behind", UINT64_MAX, 0},
    {"fewer entries than stated", 0x4000, 0, 0, sizeof segments[0], UINT16_MAX},
    {"entries of another size", 0, 0, 0, sizeof segments[0] + 1},
    {"a table whose end wraps", 0, 0, 0 - sizeof segments[0]},
};

TEST(Segments, SayWhatAddressAByteWasLinkedFor) {
  constexpr std::uint64_t mapped = 0x7f0000000000;
  source.open_memory({reinterpret_cast<const unsigned char*>(segments), sizeof segments});
  for (const auto& row : placed_bytes) {
    Elf64_Ehdr header{};
    header.e_phoff = row.table;
    header.e_phentsize = row.entry_bytes;
    header.e_phnum = row.entries;
    std::uint64_t bias = 0;
    const bool known = find_bias(source, header, row.offset, mapped + row.offset, bias);
    EXPECT_EQ(known ? mapped + row.offset - bias : 0, row.address) << row.name;
  }
}

// ---- Sections ----

// Before the section there is the record of a file. The section begins with what a linker and other
// writers may write: padding, unknown records, a routine without lines, a span of other addresses.
// Then follows the example of docs/trace-format.md, byte for byte.
const std::string names = "\0.trace\0"s, outside = "\x0b\1\1\0\0\0!"s;
const std::string others =
    "\0\x4d\1\1\0\0\0?\x0c\x09\0\0\0\0"s
    "\x0a\2\0\x09\0\0\0\0\0\0\x10\0\0\0\1\0x"s
    "\x0d\1\x14\0\0\0\0\x20\0\0\0\0\0\0\7\0\0\0\0\0\0\0\0\0\0\0"s;
const std::string example =
    "\x0b\1\x0b\0\0\0/src/area.c"s
    "\x0d\1\x14\0\0\0\0\x10\0\0\0\0\0\0\7\0\0\0\0\0\0\0\x22\0\0\0"s
    "\x0a\2\0\x10\0\0\0\0\0\0\7\0\0\0\4\0area"s
    "\x0c\1\x08\0\0\0\1\x3f\0\2\6\5\6\1"s;

// The .trace section is the 33rd of 34.
constexpr std::size_t header_bytes = 64, trace_header = 33 * header_bytes;
constexpr std::size_t size_field = trace_header + offsetof(Elf64_Shdr, sh_size);
constexpr std::size_t names_header = trace_header + header_bytes;
constexpr std::size_t end_of_headers = names_header + header_bytes;
const std::size_t section_bytes = others.size() + example.size();

std::string make_image() {
  std::string file = std::string(end_of_headers, '\0') + names + outside + others + example;
  auto& header = reinterpret_cast<Elf64_Ehdr&>(file[0]);
  auto& trace = reinterpret_cast<Elf64_Shdr&>(file[trace_header]);
  auto& name_table = reinterpret_cast<Elf64_Shdr&>(file[names_header]);
  std::memcpy(header.e_ident, ELFMAG "\2", 5);
  header.e_machine = EM_X86_64;
  header.e_shoff = header_bytes;
  header.e_shentsize = header_bytes;
  header.e_shnum = 34;
  header.e_shstrndx = 33;
  trace.sh_name = 1;
  trace.sh_offset = file.size() - section_bytes;
  trace.sh_size = section_bytes;
  name_table.sh_offset = end_of_headers;
  name_table.sh_size = names.size();
  return file;
}
const std::string image = make_image();
const std::size_t at = image.size() - example.size();

// Routine, source file and line of an address.
std::string found(const std::string& file, std::uint64_t address) {
  open_text(file);
  tbk_pc_info info{"Unknown", "Unknown", 0};
  Elf64_Ehdr header;
  if (read_elf_header(source, header))
    scan_trace(source, find_trace_section(source, header), address, info);
  return std::string(info.routine) + ' ' + info.file + ' ' + std::to_string(info.line);
}

// A section in which one byte has another value.
const struct {
  const char* name;
  std::size_t place, value;
  const char* found = "Unknown Unknown 0";  // at 0x1003
} damages[] = {
    {"none", 0, 0x7f, "area /src/area.c 7"},
    {"no ELF file", EI_MAG3, 'f'},
    {"for 32 bits", EI_CLASS, ELFCLASS32},
    {"for another machine", offsetof(Elf64_Ehdr, e_machine), EM_386},
    {"headers of another size", offsetof(Elf64_Ehdr, e_shentsize), 65},
    {"not among the headers", offsetof(Elf64_Ehdr, e_shnum), 32},
    {"names in another section", offsetof(Elf64_Ehdr, e_shstrndx), 32},
    {"names cut short", names_header + offsetof(Elf64_Shdr, sh_size), 7},
    {"a name behind the names", trace_header + offsetof(Elf64_Shdr, sh_name), 9},
    {"no bytes in the file", trace_header + offsetof(Elf64_Shdr, sh_type), SHT_NOBITS},
    {"compressed", trace_header + offsetof(Elf64_Shdr, sh_flags) + 1, SHF_COMPRESSED >> 8},
    {"its end wraps", trace_header + offsetof(Elf64_Shdr, sh_offset) + 7, 0xff},
    {"a span of other addresses", at + 0x18, 0x20},
    {"no span", at + 0x12, 0x4d, "area /src/area.c 7"},
    {"a routine of another version", at + 0x2c, 3},
    {"an end in the routine's name", size_field, section_bytes - (0x4d - 0x3d), "ar Unknown 0"},
    {"an end in the lines", size_field, section_bytes - (0x4d - 0x49), "area /src/area.c 2"},
    {"lines of another version", at + 0x40, 2, "area Unknown 0"},
    {"more files than there are", at + 0x45, 99, "area Unknown 0"},
    {"a file of another version", at + 1, 2, "area Unknown 7"},
    {"a distance to no file", at + 0x46, 62, "area Unknown 7"},
    {"a distance to a file in front of the section", at + 0x46,
     0x3f + others.size() + outside.size(), "area Unknown 7"},
};

TEST(Section, LosesOnlyWhatADamagedByteDescribes) {
  EXPECT_EQ(found(image, 0x90f), "x Unknown 0");
  EXPECT_EQ(found(image, 0x910), "Unknown Unknown 0");
  for (const auto& row : damages) {
    std::string file = image;
    file[row.place] = static_cast<char>(row.value);
    EXPECT_EQ(found(file, 0x1003), row.found) << row.name;
  }
}

// The page after the file is not touched, and every lookup ends.
TEST(Section, IsNotReadBeyondTheFile) {
  for (std::size_t place = 0; place < image.size(); ++place) {
    found(image.substr(0, place), 0x1003);
    for (const char value : {'\x7f', '\x80', '\xff'}) {
      std::string file = image;
      file[place] = value;
      found(file, 0x1003);
    }
  }
}

}  // namespace
