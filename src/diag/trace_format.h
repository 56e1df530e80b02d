#ifndef ZORVAC_DIAG_TRACE_FORMAT_H
#define ZORVAC_DIAG_TRACE_FORMAT_H
// The layout of a `.trace` section, which gives the routine, source file and line of each address
// of its image. docs/trace-format.md describes it byte by byte, with the reasons. The library's
// reader, the tool that writes the section, and the tests of both share this header and nothing
// else.
//
// A section is a sequence of records. All integers are little-endian and not aligned; addresses are
// link-time addresses. Nothing here trusts the bytes: a reader that uses these functions stays
// inside the range that it states, and ends.
#include <cstddef>
#include <cstdint>

#include "core/unaligned.h"

namespace zorvac::diag::trace {

inline constexpr char section_name[] = ".trace";

enum tag : unsigned char {
  padding_tag = 0,   // the tag byte is the whole record
  routine_tag = 10,  // has no body: its size follows from its own fields
  file_tag = 11,     // body: the bytes of a path
  lines_tag = 12,    // body: the line table of the last routine record before it
  span_tag = 13,     // body: the addresses that the next records are about
};
inline constexpr unsigned char routine_version = 2;
inline constexpr unsigned char file_version = 1;
inline constexpr unsigned char lines_version = 1;
inline constexpr unsigned char span_version = 1;

// Offsets into a record. Every record but padding begins with these two bytes.
inline constexpr std::size_t version_offset = 1;

// A routine: addresses [start, start + length), and a name without a terminating zero.
inline constexpr std::size_t routine_start_offset = 2;         // 64 bits
inline constexpr std::size_t routine_length_offset = 10;       // 32 bits
inline constexpr std::size_t routine_name_length_offset = 14;  // 16 bits
inline constexpr std::size_t routine_head_bytes = 16;          // the name follows

// Every other record, whether or not the reader knows it.
inline constexpr std::size_t body_length_offset = 2;  // 32 bits
inline constexpr std::size_t body_offset = 6;

// The body of a span: the records in the `bytes` bytes right after the span's record are about
// addresses in [start, start + length) only. They may be spans, too.
inline constexpr std::size_t span_start_offset = 0;   // 64 bits
inline constexpr std::size_t span_length_offset = 8;  // 64 bits
inline constexpr std::size_t span_bytes_offset = 16;  // 32 bits
inline constexpr std::size_t span_body_bytes = 20;

// The bytes of a record that say what it is and where the next one begins.
inline constexpr std::size_t head_bytes = routine_head_bytes;

// The number of bytes from the tag at `head` to the tag of the next record. `available` bytes may
// be read at `head`. 0 where the number cannot be known, which ends a scan. The result may exceed
// `available`, and may lead beyond the section.
inline std::uint64_t record_bytes(const unsigned char* head, std::size_t available) {
  if (available == 0) return 0;
  if (head[0] == padding_tag) return 1;
  if (head[0] == routine_tag) {
    if (available < routine_head_bytes || head[version_offset] != routine_version) return 0;
    return routine_head_bytes + load_unaligned<std::uint16_t>(head + routine_name_length_offset);
  }
  if (available < body_offset) return 0;
  return std::uint64_t{body_offset} + load_unaligned<std::uint32_t>(head + body_length_offset);
}

// Line tables are read byte by byte from a source: any type with `bool next(unsigned char&)`, which
// is false at the end of the body. This source reads from memory; trace_scan.cpp has one for files.
class memory_source {
 public:
  memory_source(const unsigned char* begin, const unsigned char* end) : at_{begin}, end_{end} {}
  bool next(unsigned char& byte) {
    if (at_ == end_) return false;
    byte = *at_++;
    return true;
  }

 private:
  const unsigned char* at_;
  const unsigned char* end_;
};

// LEB128 numbers (DWARF 5, 7.6) have seven bits in a byte, the low ones first, and here at most ten
// bytes. Bits of the tenth byte beyond 64 bits are dropped.
inline constexpr unsigned longest_leb128 = 10;

// Bit 6 of the last byte of a signed number is its sign, which fills all higher bits.
template <class Source>
bool read_leb128(Source& source, std::uint64_t& value, bool is_signed) {
  value = 0;
  for (unsigned shift = 0; shift < 7 * longest_leb128; shift += 7) {
    unsigned char byte = 0;
    if (!source.next(byte)) return false;
    value |= static_cast<std::uint64_t>(byte & 0x7F) << shift;
    if ((byte & 0x80) != 0) continue;
    if (is_signed && (byte & 0x40) != 0 && shift + 7 < 64)
      value |= ~std::uint64_t{0} << (shift + 7);
    return true;
  }
  return false;
}

template <class Source>
bool read_uleb128(Source& source, std::uint64_t& value) {
  return read_leb128(source, value, false);
}
template <class Source>
bool read_sleb128(Source& source, std::uint64_t& value) {
  return read_leb128(source, value, true);
}

// One row of a line table. It holds from its offset to the next row's, or to the routine's end.
struct line_row {
  std::uint64_t offset = 0;  // from the routine's start
  std::uint64_t file = 0;    // index into the table's files; one beyond them means no file
  std::uint32_t line = 0;    // 0: no line
};

// Reads the rows of a line table, in order of address, from a source at the start of the body:
//
//   count of files, ULEB128; that many distances, ULEB128 each (see file_distance)
//   rows: ULEB128 2 * (offset - offset of the row before) + (1 if the file changes)
//         ULEB128 index of the new file, only if it changes
//         SLEB128 line - line of the row before, modulo 2^32
//
// The row before the first is {0, 0, 0}.
template <class Source>
class line_rows {
 public:
  explicit line_rows(Source& source) : source_{source} {
    std::uint64_t files = 0, distance = 0;
    sound_ = read_uleb128(source_, files);
    while (sound_ && files-- > 0) sound_ = read_uleb128(source_, distance);
  }
  // False at the end of the table, and where the table is damaged.
  bool next(line_row& row) {
    std::uint64_t advance = 0, line = 0;
    if (!sound_ || !read_uleb128(source_, advance)) return sound_ = false;
    if ((advance & 1) != 0 && !read_uleb128(source_, row_.file)) return sound_ = false;
    if (!read_sleb128(source_, line)) return sound_ = false;
    row_.offset += advance >> 1;
    row_.line += static_cast<std::uint32_t>(line);
    row = row_;
    return true;
  }

 private:
  Source& source_;
  line_row row_;
  bool sound_ = false;
};

// Reads the distance of a file, from a source at the start of the body: how many bytes before the
// line record's tag the tag of the file's record is. False: there is no such file. The distance may
// have any value.
template <class Source>
bool file_distance(Source& source, std::uint64_t file, std::uint64_t& distance) {
  std::uint64_t files = 0;
  if (!read_uleb128(source, files) || file >= files) return false;
  do {
    if (!read_uleb128(source, distance)) return false;
  } while (file-- > 0);
  return true;
}

}  // namespace zorvac::diag::trace
#endif
