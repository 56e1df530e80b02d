#ifndef ZORVAC_MEM_PROBING_H
#define ZORVAC_MEM_PROBING_H
// Copies and fills that time a load to find out whether the destination is in the caches. If it is
// not, they store past the caches. Small blocks are done by the string instructions.
#include "mem/bulk.h"
#include "mem/string_instructions.h"

namespace zorvac::mem {
namespace {

constexpr std::size_t unprobed = 16384;  // the largest count for the string instructions
constexpr std::size_t registers = 8, iteration = registers * xmm::width;

// The low half of the time-stamp counter.
inline std::uint32_t time_stamp() {
  std::uint32_t low;
  asm volatile("rdtsc" : "=a"(low)::"rdx", "memory");
  return low;
}

// Whether a read of this byte takes more than three times as long as a read of the counter.
inline bool misses(const char* p) {
  const std::uint32_t t0 = time_stamp(), t1 = time_stamp();
  static_cast<void>(*static_cast<const volatile char*>(p));
  const std::uint32_t t2 = time_stamp();
  return std::uint64_t{3} * (t1 - t0) < t2 - t1;
}

// Whether the destination is outside of the caches, judged by two of its bytes.
inline bool is_uncached(const char* to, std::size_t bulk) {
  return misses(to + bulk / 4) && misses(to + bulk / 4 * 3);
}

// The last bytes, fewer than an iteration: words, then single bytes.
template <class Action>
inline void finish(const Action& act, std::size_t count) {
  std::size_t at = 0;
  for (; count - at >= 8; at += 8) act.template at<u64>({at});
  for (; at < count; ++at) act.template at<u8>({at});
}

using copy_function = void*(void*, const void*, std::size_t);
using fill_function = void*(void*, int, std::size_t);

// `Self` is the routine itself. If the destination is misaligned, the bytes up to its boundary are
// copied here, and a call of `Self` copies the rest.
template <copy_function* Self>
void* probing_copy(void* const destination, const void* source, std::size_t count) {
  remainder<way::forwards> rest{static_cast<char*>(destination), static_cast<const char*>(source),
                                count};
  if (count <= unprobed) {
    rep_move_words(rest.to, rest.from, count / 8);
    rep_move_bytes(rest.to, rest.from, count % 8);
    return destination;
  }
  if (misalignment(rest.to, xmm::width) != 0) {
    for (std::size_t lead = rest.to_boundary(xmm::width); lead != 0; --lead)
      copy_next<1, u8::load, u8::store>(rest);
    Self(rest.to, rest.from, rest.count);
    return destination;
  }
  if (is_uncached(rest.to, count / iteration * iteration)) {
    copy_loop<registers, xmm::load, xmm::stream, no_prefetch>(rest, iteration);
    _mm_sfence();
  } else {
    copy_loop<registers, xmm::load, xmm::store_aligned, no_prefetch>(rest, iteration);
  }
  finish(rest.action(), rest.count);
  return destination;
}

template <fill_function* Self>
void* probing_fill(void* const destination, int value, std::size_t count) {
  auto* to = static_cast<char*>(destination);
  const std::uint64_t pattern = pattern_of(value);
  if (count <= unprobed) {
    rep_store_words(to, pattern, count / 8);
    rep_store_bytes(to, pattern, count % 8);
    return destination;
  }
  if (misalignment(to, xmm::width) != 0) {
    for (; misalignment(to, xmm::width) != 0; --count) *to++ = static_cast<char>(value);
    Self(to, value, count);
    return destination;
  }
  if (is_uncached(to, count / iteration * iteration)) {
    fill_loop<registers, xmm, xmm::stream>(to, count, pattern);
    _mm_sfence();
  } else {
    fill_loop<registers, xmm, xmm::store_aligned>(to, count, pattern);
  }
  finish(filling{to, pattern}, count);
  return destination;
}

}  // namespace
}  // namespace zorvac::mem
#endif
