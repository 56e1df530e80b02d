#ifndef ZORVAC_MEM_SMALL_BLOCK_H
#define ZORVAC_MEM_SMALL_BLOCK_H
// Small blocks: one indirect jump, through a table indexed by the exact count, to straight-line
// code.
//
// Many counts share the same code, because it addresses the block from both ends. The code handles
// two vectors at each end. The inner two are moved in by a computed distance, without a branch, so
// the same code serves every count from one vector to four:
//
//        0    w                      n-w   n            w = 16, n = 50
//        |AAAA|                       |DDDD|
//             |BBBB|             |CCCC|                 33 to 64: inner pair moved in by w
//        |BBBB|                       |CCCC|            17 to 32: inner pair equal to the outer
//
// So there are few targets, and the jump is predicted well even if the counts vary at random: of
// the counts up to 64, three in four go to the same target. The whole block is loaded before the
// first store, so source and destination may overlap in any way.
#include <utility>

#include "mem/count_table.h"
#include "mem/vectors.h"

namespace zorvac::mem {
namespace {

// The two actions on a block, at a set of offsets and in registers of type V: copying, which loads
// all registers before it stores any, and filling.
struct copying {
  char* to;
  const char* from;

  template <class V, std::size_t Count>
  [[gnu::always_inline]] void at(const std::size_t (&offset)[Count]) const {
    store_all<V>(offset, std::make_index_sequence<Count>());
  }

 private:
  template <class V, std::size_t Count, std::size_t... I>
  [[gnu::always_inline]] void store_all(const std::size_t (&offset)[Count],
                                        std::index_sequence<I...>) const {
    const typename V::reg block[] = {V::load(from + offset[I])...};
    (V::store(to + offset[I], block[I]), ...);
  }
};

struct filling {
  char* to;
  std::uint64_t pattern;  // the byte, repeated eight times

  template <class V, std::size_t Count>
  [[gnu::always_inline]] void at(const std::size_t (&offset)[Count]) const {
    store_all<V>(offset, std::make_index_sequence<Count>());
  }

