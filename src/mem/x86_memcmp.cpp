// Block comparison for every processor. It compares words from the start. At the first difference
// it reverses the bytes of both words, so that the first byte in memory is the most significant.
#include <cstdint>

#include "core/unaligned.h"
#include "zorvac/mem.h"

namespace {
using byte = unsigned char;
}  // namespace

extern "C" int _zorva_fast_memcmp(const void* a, const void* b, std::size_t count) {
  const auto* p = static_cast<const byte*>(a);
  const auto* q = static_cast<const byte*>(b);
  if (p == q) return 0;
  for (const byte* const end = p + count / 8 * 8; p != end; p += 8, q += 8) {
    const auto x = zorvac::load_unaligned<std::uint64_t>(p);
    const auto y = zorvac::load_unaligned<std::uint64_t>(q);
    if (x != y) return __builtin_bswap64(x) < __builtin_bswap64(y) ? -1 : 1;
  }
  for (const byte* const end = p + count % 8; p != end; ++p, ++q)
    if (*p != *q) return *p > *q ? 1 : -1;
  return 0;
}
