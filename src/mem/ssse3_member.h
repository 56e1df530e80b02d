#ifndef ZORVAC_MEM_SSSE3_MEMBER_H
#define ZORVAC_MEM_SSSE3_MEMBER_H
// The code that the SSSE3 members share, copies and moves. They differ in the limit of their table
// and in how they copy blocks that the caches cannot hold. A type, here called Member, has these:
//
//   small               the largest count that the table serves
//   is_large            whether copy_large_bulk copies a block whose aligned part has that count
//   copy_large_bulk     copies the bulk of a block that the caches cannot hold
#include "mem/direction.h"
#include "mem/merge.h"

namespace zorvac::mem {
namespace {

constexpr std::size_t registers = 8;  // per iteration: 128 bytes
constexpr std::size_t iteration = registers * xmm::width;

template <class Member, way Way>
[[gnu::noinline]] void* copy_large(char* to, const char* from, std::size_t count) {
  remainder<Way> rest{to, from, count};
  const std::size_t aligned_count = count - rest.to_next_boundary(xmm::width);
  copy_past_boundary<xmm>(rest);
  if (Member::is_large(rest, aligned_count))
    Member::copy_large_bulk(rest);
  else if (aligned_count >= bytes_of(__libvrt_data_cache_size_half))
    copy_through_caches<registers, prefetch_source<hint::t0, 448, 640>>(rest);
  else
    copy_through_caches<registers, no_prefetch>(rest);
  small_block<rest_by_xmm, iteration - 1>(rest.action(), rest.count);
  return to;
}

// `Direction` is of_copy or of_move.
//
// One table serves both directions. Its code addresses the block from both ends and loads all of it
// before the first store, so a table for the backward direction would have the same entries. A
// choice between the two would only add a branch that can be mispredicted.
template <class Member, auto Direction>
void* copy_in_direction(char* to, const char* from, std::size_t count) {
  return Direction(to, from, count) == way::forwards
             ? copy_large<Member, way::forwards>(to, from, count)
             : copy_large<Member, way::backwards>(to, from, count);
}
template <class Member, auto Direction>
[[gnu::always_inline]] inline void* copy_by_member(void* destination, const void* source,
                                                   std::size_t count) {
  return copy_block<by_xmm, Member::small, copy_in_direction<Member, Direction>>(destination,
                                                                                 source, count);
}

}  // namespace
}  // namespace zorvac::mem
#endif
