// What the library finds in the `.trace` section that is all of a file, for addresses on standard
// input; printed as `addr2line -f` would.
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

#include "diag/trace_scan.h"

int main(int, char** argv) {
  std::ifstream file(argv[1], std::ios::binary);
  std::vector<unsigned char> image{0};  // in an image, no section begins at 0
  image.insert(image.end(), std::istreambuf_iterator<char>(file), {});
  zorvac::diag::byte_source source;
  source.open_memory(image);
  for (std::uint64_t address; std::cin >> std::hex >> address;) {
    tbk_pc_info info{"??", "??", 0};
    scan_trace(source, {1, image.size()}, address, info);
    std::cout << info.routine << '\n' << info.file << ':' << info.line << '\n';
  }
}
