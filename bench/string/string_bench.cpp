// Scan tails and decimal conversions beside the C library's, in one process. Rows are
// <operation>/<lengths>/<contender>; names of ours begin with "zorvac". A scan of ours is what a
// compiler emits: the first block inline, then the tail.
//
// The peer of the scans is the C library held to its SSE2 variants.
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

// Strings one behind the other, and where each begins.
struct texts {
  std::string name;
  std::string bytes;
  std::vector<std::size_t> begins;
  void add(const std::string& text, std::size_t gap) {
    bytes.append(gap, '.');
    begins.push_back(bytes.size());
    bytes.append(text.c_str(), text.size() + 1);
  }
};

// Strings of a length, at one place in their block or at any.
texts strings_of(std::size_t length) {
  texts list{std::to_string(length), std::string(), {}};
  std::mt19937 random(1);
  const std::size_t count = length > 4096 ? 1 : length > 256 ? 16 : 256;
  for (std::size_t i = 0; i < count; ++i) list.add(std::string(length, 'a'), random() % 64);
  return list;
}
// Lengths that nobody can predict; the list is too long for a branch predictor to learn.
texts strings_up_to(std::size_t most) {
  texts list{"mixed-0-" + std::to_string(most), std::string(), {}};
  std::mt19937 random(2);
  for (int i = 0; i < 65536; ++i) list.add(std::string(random() % (most + 1), 'a'), random() % 16);
  return list;
}
// Numbers of so many digits, as they stand in a column.
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

template <class Call>
void add_row(const std::string& operation, const texts& list, const std::string& contender,
             Call call) {
  const auto run = [call, &list](benchmark::State& state) {
    for (auto _ : state)
      for (const std::size_t begin : list.begins)
        benchmark::DoNotOptimize(call(list.bytes.data() + begin));
    const auto turns = static_cast<std::int64_t>(state.iterations());
    state.SetItemsProcessed(turns * static_cast<std::int64_t>(list.begins.size()));
  };
  benchmark::RegisterBenchmark((operation + "/" + list.name + "/" + contender).c_str(), run)
      ->MinTime(0.02);
}

void add_all() {
  static std::vector<texts> scans, numbers;
  for (const std::size_t length : {16u, 32u, 64u, 100u, 256u, 1024u, 4096u, 65536u})
    scans.push_back(strings_of(length));
  for (const std::size_t most : {64u, 256u}) scans.push_back(strings_up_to(most));
  for (const std::size_t count : {1u, 4u, 8u, 10u, 12u, 16u})
    numbers.push_back(numbers_of(count, count));
  numbers.push_back(numbers_of(4, 10));
  numbers.push_back(numbers_of(4, 16));

  const std::string peer = libc_name();
  const bool has_sse4 = __builtin_cpu_supports("sse4.2") != 0;
  // The C library's through pointers, or the compiler would do some of the work.
  static std::size_t (*volatile const length)(const char*) = std::strlen;
  static const char* (*volatile const find)(const char*, int) = std::strchr;
  for (const texts& list : scans) {
    add_row("strlen", list, "zorvac_sse2", [](const char* s) { return zorvac_sse2_strlen(s); });
    if (has_sse4)
      add_row("strlen", list, "zorvac_sse4", [](const char* s) { return zorvac_sse4_strlen(s); });
    add_row("strlen", list, peer, [](const char* s) { return length(s); });
    add_row("strchr", list, "zorvac_sse2",
            [](const char* s) { return zorvac_sse2_strchr(s, 'x'); });
    if (has_sse4)
      add_row("strchr", list, "zorvac_sse4",
              [](const char* s) { return zorvac_sse4_strchr(s, 'x'); });
    add_row("strchr", list, peer, [](const char* s) { return find(s, 'x'); });
  }
  if (has_sse4) {
    for (const texts& list : numbers) {
      add_row("atoi", list, "zorvac_sse4", [](const char* s) { return zorvac_sse4_atoi(s); });
      add_row("atoi", list, peer, [](const char* s) { return std::atoi(s); });
      add_row("atoll", list, "zorvac_sse4", [](const char* s) { return zorvac_sse4_atoll(s); });
      add_row("atoll", list, peer, [](const char* s) { return std::strtoll(s, nullptr, 10); });
    }
  }
  tell_variant<std::size_t(const char*)>("libc strlen", std::strlen);
  tell_variant<const char*(const char*, int)>("libc strchr", std::strchr);
}

}  // namespace
}  // namespace zorvac::bench

int main(int argc, char** argv) {
  zorvac::bench::add_all();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
}
