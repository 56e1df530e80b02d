// Block comparison for every processor. It compares words of 64 bits, and uses no vector register.
// Words at the ends may overlap. When the second of two decides, their common bytes are known to be
// equal.
#include "mem/few_bytes.h"
#include "zorvac/mem.h"

using namespace zorvac;

namespace {

// A word of each block.
struct words {
  std::uint64_t a, b;
};
[[gnu::always_inline]] inline words words_at(const char* p, const char* q, std::size_t offset) {
  return {load_unaligned<std::uint64_t>(p + offset), load_unaligned<std::uint64_t>(q + offset)};
}
// The earlier words where they differ, else the later ones: without a branch, which would be
// unpredictable for random blocks.
[[gnu::always_inline]] inline words first_difference(words earlier, words later) {
  asm("" : "+r"(later.a), "+r"(later.b));  // loaded in any case
  const bool differ = earlier.a != earlier.b;
  return {differ ? earlier.a : later.a, differ ? earlier.b : later.b};
}
// -1, 0 or 1. In a word whose bytes are reversed, the first byte in memory is the most significant.
[[gnu::always_inline]] inline int order_of(words w) {
  const std::uint64_t a = __builtin_bswap64(w.a), b = __builtin_bswap64(w.b);
  return (a > b) - (a < b);
}

// The order of four pairs of words: two from the start, `inner` bytes apart, and two from the end.
[[gnu::always_inline]] inline int order_of_four(const char* p, const char* q, std::size_t inner,
                                                std::size_t count) {
  const std::size_t last = count - 8;
  const words end = first_difference(words_at(p, q, last - inner), words_at(p, q, last));
  return order_of(
      first_difference(words_at(p, q, 0), first_difference(words_at(p, q, inner), end)));
}

[[gnu::always_inline]] inline std::uint64_t difference_at(const char* p, const char* q,
                                                          std::size_t offset) {
  const words w = words_at(p, q, offset);
  return w.a ^ w.b;
}
[[gnu::always_inline]] inline bool equal_32_bytes(const char* p, const char* q) {
  return (difference_at(p, q, 0) | difference_at(p, q, 8) | difference_at(p, q, 16) |
          difference_at(p, q, 24)) == 0;
}

}  // namespace

extern "C" int _zorva_fast_memcmp(const void* a, const void* b, std::size_t count) {
  const auto* p = static_cast<const char*>(a);
  const auto* q = static_cast<const char*>(b);
  if (p == q || count == 0) return 0;
  if (count < 8) {
    const auto few_bytes = [count](const char* block) {
      return count < 4 ? mem::up_to_3_bytes(block, count) : mem::up_to_7_bytes(block, count);
    };
    return order_of({few_bytes(p), few_bytes(q)});
  }
  if (count <= 32) return order_of_four(p, q, (count - 1) / 2 & 8, count);
  const char* const last = p + count - 32;
  while (p < last && equal_32_bytes(p, q)) p += 32, q += 32;
  if (p > last) q -= p - last, p = last;
  return order_of_four(p, q, 8, 32);
}
