#ifndef ZORVAC_QUAD_W_COMPLEX_H
#define ZORVAC_QUAD_W_COMPLEX_H
// What the complex entry points share: the layout of a complex quad and of its temporaries.
//
// Every entry is a few calls of exported quad routines, in the order that the public header
// promises, and each call goes through the dynamic symbol, so that a program may replace the
// routine. An entry never rounds or raises a flag by itself. If its arguments allow it, the last
// call is in tail position, and becomes a jump.
#include <cstdint>
#include <cstring>

#include "zorvac/quad.h"

namespace zorvac::softfp {

inline constexpr int quad_bytes = 16;

//   0            16               32
//   | real part  | imaginary part |
[[gnu::always_inline]] inline void* real(void* q) { return q; }
[[gnu::always_inline]] inline const void* real(const void* q) { return q; }
[[gnu::always_inline]] inline void* imaginary(void* q) {
  return static_cast<char*>(q) + quad_bytes;
}
[[gnu::always_inline]] inline const void* imaginary(const void* q) {
  return static_cast<const char*>(q) + quad_bytes;
}

struct stored_quad {
  std::uint64_t low, high;
};

[[gnu::always_inline]] inline void clear_imaginary(void* q) {
  std::memset(imaginary(q), 0, quad_bytes);
}

// The stores of two entries, which clear bytes 0 to 3 and 20 to 31 of a complex quad and leave 16
// to 19 unchanged. Part of the interface.
[[gnu::always_inline]] inline void clear_partially(void* q) {
  std::memset(q, 0, 4);
  std::memset(static_cast<char*>(q) + 20, 0, 12);
}

// Adds or subtracts part by part. The real part is written before the imaginary operands are read.
[[gnu::always_inline]] inline void part_by_part(void (*operation)(void*, const void*, const void*),
                                                void* result, const void* ar, const void* ai,
                                                const void* br, const void* bi) {
  operation(real(result), ar, br);
  operation(imaginary(result), ai, bi);
}

// Two floats or doubles to a complex quad. Both are read before anything is written.
template <class Part>
[[gnu::always_inline]] inline void widen_both(void (*convert)(void*, Part), void* q,
                                              const void* value) {
  Part parts[2];
  std::memcpy(parts, value, sizeof parts);
  convert(real(q), parts[0]);
  convert(imaginary(q), parts[1]);
}

// A complex quad to two floats or doubles. The first is stored before the second is converted.
template <class Part>
[[gnu::always_inline]] inline void narrow_both(Part (*convert)(const void*), void* value,
                                               const void* q) {
  const Part first = convert(real(q));
  std::memcpy(value, &first, sizeof first);
  const Part second = convert(imaginary(q));
  std::memcpy(static_cast<char*>(value) + sizeof first, &second, sizeof second);
}

[[gnu::always_inline]] inline bool same_bits(const void* a, const void* b) {
  stored_quad x, y;
  std::memcpy(&x, a, sizeof x);
  std::memcpy(&y, b, sizeof y);
  return ((x.low ^ y.low) | (x.high ^ y.high)) == 0;
}

}  // namespace zorvac::softfp
#endif
