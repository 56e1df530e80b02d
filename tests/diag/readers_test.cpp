// What the traceback's readers make of files: how much of one is read at most, lines of the process
// map, and where an ELF file's segments say its bytes are.
#include <elf.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "diag/byte_source.h"
#include "diag/elf_image.h"
#include "diag/process_files.h"
#include "support/child.h"
#include "support/name_of_row.h"

namespace {

using namespace zorvac::diag;

byte_source source;

void open_text(const std::string& text) {
  source.open_memory({reinterpret_cast<const unsigned char*>(text.data()), text.size()});
}

// A file of holes, too large to be read: every block is looked into, the last ones in vain.
TEST(ByteSource, GivesAFileUpAfterSixtyFiveThousandBlocks) {
  constexpr std::uint64_t stride = 1 << 14, limit = 1 << 16;  // farther apart than a block is long
  const int file = memfd_create("holes", 0);
  ASSERT_EQ(ftruncate(file, static_cast<off_t>(stride * (limit + 10))), 0);
  ASSERT_TRUE(source.open_file(("/proc/self/fd/" + std::to_string(file)).c_str()));
  std::uint64_t blocks = 0;
  while (!source.at(blocks * stride).empty()) ++blocks;
  EXPECT_EQ(blocks, limit);
  source.close();
  close(file);
}

// Whatever stands under an image's name, opening it neither waits nor takes a terminal.
TEST(ByteSource, DoesNotWaitForThePipeThatItOpens) {
  const auto path = std::filesystem::temp_directory_path() / ("pipe" + std::to_string(getpid()));
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  const auto outcome = zorvac::test::run_in_child([&] {
    alarm(10);
    std::printf("opened: %d\n", source.open_file(path.c_str()));
    std::printf("bytes: %zu\n", source.at(0).size());
  });
  EXPECT_EQ(outcome.standard_output, "opened: 1\nbytes: 0\n");
  EXPECT_EQ(outcome.signal, 0);
  std::filesystem::remove(path);
}
TEST(ByteSource, DoesNotTakeTheTerminalThatItOpens) {
  const auto outcome = zorvac::test::run_in_child([] {
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
    if (grantpt(terminal) != 0 || unlockpt(terminal) != 0 || setsid() < 0) std::perror("terminal");
    std::printf("opened: %d\n", source.open_file(ptsname(terminal)));
    std::printf("controls: %d\n", open("/dev/tty", O_RDONLY) >= 0);
  });
  EXPECT_EQ(outcome.standard_output, "opened: 1\ncontrols: 0\n") << outcome.standard_error;
}

struct map_text {
  const char* name;
  std::string text;
  std::vector<std::string> lines;  // begin, end and offset in hexadecimal, and the path
};
std::ostream& operator<<(std::ostream& out, const map_text& row) { return out << row.name; }

const std::string inode = "fe:00 1234    ", long_path = "/" + std::string(9000, 'x');
const map_text map_texts[] = {
    {"Empty", "", {}},
    {"File", "1000-2000 r-xp 00003000 " + inode + "/lib/a.so\n", {"1000 2000 3000 /lib/a.so"}},
    {"BlanksInThePath", "1-2 r--p 3 " + inode + "/a b/c (deleted)\n", {"1 2 3 /a b/c (deleted)"}},
    {"NoFile", "1-2 rw-p 0 00:00 0\n3-4 r-xp 0 00:00 0 [vdso]\n", {"1 2 0 ", "3 4 0 "}},
    {"NoEndOfTheLine", "1-2 r--p 3 " + inode + "/a", {"1 2 3 /a"}},
    {"LargestNumbers",
     "ffffffffffff0000-ffffffffffffffff r--p ffffffffffff0000 " + inode + "/a\n",
     {"ffffffffffff0000 ffffffffffffffff ffffffffffff0000 /a"}},
    {"TooLargeANumber", "10000000000000000-2 r--p 3 /a\n4-5 r--p 6 /b\n", {"4 5 6 /b"}},
    {"NoLinesOfAMap",
     "\n \n-\n1\n1-\n1-2\n1-2 r--p\n1-2 r--p \nhello\n4-5 r--p 6 /b\n",
     {"4 5 6 /b"}},
    {"TooLongALine",
     "1-2 r--p 3 " + long_path + "\n4-5 r--p 6 /b\n",
     {("1 2 3 " + long_path).substr(0, 8192 - 5), "4 5 6 /b"}},
};

class MapReader : public testing::TestWithParam<map_text> {};

TEST_P(MapReader, TellsWhatIsMappedWhere) {
  open_text(GetParam().text);
  map_reader map(source);
  std::vector<std::string> lines;
  for (map_line line; map.next(line);) {
    char numbers[64];
    std::snprintf(numbers, sizeof numbers, "%lx %lx %lx ", line.begin, line.end, line.offset);
    lines.push_back(numbers + std::string(line.path));
  }
  EXPECT_EQ(lines, GetParam().lines);
}
INSTANTIATE_TEST_SUITE_P(Lines, MapReader, testing::ValuesIn(map_texts), zorvac::test::name_of_row);

// What is at an address, in one short text.
std::string found_at(map_reader& map, std::uint64_t address) {
  map_line line;
  if (!map.find(address, line) || *line.path == '\0') return "no file";
  char numbers[64];
  std::snprintf(numbers, sizeof numbers, "%lx %lx %lx ", line.begin, line.end, line.offset);
  return numbers + std::string(line.path);
}

// Asking the kernel and reading its text tell the same of each mapping's first and last byte, and of
// what is behind it.
TEST(MapOfThisProcess, IsFoundInTheTextAsTheKernelTells) {
  static char text[1 << 16];
  static byte_source file, memory;
  file.open_kernel_file("/proc/self/maps");
  ASSERT_TRUE(file.read(0, text, 1));
  std::size_t length = 0;
  while (length < sizeof text && file.read(length, text + length, 1)) ++length;
  memory.open_memory({reinterpret_cast<const unsigned char*>(text), length});

  std::vector<std::uint64_t> addresses;
  map_reader lines(memory), in_text(memory), by_kernel(file);
  for (map_line line; lines.next(line);)
    addresses.insert(addresses.end(), {line.begin, line.end - 1, line.end});
  std::size_t files = 0;
  for (const std::uint64_t address : addresses) {
    const std::string found = found_at(in_text, address);
    EXPECT_EQ(found_at(by_kernel, address), found) << std::hex << address;
    files += found != "no file";
  }
  EXPECT_GT(files, 10u);
  file.close();
}

// The segments of a file: in the second, 0x2000 bytes of code from offset 0x1000 on, linked for
// address 0x41000; then data whose bytes are the last of the code's, too.
constexpr Elf64_Phdr segments[] = {
    {PT_LOAD, PF_R, 0, 0x40000, 0, 0x1000, 0x1000, 0x1000},
    {PT_NOTE, PF_X, 0x1000, 0x77000, 0, 0x2000, 0x2000, 8},
    {PT_LOAD, PF_R | PF_W, 0x2f00, 0x53f00, 0, 0x200, 0x900, 0x1000},
    {PT_LOAD, PF_R | PF_X, 0x1000, 0x41000, 0, 0x2000, 0x2000, 0x1000},
};
constexpr std::uint64_t mapped = 0x7f0000000000;

struct placed_byte {
  const char* name;
  std::uint64_t offset;
  std::uint64_t address;  // in the file; 0: it is in no segment
};
std::ostream& operator<<(std::ostream& out, const placed_byte& row) { return out << row.name; }
constexpr placed_byte placed_bytes[] = {
    {"FirstOfTheFile", 0, 0x40000},      {"LastInFrontOfTheCode", 0xfff, 0x40fff},
    {"FirstOfTheCode", 0x1000, 0x41000}, {"CodeBeforeData", 0x2fff, 0x42fff},
    {"Data", 0x3000, 0x54000},           {"LastOfTheData", 0x30ff, 0x540ff},
    {"BehindTheFile", 0x3100, 0},        {"FarBehind", UINT64_MAX, 0},
};

class Segments : public testing::TestWithParam<placed_byte> {
 protected:
  Segments() {
    header.e_phoff = 8;
    header.e_phentsize = sizeof segments[0];
    header.e_phnum = std::size(segments);
    text.assign(8, '\0');
    text.append(reinterpret_cast<const char*>(segments), sizeof segments);
    open_text(text);
  }
  std::string text;
  Elf64_Ehdr header{};
};

TEST_P(Segments, SayWhatAddressAByteWasLinkedFor) {
  std::uint64_t bias = 0;
  const std::uint64_t address = mapped + GetParam().offset;
  const bool known = find_bias(source, header, GetParam().offset, address, bias);
  EXPECT_EQ(known, GetParam().address != 0);
  EXPECT_EQ(known ? address - bias : 0, GetParam().address);
}
INSTANTIATE_TEST_SUITE_P(Bytes, Segments, testing::ValuesIn(placed_bytes),
                         zorvac::test::name_of_row);

TEST_F(Segments, AreNotThereWhereTheHeaderMisleads) {
  std::uint64_t bias = 0;
  Elf64_Ehdr wrong = header;
  wrong.e_phentsize = 32;
  EXPECT_FALSE(find_bias(source, wrong, 0, mapped, bias));
  wrong = header;
  wrong.e_phoff = UINT64_MAX - 8;  // the table's end wraps
  EXPECT_FALSE(find_bias(source, wrong, 0, mapped, bias));
  wrong = header;
  wrong.e_phnum = UINT16_MAX;  // most of the table is not there
  EXPECT_FALSE(find_bias(source, wrong, 0x4000, mapped, bias));
}

}  // namespace
