// The string routines beside the C library's, in one process. Rows are
// <routine>/<lengths>/<contender>; our names begin with "zorvac". A scan of ours is as a compiler
// emits it: the first block inline, then the tail.
//
// The members of a level are compared with the C library held to it: the program runs once for each
// level (support/libc_peer.h). The file is compiled without built-in functions, because the
// compiler would replace some calls of the C library.
#include <benchmark/benchmark.h>
#include <zorvac/string.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/libc_peer.h"

namespace zorvac::bench {
namespace {

// Strings one after the other, and where each begins.
struct texts {
  struct place {
    std::size_t begin, length;
  };
  std::string name;
  std::string bytes;
  std::vector<place> places;
  void add(const std::string& text, std::size_t gap) {
    bytes.append(gap, '.');
    places.push_back({bytes.size(), text.size()});
    bytes.append(text.c_str(), text.size() + 1);
  }
};

// Strings of one length, at random offsets from block boundaries.
texts strings_of(std::size_t length) {
  texts list{std::to_string(length), std::string(), {}};
  std::mt19937 random(1);
  const std::size_t count = length > 4096 ? 1 : length > 256 ? 16 : 256;
  for (std::size_t i = 0; i < count; ++i) list.add(std::string(length, 'a'), random() % 64);
  return list;
}
// Strings of unpredictable lengths: the list is too long for a branch predictor to learn.
texts strings_up_to(std::size_t most) {
  texts list{"mixed-0-" + std::to_string(most), std::string(), {}};
  std::mt19937 random(2);
  for (int i = 0; i < 65536; ++i) list.add(std::string(random() % (most + 1), 'a'), random() % 16);
  return list;
}
// Numbers of `least` to `most` digits, each followed by a comma.
texts numbers_of(std::size_t least, std::size_t most) {
  texts list{std::to_string(least), std::string(), {}};
  if (most != least) list.name += '-' + std::to_string(most);
  std::mt19937 random(3);
  for (int i = 0; i < (least == most ? 1024 : 65536); ++i) {
    std::string digits(least + random() % (most - least + 1), '0');
    for (char& c : digits) c = static_cast<char>('1' + random() % 9);
    list.add(digits + ",", random() % 16);
  }
  return list;
}

// The arguments of a routine. The twin is an equal string at another place. The destination holds a
// string of eight characters before each call.
struct arguments {
  const char* text;
  std::size_t length;
  const char* twin;
  char* destination;
};
constexpr std::size_t begun = 8, room = 1 << 17;

template <class Call>
void add_row(const std::string& routine, const texts& list, const std::string& contender,
             Call call) {
  const auto run = [call, &list](benchmark::State& state) {
    const std::string twins = "....." + list.bytes;
    std::vector<char> destination(room, 'x');
    for (auto _ : state) {
      for (const auto& [begin, length] : list.places) {
        destination[begun] = '\0';
        benchmark::DoNotOptimize(call(arguments{list.bytes.data() + begin, length,
                                                twins.data() + 5 + begin, destination.data()}));
      }
    }
    const auto turns = static_cast<std::int64_t>(state.iterations());
    state.SetItemsProcessed(turns * static_cast<std::int64_t>(list.places.size()));
  };
  benchmark::RegisterBenchmark((routine + "/" + list.name + "/" + contender).c_str(), run);
}

const char* strend(const char* s) { return static_cast<const char*>(rawmemchr(s, 0)); }

// Frees a copy.
std::size_t freed(char* copy) {
  const std::size_t first = static_cast<unsigned char>(*copy);
  std::free(copy);
  return first;
}

// A routine of ours beside the C library's. Both take the same arguments, in terms of `a`. `result`
// is applied to the result.
#define MEMBER_WITH(result, peer, level, routine, lists, ...)                                \
  for (const texts& list : lists) {                                                          \
    add_row(#routine, list, "zorvac_" #level,                                                \
            [](arguments a) { return result(zorvac_##level##_##routine(__VA_ARGS__)); });    \
    add_row(#routine, list, peer, [](arguments a) { return result(routine(__VA_ARGS__)); }); \
  }
#define MEMBER(...) MEMBER_WITH(, libc().name, __VA_ARGS__)
#define COPIES(level)                                               \
  MEMBER(level, strrchr, some, a.text, 'x')                         \
  MEMBER(level, strcpy, some, a.destination, a.text)                \
  MEMBER(level, stpcpy, some, a.destination, a.text)                \
  MEMBER(level, strncpy, some, a.destination, a.text, a.length + 8) \
  MEMBER(level, stpncpy, some, a.destination, a.text, a.length + 8)
#define MEMBERS(level)                                              \
  MEMBER(level, strlen, all, a.text)                                \
  MEMBER(level, strend, some, a.text)                               \
  MEMBER(level, strchr, all, a.text, 'x')                           \
  MEMBER(level, strnlen, some, a.text, a.length + 8)                \
  MEMBER(level, strcat, some, a.destination, a.text)                \
  MEMBER(level, strncat, some, a.destination, a.text, a.length + 8) \
  MEMBER_WITH(freed, libc().name, level, strdup, some, a.text)      \
  MEMBER(level, strncmp, some, a.text, a.twin, a.length + 8)        \
  MEMBER(level, strspn, some, a.text, "abc ")                       \
  MEMBER(level, strcspn, some, a.text, " ,;\n")                     \
  MEMBER(level, strpbrk, some, a.text, " ,;\n")                     \
  MEMBER(level, strtok, some, const_cast<char*>(a.text), " ,;\n")

void add_all() {
  static std::vector<texts> all, some, numbers;
  for (const std::size_t length : {16u, 32u, 64u, 100u, 256u, 1024u, 4096u, 65536u})
    all.push_back(strings_of(length));
  for (const std::size_t most : {64u, 256u}) all.push_back(strings_up_to(most));
  for (const std::size_t length : {16u, 64u, 1024u}) some.push_back(strings_of(length));
  some.push_back(strings_up_to(64));
  for (const std::size_t count : {1u, 4u, 8u, 10u, 12u, 16u})
    numbers.push_back(numbers_of(count, count));
  numbers.push_back(numbers_of(4, 10));
  numbers.push_back(numbers_of(4, 16));

  const libc_level level = libc().level;
  if (level == sse2) {
    COPIES(sse2)
    MEMBERS(sse2)
  }
  if (level == ssse3 && __builtin_cpu_supports("ssse3")) {
    COPIES(ssse3)
  }
  if (level == sse4 && __builtin_cpu_supports("sse4.2")) {
    COPIES(sse4)
    MEMBERS(sse4)
    // The C library has one variant of these.
    MEMBER_WITH(, "libc", sse4, atoi, numbers, a.text)
    MEMBER_WITH(, "libc", sse4, atol, numbers, a.text)
    MEMBER_WITH(, "libc", sse4, atoll, numbers, a.text)
  }
  record_libc();
  record_variant<std::size_t(const char*)>("libc strlen", std::strlen);
  record_variant<const char*(const char*, int)>("libc strchr", std::strchr);
}

}  // namespace
}  // namespace zorvac::bench

int main(int argc, char** argv) {
  zorvac::bench::add_all();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
}
