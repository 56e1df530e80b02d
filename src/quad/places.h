#ifndef ZORVAC_QUAD_PLACES_H
#define ZORVAC_QUAD_PLACES_H
// Where a routine finds its operands and where it leaves its result. The arithmetic is a template
// over both, and works on words in general registers. An entry is one line around it.
//
// An operand has a member word(). The slow path gets the operand itself, so that the common path
// need not keep the word for it.
//
// The last thing that a routine does is to call the result with the word: `return result(word)`. By
// then, all traps have happened. A call of the slow path is the last thing, too, and so a jump.
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
