// Headers are read from where the file says they are, and are not kept. Their offsets are not
// compared with the size of the file: reading beyond its end fails.
#include "diag/elf_image.h"

#include <algorithm>
#include <cstring>
#include <span>

#include "diag/trace_format.h"

namespace zorvac::diag {
namespace {

// Reads headers from the one with index `first` on. False where some of them cannot be read.
bool read_section_headers(byte_source& file, const Elf64_Ehdr& header, std::uint32_t first,
                          std::span<Elf64_Shdr> sections) {
  std::uint64_t offset = 0;
  if (__builtin_add_overflow(header.e_shoff, first * sizeof sections[0], &offset)) return false;
  return file.read(offset, sections.data(), sections.size_bytes());
}

// The place of a section's bytes; an empty range where it has none in the file.
file_range bytes_of(const Elf64_Shdr& section) {
  file_range range{section.sh_offset, 0};
  const bool wraps = __builtin_add_overflow(section.sh_offset, section.sh_size, &range.end);
  if (wraps || section.sh_type == SHT_NOBITS || (section.sh_flags & SHF_COMPRESSED) != 0) return {};
  return range;
}

bool is_trace(byte_source& file, const file_range& names, std::uint32_t name) {
  char text[sizeof trace::section_name];
  if (names.end - names.begin < name || names.end - names.begin - name < sizeof text) return false;
  return file.read(names.begin + name, text, sizeof text) &&
         std::memcmp(text, trace::section_name, sizeof text) == 0;
}

}  // namespace

bool read_elf_header(byte_source& file, Elf64_Ehdr& header) {
  return file.read(0, &header, sizeof header) &&
         std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 &&
         header.e_ident[EI_CLASS] == ELFCLASS64 && header.e_machine == EM_X86_64;
}

bool loaded_segments::next(Elf64_Phdr& segment) {
  if (header_.e_phentsize != sizeof segment) return false;
  while (index_ < header_.e_phnum) {
    std::uint64_t offset = 0;
    if (__builtin_add_overflow(header_.e_phoff, index_++ * sizeof segment, &offset)) return false;
    if (!file_.read(offset, &segment, sizeof segment)) return false;
    if (segment.p_type == PT_LOAD) return true;
  }
  return false;
}

bool find_bias(byte_source& file, const Elf64_Ehdr& header, std::uint64_t offset,
               std::uint64_t address, std::uint64_t& bias) {
  bool found = false;
  loaded_segments segments(file, header);
  for (Elf64_Phdr segment; segments.next(segment);) {
    const std::uint64_t distance = offset - segment.p_offset;  // wraps in front of the segment
    const bool is_code = (segment.p_flags & PF_X) != 0;
    if (distance >= segment.p_filesz || (found && !is_code)) continue;
    bias = address - (segment.p_vaddr + distance);
    found = true;
    if (is_code) break;
  }
  return found;
}

// Images have fewer than 65,280 sections, so their number and the index of the names section are in
// the header itself. The table may lie anywhere; where there is none, reading fails. It is read 32
// headers at a time, because reading a name in between replaces the block of the source.
file_range find_trace_section(byte_source& file, const Elf64_Ehdr& header) {
  constexpr std::uint32_t handful = 32;
  static constinit Elf64_Shdr buffer[handful] = {};  // a signal stack has no room for it
  if (header.e_shoff == 0 || header.e_shentsize != sizeof(Elf64_Shdr)) return {};
  Elf64_Shdr names_section;
  file_range names;
  for (std::uint32_t first = 0; first < header.e_shnum; first += handful) {
    const std::span<Elf64_Shdr> sections(buffer, std::min(header.e_shnum - first, handful));
    if (!read_section_headers(file, header, first, sections)) return {};
    if (first == 0) {  // after the table's first headers, as one block may hold both
      if (!read_section_headers(file, header, header.e_shstrndx, {&names_section, 1})) return {};
      names = bytes_of(names_section);
    }
    for (const Elf64_Shdr& section : sections)
      if (is_trace(file, names, section.sh_name)) return bytes_of(section);
  }
  return {};
}

}  // namespace zorvac::diag