 private:
  template <class V, std::size_t Count, std::size_t... I>
  [[gnu::always_inline]] void store_all(const std::size_t (&offset)[Count],
                                        std::index_sequence<I...>) const {
    const typename V::reg block = V::replicate(pattern);
    (V::store(to + offset[I], block), ...);
  }
};

// Let K be the number of indices. K registers at each end of the block, for counts from K to 2K
// registers.
template <class V, class Action, std::size_t... K>
[[gnu::always_inline]] inline void halves(const Action& act, std::size_t count,
                                          std::index_sequence<K...>) {
  const std::size_t last = count - sizeof...(K) * V::width;
  act.template at<V>({K * V::width..., last + K * V::width...});
}

// K registers at each end and K inner ones beside them, for counts from K to 4K registers. `span`,
// the width of K registers, is a power of two. The inner registers are moved in by `span` if the
// count is above 2 * span.
template <class V, class Action, std::size_t... K>
[[gnu::always_inline]] inline void quarters(const Action& act, std::size_t count,
                                            std::index_sequence<K...>) {
  constexpr std::size_t span = sizeof...(K) * V::width;
  const std::size_t inner = (count - 1) / 2 & span, last = count - span;
  act.template at<V>({K * V::width..., inner + K * V::width..., last - inner + K * V::width...,
                      last + K * V::width...});
}

// Eight registers, some of which may coincide, for counts from one register to eight. Four of them
// lie at the offsets 0, a, b and a + b from the start, and the other four mirror these from the
// end. b is the width of two registers if the count is above four registers, otherwise 0. a is the
// width of one register if the count is above two registers, otherwise 0.
template <class V, class Action>
[[gnu::always_inline]] inline void eighths(const Action& act, std::size_t count) {
  const std::size_t half = (count - 1) / 2, last = count - V::width;
  const std::size_t b = half & 2 * V::width, a = (half | b / 2) & V::width;
  act.template at<V>({0, a, b, a + b, last - a - b, last - b, last - a, last});
}

// What a member does with counts above 16: up to three classes of counts, each with its largest
// count and its code. Fewer classes make the jump easier to predict; more classes need fewer
// registers for each count. The choices are those that were fastest in bench/mem, above all in its
// rows with unpredictable counts.
struct by_quarters {
  static constexpr std::size_t middle = 64, wide = 256;
  template <class Action>
  [[gnu::always_inline]] static void do_middle(const Action& act, std::size_t count) {
    quarters<xmm>(act, count, std::make_index_sequence<1>());
  }
};
// For what a loop leaves, which is even harder to predict.
struct rest_by_xmm {
  static constexpr std::size_t middle = 128, wide = 192, widest = wide;
  template <class Action>
  [[gnu::always_inline]] static void do_middle(const Action& act, std::size_t count) {
    eighths<xmm>(act, count);
  }
  template <class Action>
  [[gnu::always_inline]] static void do_wide(const Action& act, std::size_t count) {
    halves<xmm>(act, count, std::make_index_sequence<6>());  // uses 12 of the 16 registers
  }
};
struct by_xmm : by_quarters {
  static constexpr std::size_t wide = rest_by_xmm::middle, widest = rest_by_xmm::wide;
  template <class Action>
  [[gnu::always_inline]] static void do_wide(const Action& act, std::size_t count) {
    rest_by_xmm::do_middle(act, count);
  }
  template <class Action>
  [[gnu::always_inline]] static void do_widest(const Action& act, std::size_t count) {
    rest_by_xmm::do_wide(act, count);
  }
};

#ifdef __AVX2__
// Four registers each, for counts that need no more.
struct by_few_ymm : by_quarters {
  static constexpr std::size_t wide = 128, widest = 256;
  template <class Action>
  [[gnu::always_inline]] static void do_wide(const Action& act, std::size_t count) {
    quarters<ymm>(act, count, std::make_index_sequence<1>());
  }
  template <class Action>
  [[gnu::always_inline]] static void do_widest(const Action& act, std::size_t count) {
    halves<ymm>(act, count, std::make_index_sequence<4>());
  }
};
struct by_ymm : by_quarters {
  static constexpr std::size_t widest = wide;
  template <class Action>
  [[gnu::always_inline]] static void do_wide(const Action& act, std::size_t count) {
    quarters<ymm>(act, count, std::make_index_sequence<2>());
  }
};
#endif

#ifdef __AVX512F__
struct by_zmm : by_quarters {
  static constexpr std::size_t widest = 512;
  template <class Action>
  [[gnu::always_inline]] static void do_wide(const Action& act, std::size_t count) {
    quarters<zmm>(act, count, std::make_index_sequence<1>());
  }
  template <class Action>
  [[gnu::always_inline]] static void do_widest(const Action& act, std::size_t count) {
    halves<zmm>(act, count, std::make_index_sequence<4>());
  }
};
#endif

// Copies or fills a block of 0 to `Limit` bytes.
template <class Plan, std::size_t Limit, class Action>
[[gnu::always_inline]] inline void small_block(const Action& act, std::size_t count) {
  static_assert(Limit <= Plan::widest);
#define ZORVAC_CLASSES(X)                     \
  X(up_to_3, 1, 3)                            \
  X(up_to_16, 4, 16)                          \
  X(up_to_middle, 17, Plan::middle)           \
  X(up_to_wide, Plan::middle + 1, Plan::wide) \
  X(up_to_widest, Plan::wide + 1, Plan::widest)
  ZORVAC_JUMP_BY_COUNT(count, Limit, ZORVAC_CLASSES);
#undef ZORVAC_CLASSES
nothing:
  return;
up_to_3:
  act.template at<u8>({0, count / 2, count - 1});
  return;
up_to_16:
  quarters<u32>(act, count, std::make_index_sequence<1>());
  return;
up_to_middle:
  if constexpr (Limit > 16) Plan::do_middle(act, count);
  return;
up_to_wide:
  if constexpr (Limit > Plan::middle) Plan::do_wide(act, count);
  return;
up_to_widest:
  if constexpr (Limit > Plan::wide) Plan::do_widest(act, count);
}

}  // namespace
}  // namespace zorvac::mem
#endif
