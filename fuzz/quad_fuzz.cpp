// Compares every quad operation and conversion with its oracle. The fuzzer chooses operands that
// lead to new paths through the library. An input is one byte, which gives the rounding mode and
// the circumstances, and two quads.
#include <cstddef>
#include <cstdlib>
#include <iostream>

#include "quads.h"

using namespace zorvac::test;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 33) return 0;
  const auto a = load<word>(data + 1), b = load<word>(data + 17);
  for (const routine& r : routines) {
    const std::string difference = check(r, {a, b, b, a}, data[0] & 3, data[0] >> 2);
    if (difference.empty()) continue;
    std::cerr << difference << '\n';
    std::abort();
  }
  return 0;
}
