#ifndef ZORVAC_MEM_BULK_H
#define ZORVAC_MEM_BULK_H
// Large blocks: the part that is left to do, the step to an aligned destination, and the loops.
#include "cpu/cache_values.h"
#include "mem/small_block.h"

namespace zorvac::mem {
namespace {

// A cache value, for comparisons with counts: its 32 bits read as an unsigned number.
inline std::size_t bytes_of(std::int32_t cache_value) {
  return static_cast<std::uint32_t>(cache_value);
}

inline std::size_t misalignment(const char* p, std::size_t boundary) {
  return reinterpret_cast<std::uintptr_t>(p) % boundary;
}

enum class way { forwards, backwards };

// The part of a block that is left to copy. A forward copy takes bytes from its start, a backward
// copy from its end. The edge is the place from which the next bytes are taken. Every loop below is
// written once for both directions.
//
// If the blocks do not overlap, both directions are exact. If they overlap, a destination below its
// source needs the forward direction, and one above its source the backward direction: each
// iteration then stores only over source bytes that this or an earlier iteration has loaded.
template <way Way>
struct remainder {
  static constexpr way direction = Way;
  char* to;
  const char* from;
  std::size_t count;

  // The offset of the next `bytes` bytes.
  [[nodiscard]] std::size_t next(std::size_t bytes) const {
    return Way == way::forwards ? 0 : count - bytes;
  }
  void take(std::size_t bytes) {
    if constexpr (Way == way::forwards) to += bytes, from += bytes;
    count -= bytes;
  }
  [[nodiscard]] const char* source_edge() const { return from + next(0); }
  // The address `distance` bytes ahead of an edge, in the direction of the copy.
  [[nodiscard]] static const char* ahead(const char* edge, std::size_t distance) {
    return Way == way::forwards ? edge + distance : edge - distance;
  }
  // The distance from the destination's edge to a boundary. If the edge is on a boundary,
  // to_next_boundary gives `boundary`, and to_boundary gives 0.
  [[nodiscard]] std::size_t to_next_boundary(std::size_t boundary) const {
    return Way == way::forwards ? boundary - misalignment(to, boundary)
                                : misalignment(to + count - 1, boundary) + 1;
  }
  [[nodiscard]] std::size_t to_boundary(std::size_t boundary) const {
    return to_next_boundary(boundary) % boundary;
  }
  [[nodiscard]] copying action() const { return {to, from}; }
};

// What a loop prefetches in every iteration: the lines at these distances ahead of the source's
// edge.
struct no_prefetch {
  template <class Rest>
  [[gnu::always_inline]] static void run(const Rest&) {}
};
template <hint Hint, std::size_t... Distance>
struct prefetch_source {
  template <class Rest>
  [[gnu::always_inline]] static void run(const Rest& rest) {
    (prefetch<Hint>(rest.ahead(rest.source_edge(), Distance)), ...);
  }
};

// A compiler does not move a store across this. Some processors take stores to adjacent addresses
// in half the time if they come in ascending order, and compilers reorder them.
[[gnu::always_inline]] inline void keep_order() { asm volatile("" : : : "memory"); }

// Copies adjacent registers: all loads, then all stores, in ascending order.
template <auto Load, auto Store, std::size_t... I>
[[gnu::always_inline]] inline void copy_registers(char* to, const char* from,
                                                  std::index_sequence<I...>) {
  using reg = decltype(Load(from));
  const reg block[] = {Load(from + I * sizeof(reg))...};
  ((keep_order(), Store(to + I * sizeof(reg), block[I])), ...);
}

// Copies the next `Count` registers.
template <std::size_t Count, auto Load, auto Store, class Rest>
[[gnu::always_inline]] inline void copy_next(Rest& rest) {
  constexpr std::size_t bytes = Count * sizeof(decltype(Load(nullptr)));
  const std::size_t at = rest.next(bytes);
  copy_registers<Load, Store>(rest.to + at, rest.from + at, std::make_index_sequence<Count>());
  rest.take(bytes);
}

// Copies `Count` registers per iteration while at least `least` bytes remain.
template <std::size_t Count, auto Load, auto Store, class Prefetch, class Rest>
[[gnu::always_inline]] inline void copy_loop(Rest& rest, std::size_t least) {
  while (rest.count >= least) {
    Prefetch::run(rest);
    copy_next<Count, Load, Store>(rest);
  }
}

// Copies the `distance` bytes up to the destination's next boundary, for blocks that do not
// overlap. It stores a whole register; the loop then stores the other bytes of it again. The same
// code serves every distance, so no jump depends on the distance.
template <class V, class Rest>
[[gnu::always_inline]] inline void copy_to_boundary(Rest& rest, std::size_t distance) {
  const std::size_t at = rest.next(V::width);
  V::store(rest.to + at, V::load(rest.from + at));
  rest.take(distance);
}

// The same for blocks that may overlap, together with the first aligned register. Both registers
// are loaded first. Then the aligned one is stored, and then the unaligned one.
template <class V, class Rest>
[[gnu::always_inline]] inline void copy_past_boundary(Rest& rest) {
  const std::size_t at = rest.next(V::width);
  char* const to = rest.to + at;
  const auto saved = V::load(rest.from + at);
  rest.take(rest.to_next_boundary(V::width));
  const std::size_t aligned = rest.next(V::width);
  V::store_aligned(rest.to + aligned, V::load(rest.from + aligned));
  V::store(to, saved);
  rest.take(V::width);
}

// Copies the remainder, which is less than `Count` registers and follows a larger bulk, for blocks
// that do not overlap. It copies the last `Count` registers of the block, part of which the loop
// has already stored. The same code serves every remainder, so no jump depends on it.
template <class V, std::size_t Count, class Rest>
[[gnu::always_inline]] inline void copy_last(const Rest& rest) {
  constexpr std::size_t bytes = Count * V::width;
  copy_registers<V::load, V::store>(rest.to + rest.count - bytes, rest.from + rest.count - bytes,
                                    std::make_index_sequence<Count>());
}

// Fills adjacent registers, in ascending order.
template <class V, auto Store, std::size_t... I>
[[gnu::always_inline]] inline void fill_registers(char* to, typename V::reg block,
                                                  std::index_sequence<I...>) {
  ((keep_order(), Store(to + I * V::width, block)), ...);
}

// Fills the remainder, which is less than 2 * `Count` registers and follows at least `Count` filled
// ones: `Count` registers from its start, moved back where they would reach beyond the end, and
// `Count` up to the end. The same code serves every remainder.
template <class V, std::size_t Count>
[[gnu::always_inline]] inline void fill_last(char* to, std::size_t count, std::uint64_t pattern) {
  const auto block = V::replicate(pattern);
  char* const last = to + count - Count * V::width;
  fill_registers<V, V::store>(to < last ? to : last, block, std::make_index_sequence<Count>());
  fill_registers<V, V::store>(last, block, std::make_index_sequence<Count>());
}

// Stores `Count` registers per iteration while that many remain.
template <std::size_t Count, class V, auto Store>
[[gnu::always_inline]] inline void fill_loop(char*& to, std::size_t& count, std::uint64_t pattern) {
  constexpr std::size_t bytes = Count * V::width;
  const auto block = V::replicate(pattern);
  for (; count >= bytes; to += bytes, count -= bytes)
    fill_registers<V, Store>(to, block, std::make_index_sequence<Count>());
}

// Fills up to the destination's next boundary. It stores a whole register, as copy_to_boundary
// does.
template <class V>
[[gnu::always_inline]] inline void fill_to_boundary(char*& to, std::size_t& count,
                                                    std::uint64_t pattern) {
  V::store(to, V::replicate(pattern));
  const std::size_t distance = (V::width - misalignment(to, V::width)) % V::width;
  to += distance;
  count -= distance;
}

// The byte that a fill was given, repeated in every byte of a word.
inline std::uint64_t pattern_of(int value) {
  return static_cast<std::uint8_t>(value) * 0x0101010101010101u;
}

// The beginning of a copy and of a fill: `Large` serves counts above `Small`, the table all others.
template <class Plan, std::size_t Small, auto Large>
[[gnu::always_inline]] inline void* copy_block(void* destination, const void* source,
                                               std::size_t count) {
  auto* const to = static_cast<char*>(destination);
  const auto* const from = static_cast<const char*>(source);
  if (count > Small) return Large(to, from, count);
  small_block<Plan, Small>(copying{to, from}, count);
  return to;
}
template <class Plan, std::size_t Small, auto Large>
[[gnu::always_inline]] inline void* fill_block(void* destination, int value, std::size_t count) {
  auto* const to = static_cast<char*>(destination);
  const std::uint64_t pattern = pattern_of(value);
  if (count > Small) return Large(to, pattern, count);
  small_block<Plan, Small>(filling{to, pattern}, count);
  return to;
}

}  // namespace
}  // namespace zorvac::mem
#endif
