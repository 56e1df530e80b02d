#include "diag/elf_image.h"

#include <cstring>

#include "diag/trace_format.h"

namespace zorvac::diag {
namespace {

bool read_section_header(byte_source& file, const Elf64_Ehdr& header, std::uint32_t index,
                         Elf64_Shdr& section) {
  std::uint64_t offset = 0;
  if (__builtin_add_overflow(header.e_shoff, std::uint64_t{index} * header.e_shentsize, &offset))
    return false;
  return file.read(offset, &section, sizeof section);
}

// Where the bytes of a section are; an empty range where it has none in the file.
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

// Images have fewer than 65,280 sections, so the numbers stand in the header itself. The table may
// lie anywhere; where it is not, reading fails.
file_range find_trace_section(byte_source& file, const Elf64_Ehdr& header) {
  Elf64_Shdr section;
  if (header.e_shoff == 0 || header.e_shentsize < sizeof section) return {};
  if (!read_section_header(file, header, header.e_shstrndx, section)) return {};
  const file_range names = bytes_of(section);
  for (std::uint32_t i = 0; i < header.e_shnum; ++i) {
    if (!read_section_header(file, header, i, section)) return {};
    if (is_trace(file, names, section.sh_name)) return bytes_of(section);
  }
  return {};
}

}  // namespace zorvac::diag
