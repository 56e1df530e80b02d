#ifndef ZORVAC_STRING_SPAN_H
#define ZORVAC_STRING_SPAN_H
// The span: how many characters at the start of a string are in a set, or are not in it.
#include "string/block.h"
#include "string/faststring_util.h"

namespace zorvac::string {
namespace {

enum class while_in : bool { complement, set };

// `set`: the first character that is not in the set. `complement`: the first character that is in
// the set. If there is none, the terminating zero, which no set holds.
template <while_in Where, class Set>
ZORVAC_INLINE const char* skip(const char* string, const Set& set) {
  const auto stops = [&set](block b) ZORVAC_INLINE_LAMBDA {
    return Where == while_in::set ? set.in(b) ^ 0xffff : set.in(b) | zero_lanes(b);
  };
  if (const unsigned first = stops(first_block(string)) >> offset_in_block(string))
    return string + lowest(first);
  for (const char* at = block_of(string);;) {
    at += block_bytes;
    if (const unsigned stop = stops(load(at))) return at + lowest(stop);
  }
}

template <while_in Where, class Level>
ZORVAC_INLINE std::size_t span(const char* string, const char* set) {
  return static_cast<std::size_t>(skip<Where>(string, typename Level::set(set)) - string);
}

// The first character in a string that is in the set, or a null pointer.
template <class Level>
ZORVAC_INLINE const char* find_any(const char* string, const char* set) {
  const char* const found = skip<while_in::complement>(string, typename Level::set(set));
  return *found != 0 ? found : nullptr;
}

// Cuts the next token out of a string, or out of the string of an earlier call, and remembers where
// to continue. After the last token it remembers nothing, because the string may not exist any more
// at the next call.
template <class Level>
ZORVAC_INLINE char* next_token(char* string, const char* separators) {
  if (string == nullptr) string = rest_of_tokens;
  rest_of_tokens = nullptr;
  if (string == nullptr) return nullptr;
  const typename Level::set set(separators);
  char* const token = const_cast<char*>(skip<while_in::set>(string, set));
  if (*token == 0) return nullptr;
  char* const end = const_cast<char*>(skip<while_in::complement>(token, set));
  if (*end != 0) {
    *end = 0;
    rest_of_tokens = end + 1;
  }
  return token;
}

}  // namespace
}  // namespace zorvac::string
#endif
