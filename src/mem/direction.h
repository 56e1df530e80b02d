#ifndef ZORVAC_MEM_DIRECTION_H
#define ZORVAC_MEM_DIRECTION_H
// The direction of a copy. The overlap decides it; if both directions are exact, the low bytes of
// the two addresses decide.
#include <cstddef>
#include <cstdint>

#include "mem/bulk.h"

namespace zorvac::mem {
namespace {

// Whether the destination begins inside the source, above its start. Then only a backward copy is
// exact.
inline bool begins_inside(const char* to, const char* from, std::size_t count) {
  return reinterpret_cast<std::uintptr_t>(to) - reinterpret_cast<std::uintptr_t>(from) - 1 <
         count - 1;
}

// Forwards if the source's low byte, as a signed number, is greater than the destination's.
inline way by_low_bytes(const char* to, const char* from) {
  const auto low = [](const char* p) {
    return static_cast<std::int8_t>(reinterpret_cast<std::uintptr_t>(p));
  };
  return low(from) > low(to) ? way::forwards : way::backwards;
}

inline way of_copy(const char* to, const char* from, std::size_t) { return by_low_bytes(to, from); }

// The same for blocks that may overlap.
inline way of_move(const char* to, const char* from, std::size_t count) {
  if (begins_inside(to, from, count)) return way::backwards;
  if (begins_inside(from, to, count)) return way::forwards;
  return by_low_bytes(to, from);
}

}  // namespace
}  // namespace zorvac::mem
#endif
