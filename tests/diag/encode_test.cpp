// What the library finds in the section of a large program, and how much of it it reads for that:
// the same 100 frames of a traceback, in sections of all sizes as the tool writes them, and of
// pieces as a linker joins them.
#include "encode.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "diag/trace_scan.h"

namespace {

using namespace zorvac;

unsigned reads = 0;  // of a file, a block at a time

// The routines of a program, 40 bytes of code each, with a gap behind them.
struct numbered_routine {
  std::uint64_t number;

  [[nodiscard]] std::uint64_t start() const { return 0x401000 + 48 * number; }
  [[nodiscard]] std::uint64_t end() const { return start() + 40; }
  // As long as those of C++ are, so that a block holds few.
  [[nodiscard]] std::string name() const {
    return "_ZN7program9component7routineI" + std::string(30, 'x') + std::to_string(number);
  }
  [[nodiscard]] std::size_t file() const { return number / 1000; }
  [[nodiscard]] std::uint32_t line() const { return static_cast<std::uint32_t>(number % 1000 + 1); }
};
std::string path(std::size_t file) { return "/src/part" + std::to_string(file) + ".cpp"; }

std::vector<unsigned char> section_of(std::uint64_t first, std::uint64_t last) {
  mktrace::tables t;
  for (numbered_routine r{first}; r.number != last; ++r.number) {
    t.routines.add(r.start(), r.end(), r.name());
    t.rows.push_back({r.start(), r.file(), r.line(), false});
    t.rows.push_back({r.start() + 8, r.file(), r.line() + 1000, false});
    t.rows.push_back({r.end(), mktrace::no_file, 0, true});
    while (t.files.size() <= r.file()) t.files.push_back(path(t.files.size()));
  }
  return mktrace::encode(t, mktrace::name_form::linker);
}

struct program {
  const char* name;
  std::uint64_t routines;
  std::uint64_t piece;  // so many routines are written at a time
  unsigned most_reads;  // a frame, on average
};
std::ostream& operator<<(std::ostream& out, const program& p) { return out << p.name; }

// A span is passed over by reading a block. In pieces of 64 routines there are no spans in spans.
constexpr program programs[] = {
    {"Large", 100'000, 100'000, 25},
    {"VeryLarge", 500'000, 500'000, 30},
    {"Joined", 100'000, 30'000, 25},
    {"WithoutSpansInSpans", 20'000, 64, 300},
};

class Section : public testing::TestWithParam<program> {};

TEST_P(Section, NamesAllFramesWithFewReads) {
  const program& p = GetParam();
  const int file = memfd_create(p.name, MFD_CLOEXEC);
  std::uint64_t size = 0;
  for (std::uint64_t first = 0; first < p.routines; first += p.piece) {
    std::vector<unsigned char> piece = section_of(first, std::min(first + p.piece, p.routines));
    piece.resize(piece.size() + piece.size() % 8);  // a linker aligns them, by zeros
    size += piece.size();
    ASSERT_EQ(write(file, piece.data(), piece.size()), std::ssize(piece));
  }

  diag::byte_source source;  // one for all frames, as in a traceback
  diag::found_places found;
  ASSERT_TRUE(source.open_file(("/proc/self/fd/" + std::to_string(file)).c_str()));
  reads = 0;
  constexpr std::uint64_t frames = 100;
  for (std::uint64_t frame = 1; frame <= frames; ++frame) {
    const numbered_routine r{frame * p.routines / frames - 1};
    tbk_pc_info info{"Unknown", "Unknown", 0};
    scan_trace(source, {0, size}, r.start() + 9, found, info);
    EXPECT_EQ(info.routine, r.name()) << "frame " << frame;
    EXPECT_EQ(info.file, path(r.file())) << "frame " << frame;
    EXPECT_EQ(info.line, r.line() + 1000) << "frame " << frame;
    tbk_pc_info none{"Unknown", "Unknown", 0};
    scan_trace(source, {0, size}, r.end() + 1, found, none);
    EXPECT_STREQ(none.routine, "Unknown") << "behind frame " << frame;
  }
  EXPECT_GT(reads, frames);
  EXPECT_LE(reads, 2 * frames * p.most_reads);
  source.close();
  close(file);
}

INSTANTIATE_TEST_SUITE_P(Of, Section, testing::ValuesIn(programs),
                         [](const auto& row) { return row.param.name; });

}  // namespace

extern "C" {
ssize_t __real_pread(int file, void* to, std::size_t bytes, off_t offset);
ssize_t __wrap_pread(int file, void* to, std::size_t bytes, off_t offset) {
  ++reads;
  return __real_pread(file, to, bytes, offset);
}
}
