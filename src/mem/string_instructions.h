#ifndef ZORVAC_MEM_STRING_INSTRUCTIONS_H
#define ZORVAC_MEM_STRING_INSTRUCTIONS_H
// The repeated string instructions, in the upward direction: the calling convention keeps the
// direction flag clear. Each advances the pointers past what it has done.
#include <cstddef>
#include <cstdint>

namespace zorvac::mem {
namespace {

inline void rep_move_bytes(char*& to, const char*& from, std::size_t count) {
  asm volatile("rep movsb" : "+D"(to), "+S"(from), "+c"(count)::"memory");
}
inline void rep_move_words(char*& to, const char*& from, std::size_t count) {
  asm volatile("rep movsq" : "+D"(to), "+S"(from), "+c"(count)::"memory");
}
inline void rep_store_bytes(char*& to, std::uint64_t pattern, std::size_t count) {
  asm volatile("rep stosb" : "+D"(to), "+c"(count) : "a"(pattern) : "memory");
}
inline void rep_store_words(char*& to, std::uint64_t pattern, std::size_t count) {
  asm volatile("rep stosq" : "+D"(to), "+c"(count) : "a"(pattern) : "memory");
}

}  // namespace
}  // namespace zorvac::mem
#endif
