#ifndef ZORVAC_STRING_APPEND_H
#define ZORVAC_STRING_APPEND_H
// Copies whose destination has to be found first: the end of another string, or new memory.
#include <cstdlib>

#include "string/copy.h"
#include "string/scan.h"

namespace zorvac::string {
namespace {

// The terminating zero is the copied one, or one that is stored after `count` characters.
ZORVAC_INLINE void append(char* to, const char* from, std::size_t count) {
  char* const end = to + (find_end(to) - to);
  *copy(end, from, count) = 0;
}

// Returns a null pointer if there is no memory.
ZORVAC_INLINE char* duplicate(const char* string) {
  const auto bytes = static_cast<std::size_t>(find_end(string) - string) + 1;
  char* const twin = static_cast<char*>(std::malloc(bytes));
  if (twin != nullptr) move(twin, string, bytes);
  return twin;
}

}  // namespace
}  // namespace zorvac::string
#endif
