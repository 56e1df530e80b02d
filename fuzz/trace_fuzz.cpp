// Runs the readers of the traceback on files that a fuzzer makes. An input is one byte, which
// chooses the reader, eight bytes of address, and the file. The reader reads it from memory and,
// through its small block, from a real file. Both must give the same answer, and each text must
// have a zero byte.
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>

#include "diag/byte_source.h"
#include "diag/elf_image.h"
#include "diag/process_files.h"
#include "diag/texts.h"
#include "diag/trace_scan.h"

using namespace zorvac::diag;

namespace {

struct answer {
  std::string routine, file;
  std::uint64_t number = 0, other = 0;
  bool operator==(const answer&) const = default;
};

template <std::size_t Bytes>
std::string text_of(const char (&text)[Bytes]) {
  if (std::memchr(text, '\0', Bytes) == nullptr) std::abort();
  return text;
}

answer scan(byte_source& file, file_range section, std::uint64_t address) {
  static tbk_pc_info info;
  put_unknown(info.routine);
  put_unknown(info.file);
  info.line = 0;
  scan_trace(file, section, address, info);
  return {text_of(info.routine), text_of(info.file), info.line, 0};
}

answer read_section(byte_source& file, std::size_t size, std::uint64_t address) {
  return scan(file, {0, size}, address);
}

// The address is used as an offset into the file, too, which is looked up in the segments.
answer read_image(byte_source& file, std::size_t, std::uint64_t address) {
  Elf64_Ehdr header;
  if (!read_elf_header(file, header)) return {};
  const file_range section = find_trace_section(file, header);
  if (section.end < section.begin) std::abort();
  answer a = scan(file, section, address);
  std::uint64_t bias = 0;
  if (find_bias(file, header, address, 0, bias)) a.other = bias;
  return a;
}

// The line that holds the address, and a checksum of all lines.
answer read_maps(byte_source& file, std::size_t, std::uint64_t address) {
  answer a;
  map_reader map(file);
  for (map_line line; map.next(line);) {
    if (*line.path != '\0' && *line.path != '/') std::abort();
    a.other = a.other * 3 + line.begin + line.end + line.offset + std::strlen(line.path);
    if (!line.holds(address)) continue;
    a.file = line.path;
    a.number = line.offset + (address - line.begin);
  }
  return a;
}

answer read_vector(byte_source& file, std::size_t, std::uint64_t address) {
  answer a;
  a.other = find_auxiliary_value(file, address, a.number) ? 1 : 0;
  return a;
}

constexpr std::array readers{read_section, read_image, read_maps, read_vector};

// The path of a file without a name that holds the bytes.
const char* file_with(std::span<const unsigned char> bytes) {
  static const int file = memfd_create("fuzz", 0);
  static const std::string path = "/proc/self/fd/" + std::to_string(file);
  if (ftruncate(file, 0) != 0 ||
      pwrite(file, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
    std::abort();
  return path.c_str();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  if (size < 9) return 0;
  const auto read = readers[data[0] % readers.size()];
  std::uint64_t address = 0;
  std::memcpy(&address, data + 1, sizeof address);
  const std::span<const unsigned char> bytes(data + 9, size - 9);
  static byte_source memory, file;
  memory.open_memory(bytes);
  if (!file.open_file(file_with(bytes))) std::abort();
  if (read(memory, bytes.size(), address) != read(file, bytes.size(), address)) std::abort();
  file.close();
  return 0;
}
