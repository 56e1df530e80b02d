// The comparison: words in memory order. For small counts, an indirect jump by the count goes to
// straight-line code for that number of words.
#include <utility>

#include "mem/count_table.h"
#include "mem/few_bytes.h"
#include "mem/vectors.h"
#include "zorvac/mem.h"

using namespace zorvac::mem;

namespace {

constexpr std::size_t small = 64;

// The order of two words that differ, -1 or +1: that of their first bytes in memory that differ.
int order(std::uint64_t x, std::uint64_t y) {
  return __builtin_bswap64(x) < __builtin_bswap64(y) ? -1 : 1;
}

// Compares the words at these offsets, in this order.
template <std::size_t Count, std::size_t... I>
[[gnu::always_inline]] inline int compare_words(const char* a, const char* b,
                                                const std::size_t (&offset)[Count],
                                                std::index_sequence<I...>) {
  std::uint64_t x = 0, y = 0;
  const bool differ = ((x = u64::load(a + offset[I]), y = u64::load(b + offset[I]), x != y) || ...);
  return differ ? order(x, y) : 0;
}

// Compares the first word, then the last ones up to the end. These may overlap the first word,
// whose bytes are equal by then.
template <std::size_t... Last>
[[gnu::always_inline]] inline int compare_to_end(const char* a, const char* b, std::size_t count,
                                                 std::index_sequence<Last...>) {
  constexpr std::size_t last = sizeof...(Last);
  return compare_words(a, b, {0, (count - (last - Last) * 8)...},
                       std::make_index_sequence<last + 1>());
}

int compare_gathered(std::uint64_t x, std::uint64_t y) { return x == y ? 0 : order(x, y); }

int compare_small(const char* a, const char* b, std::size_t count) {
#define ZORVAC_CLASSES(X) \
  X(to_3, 1, 3)           \
  X(to_7, 4, 7)           \
  X(to_8, 8, 8)           \
  X(to_16, 9, 16)         \
  X(to_24, 17, 24)        \
  X(to_32, 25, 32)        \
  X(to_40, 33, 40)        \
  X(to_48, 41, 48)        \
  X(to_56, 49, 56)        \
  X(to_64, 57, small)
  ZORVAC_JUMP_BY_COUNT(count, small, ZORVAC_CLASSES);
#undef ZORVAC_CLASSES
nothing:
  return 0;
to_3:
  return compare_gathered(up_to_3_bytes(a, count), up_to_3_bytes(b, count));
to_7:
  return compare_gathered(up_to_7_bytes(a, count), up_to_7_bytes(b, count));
to_8:
  return compare_to_end(a, b, count, std::make_index_sequence<0>());
to_16:
  return compare_to_end(a, b, count, std::make_index_sequence<1>());
to_24:
  return compare_to_end(a, b, count, std::make_index_sequence<2>());
to_32:
  return compare_to_end(a, b, count, std::make_index_sequence<3>());
to_40:
  return compare_to_end(a, b, count, std::make_index_sequence<4>());
to_48:
  return compare_to_end(a, b, count, std::make_index_sequence<5>());
to_56:
  return compare_to_end(a, b, count, std::make_index_sequence<6>());
to_64:
  return compare_to_end(a, b, count, std::make_index_sequence<7>());
}

}  // namespace

extern "C" int __zorva_new_memcmp(const void* first, const void* second, std::size_t count) {
  const auto* a = static_cast<const char*>(first);
  const auto* b = static_cast<const char*>(second);
  if (static_cast<std::ptrdiff_t>(count) < 1) return 0;  // here the count is signed
  while (count > small) {
    const int result =
        compare_words(a, b, {0, 8, 16, 24, 32, 40, 48, 56}, std::make_index_sequence<8>());
    if (result != 0) return result;
    a += 64, b += 64, count -= 64;
  }
  return compare_small(a, b, count);
}
