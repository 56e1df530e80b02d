#ifndef ZORVAC_STRING_TAIL_H
#define ZORVAC_STRING_TAIL_H
// The entry of a scan tail. Its inputs are in RAX, RDX and XMM1. The entry moves RAX to RCX and
// jumps to a function with the family's ordinary convention. There the second parameter is in RDX
// if it is a pointer, and in XMM1 if it is a double. (A whole vector would be passed in memory.)
//
//   ZORVAC_SCAN_TAIL(__zorva_sse2_strend, const char*, const char* at) { return ...; }
#include "string/block.h"

#define ZORVAC_SCAN_TAIL(symbol, result, ...) ZORVAC_TAIL_ENTRY(symbol, result, __VA_ARGS__)
#define ZORVAC_TAIL_ENTRY(symbol, result, ...)                                                   \
  [[gnu::used]] static ZORVAC_STRING_CALL result tail(__VA_ARGS__) __asm__("tail_of_" #symbol);  \
  extern "C" [[gnu::naked]] void symbol() { __asm__("mov %rax, %rcx\n\tjmp tail_of_" #symbol); } \
  static result tail(__VA_ARGS__)

namespace zorvac::string {
namespace {

// The vector in XMM1. The tails need only its lower half.
ZORVAC_INLINE block vector_of(double xmm1) { return _mm_castpd_si128(_mm_set_sd(xmm1)); }

}  // namespace
}  // namespace zorvac::string
#endif
