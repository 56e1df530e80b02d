#ifndef ZORVAC_TESTS_DIAG_SECTION_H
#define ZORVAC_TESTS_DIAG_SECTION_H
// `.trace` sections written byte by byte after docs/trace-format.md, and what the library finds in one.
#include <cstdint>
#include <string>
#include <vector>

#include "diag/byte_source.h"
#include "diag/trace_scan.h"

namespace zorvac::test {

// A routine and an address in it.
struct site {
  std::string name;
  std::uint64_t bias, start, pc;
};

template <class Integer>
std::string bytes_of(Integer value) {
  return {reinterpret_cast<const char*>(&value), sizeof value};
}
inline std::string uleb(std::uint64_t value) {
  std::string bytes;
  for (; value >= 0x80; value >>= 7) bytes += static_cast<char>(value | 0x80);
  return bytes + static_cast<char>(value);
}
inline std::string sleb(std::int64_t value) {
  std::string bytes;
  for (; value < -64 || value > 63; value >>= 7) bytes += static_cast<char>(value | 0x80);
  return bytes + static_cast<char>(value & 0x7f);
}
inline std::string record(int tag, const std::string& body, int version = 1) {
  return std::string{static_cast<char>(tag), static_cast<char>(version)} +
         bytes_of(static_cast<std::uint32_t>(body.size())) + body;
}
inline std::string routine(const site& s) {
  return std::string{10, 2} + bytes_of(s.start - s.bias) +
         bytes_of(static_cast<std::uint32_t>(s.pc - s.start + 1)) +
         bytes_of(static_cast<std::uint16_t>(s.name.size())) + s.name;
}
// A row for the routine's start, one for the program counter, and one behind it; two files of which
// the second is meant, so many bytes in front.
inline std::string lines(const site& s, std::size_t line, std::uint64_t distance,
                         std::uint64_t other_file) {
  return record(12, uleb(2) + uleb(other_file) + uleb(distance) +  //
                        uleb(0) + sleb(500) +                      //
                        uleb((s.pc - s.start) * 2 + 1) + uleb(1) +
                        sleb(static_cast<std::int64_t>(line) - 500) +  //
                        uleb(3) + uleb(0) + sleb(7));
}

enum form { plain, with_spans, with_unknown, without_lines, form_count };

// One piece for each routine, as a compiler would write them and a linker join them, or with what
// other writers may put in between.
inline std::string section(const std::vector<site>& sites, form f) {
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
      all.insert(0, record(13, bytes_of(s.pc - s.bias + 1) + bytes_of(std::uint64_t{99}) +
                                   bytes_of(static_cast<std::uint32_t>(hidden.size()))) +
                        hidden);
      all += record(13, bytes_of(s.start - s.bias) + bytes_of(s.pc - s.start + 1) +
                            bytes_of(static_cast<std::uint32_t>(body.size())));
    }
    all += body;
  }
  return all;
}

// What the library finds in the section between two places of a file.
inline tbk_pc_info look_up(const std::string& file, std::size_t begin, std::size_t end,
                           std::uint64_t address) {
  static diag::byte_source source;
  source.open_memory({reinterpret_cast<const unsigned char*>(file.data()), file.size()});
  tbk_pc_info info{"Unknown", "Unknown", 0};
  scan_trace(source, {begin, end}, address, info);
  return info;
}
inline tbk_pc_info look_up(const std::string& section, std::uint64_t address) {
  return look_up(section, 0, section.size(), address);
}

}  // namespace zorvac::test
#endif
