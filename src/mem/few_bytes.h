#ifndef ZORVAC_MEM_FEW_BYTES_H
#define ZORVAC_MEM_FEW_BYTES_H
// A block of fewer than 8 bytes as a word: its bytes in the order of memory, the first one lowest,
// some of them twice.
#include <cstddef>
#include <cstdint>

#include "core/unaligned.h"

namespace zorvac::mem {
namespace {

// Of 1 to 3 bytes.
[[gnu::always_inline]] inline std::uint64_t up_to_3_bytes(const char* p, std::size_t count) {
  const std::uint64_t first = load_unaligned<std::uint8_t>(p),
                      middle = load_unaligned<std::uint8_t>(p + count / 2),
                      last = load_unaligned<std::uint8_t>(p + count - 1);
  return first | middle << 8 | last << 16;
}
// Of 4 to 7 bytes.
[[gnu::always_inline]] inline std::uint64_t up_to_7_bytes(const char* p, std::size_t count) {
  const std::uint64_t first = load_unaligned<std::uint32_t>(p),
                      last = load_unaligned<std::uint32_t>(p + count - 4);
  return first | last << 32;
}

}  // namespace
}  // namespace zorvac::mem
#endif
