// Counts the words of a text. A word is a span of letters; the string routines of the processor's
// level find it. They have no dispatcher: a program chooses once and keeps the pair that it needs.
#include <zorvac/cpu.h>
#include <zorvac/string.h>

#include <cstdio>
#include <map>
#include <string_view>

namespace {

constexpr char text[] =
    "The time has come, the Walrus said, to talk of many things: of shoes, and ships, and "
    "sealing-wax, of cabbages, and kings, and why the sea is boiling hot, and whether pigs have "
    "wings.";
constexpr char letters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

struct scanner {
  std::size_t (*span)(const char* string, const char* set);  // how many characters are in the set
  char* (*find)(const char* string, const char* set);        // the first character in the set
};

scanner for_this_processor() {
  __zorva_cpu_features_init();
  const bool sse4 = (__zorva_cpu_feature_indicator & ZORVAC_FEATURE_SSE4_2) != 0;
  return sse4 ? scanner{zorvac_sse4_strspn, zorvac_sse4_strpbrk}
              : scanner{zorvac_sse2_strspn, zorvac_sse2_strpbrk};
}

}  // namespace

int main() {
  const scanner scan = for_this_processor();
  std::map<std::string_view, int> words;
  for (const char* at = scan.find(text, letters); at != nullptr; at = scan.find(at, letters)) {
    const std::size_t length = scan.span(at, letters);
    ++words[{at, length}];
    at += length;
  }
  for (const auto& [word, times] : words)
    if (times > 1) std::printf("%d  %.*s\n", times, static_cast<int>(word.size()), word.data());
  return 0;
}
