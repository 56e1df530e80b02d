#ifndef ZORVAC_DIAG_ELF_IMAGE_H
#define ZORVAC_DIAG_ELF_IMAGE_H
// Where the `.trace` section is in an ELF file (System V ABI, edition 4.1, chapter 4), which may be
// anything: every offset, size and index in it is taken for hostile.
#include <elf.h>

#include "diag/byte_source.h"

namespace zorvac::diag {

struct file_range {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
};

// False where the file is not a 64-bit ELF file for x86-64.
bool read_elf_header(byte_source& file, Elf64_Ehdr& header);

// The bytes of the section; an empty range where there is none that can be read.
file_range find_trace_section(byte_source& file, const Elf64_Ehdr& header);

}  // namespace zorvac::diag
#endif
