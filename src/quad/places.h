#ifndef ZORVAC_QUAD_PLACES_H
#define ZORVAC_QUAD_PLACES_H
// Where a routine finds its operands and where it leaves its result. The arithmetic is written once
// over both, and works on words in general registers; an entry is a coat of one line around it.
//
// An operand is one of these and has a member word(). It goes to the slow path as it came, so that
// the common path keeps nothing for it.
//
// A result is called with the word as the last thing that a routine does: `return result(word)`.
// Whatever is to trap has trapped by then. The slow path is the last thing, too, and is jumped to.
#include "quad/formats.h"

namespace zorvac::softfp {
namespace {

struct at_address {
  const void* place;
  [[gnu::always_inline]] uint128 word() const { return load(place); }
};
struct to_address {
  void* place;
  [[gnu::always_inline]] void operator()(uint128 result) const { store(place, result); }
};

// In two general registers, as the platform passes and returns a 128-bit integer.
struct in_words {
  uint128 words;
  [[gnu::always_inline]] uint128 word() const { return words; }
};
struct to_words {
  [[gnu::always_inline]] uint128 operator()(uint128 result) const { return result; }
};

}  // namespace
}  // namespace zorvac::softfp
#endif
