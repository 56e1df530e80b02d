#ifndef ZORVAC_DIAG_PROCESS_FILES_H
#define ZORVAC_DIAG_PROCESS_FILES_H
// What the system tells of this process under /proc.
#include <cstddef>
#include <cstdint>

#include "core/text_buffer.h"
#include "diag/byte_source.h"

namespace zorvac::diag {

using process_path = text_buffer<64>;

// "/proc/", the process id and `entry`, which begins with a stroke.
process_path path_of_process_file(const char* entry);

// The file that the process executes; "" where that cannot be read. Of a deleted file, the path
// that it had.
void read_executable_path(char* to, std::size_t bytes);

// The value of the auxiliary vector's entry of one type, from a file of the form of /proc/PID/auxv;
// false where there is none.
bool find_auxiliary_value(byte_source& file, std::uint64_t type, std::uint64_t& value);

// Where an image is mapped.
struct mapping {
  std::uint64_t load_address = 0;    // where its first line begins
  std::uint64_t begin = 0, end = 0;  // the addresses that this holds for
  char path[4096] = {};
};

// Finds an image in a file of the form of /proc/PID/maps: the first line that names it, false where
// none does. As a name may be part of many a path, the file that is mapped at the address is
// preferred among those that the name may mean.
bool find_mapping(byte_source& file, const char* image, std::uint64_t address, mapping& found);

}  // namespace zorvac::diag
#endif
