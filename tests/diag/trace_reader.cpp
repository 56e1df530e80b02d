// Looks up addresses from standard input in a file that is nothing but a `.trace` section, and
// prints the results in the format of `addr2line -f`.
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

#include "diag/trace_scan.h"

int main(int, char** argv) {
  std::ifstream file(argv[1], std::ios::binary);
  std::vector<unsigned char> image{0};  // one byte first: no section begins at offset 0
  image.insert(image.end(), std::istreambuf_iterator<char>(file), {});
  zorvac::diag::byte_source source;
  source.open_memory(image);
  for (std::uint64_t address; std::cin >> std::hex >> address;) {
    tbk_pc_info info{"??", "??", 0};
    scan_trace(source, {1, image.size()}, address, info);
    std::cout << info.routine << '\n' << info.file << ':' << info.line << '\n';
  }
}
