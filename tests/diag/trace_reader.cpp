// What the library finds in the `.trace` section that is all of a file, for addresses on standard
// input; printed as `addr2line -f` would.
#include <filesystem>
#include <iostream>

#include "diag/trace_scan.h"

int main(int, char** argv) {
  zorvac::diag::byte_source section;
  for (std::uint64_t address; std::cin >> std::hex >> address;) {
    section.open_file(argv[1]);  // each time: what is read of a file that is open is limited
    tbk_pc_info info{"??", "??", 0};
    scan_trace(section, {0, std::filesystem::file_size(argv[1])}, address, info);
    std::cout << info.routine << '\n' << info.file << ':' << info.line << '\n';
  }
}
