#ifndef ZORVAC_DIAG_ELF_IMAGE_H
#define ZORVAC_DIAG_ELF_IMAGE_H
// Reads from an ELF file (System V ABI, edition 4.1, chapters 4 and 5) where its `.trace` section
// is and which addresses its bytes have in memory. The file may hold anything, so no offset, size
// or index in it is trusted.
#include <elf.h>

#include "diag/byte_source.h"

namespace zorvac::diag {

struct file_range {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
  [[nodiscard]] bool empty() const { return begin == end; }
};

// False where the file is not a 64-bit ELF file for x86-64.
bool read_elf_header(byte_source& file, Elf64_Ehdr& header);

// The segments that are mapped into memory (PT_LOAD), one after the other.
class loaded_segments {
 public:
  loaded_segments(byte_source& file, const Elf64_Ehdr& header) : file_{file}, header_{header} {}
  bool next(Elf64_Phdr& segment);

 private:
  byte_source& file_;
  const Elf64_Ehdr& header_;
  std::uint32_t index_ = 0;
};

// The distance between the image's addresses in the process and those in the file, if the byte at
// `offset` of the file is at `address` of the process. False where the byte is in no segment. Where
// it is in several, the first one with code counts, or else the first one.
bool find_bias(byte_source& file, const Elf64_Ehdr& header, std::uint64_t offset,
               std::uint64_t address, std::uint64_t& bias);

// The place of the section's bytes; an empty range where there is none that can be read.
file_range find_trace_section(byte_source& file, const Elf64_Ehdr& header);

}  // namespace zorvac::diag
#endif
