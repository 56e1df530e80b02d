#ifndef ZORVAC_DIAG_PROCESS_FILES_H
#define ZORVAC_DIAG_PROCESS_FILES_H
// Reads what the kernel says about this process under /proc.
#include <cstddef>
#include <cstdint>

#include "core/text_buffer.h"
#include "diag/byte_source.h"

namespace zorvac::diag {

using process_path = text_buffer<64>;

// "/proc/", the process id and `entry`, which begins with a slash.
process_path path_of_process_file(const char* entry);

// Writes the path of the file that the process executes; "" where that cannot be read. For a
// deleted file it is the path that the file had.
void read_executable_path(char* to, std::size_t bytes);

// Finds the value of the entry of one type in a file with the format of /proc/PID/auxv; false where
// there is none.
bool find_auxiliary_value(byte_source& file, std::uint64_t type, std::uint64_t& value);

// A line of a file with the format of /proc/PID/maps: what is mapped at [begin, end).
struct map_line {
  std::uint64_t begin = 0, end = 0;
  std::uint64_t offset = 0;  // in the mapped file, of the byte at `begin`
  const char* path = "";  // of that file; "" where there is none. Valid until the next line is read

  [[nodiscard]] bool holds(std::uint64_t address) const {
    return address >= begin && address < end;
  }
};

// Reads the lines of such a file in their order, which is the order of the addresses. A line of any
// other form is skipped.
class map_reader {
 public:
  explicit map_reader(byte_source& file) : file_{file} {}
  bool next(map_line& line);

  // Finds the line that holds an address; false where there is none. Asks the kernel if it can look
  // up an address. Otherwise it reads the file, so addresses must come in ascending order.
  bool find(std::uint64_t address, map_line& line);

 private:
  enum class answer { found, none, cannot_tell };
  [[nodiscard]] answer ask_kernel(std::uint64_t address, map_line& line) const;
  char* next_text();

  byte_source& file_;
  std::uint64_t offset_ = 0;
  map_line last_;  // that find() has read
  bool kernel_answers_ = true;
};

}  // namespace zorvac::diag
#endif
