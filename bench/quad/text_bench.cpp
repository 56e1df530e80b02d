// Decimal text of the C++ type beside libquadmath's: one number in each call, with the lengths that
// programs write and read, near 1 and at the ends of the range.
#include <benchmark/benchmark.h>

#include <array>
#include <charconv>
#include <string>

#include "zorvac/quad.hpp"

// Declared as in <quadmath.h>, which not every compiler finds.
extern "C" int quadmath_snprintf(char* to, std::size_t size, const char* format, ...);
extern "C" __float128 strtoflt128(const char* from, char** end);

namespace {

using zorvac::quad;
using namespace zorvac::literals;
using std::chars_format;

using text = std::array<char, 20'000>;

// Ways to write a number, ours and the peer's. The peer has no shortest form: it writes 36 digits.
void write_all(text& to, quad x) { zorvac::to_chars(to.data(), to.data() + to.size(), x, 36); }
void write_shortest(text& to, quad x) { zorvac::to_chars(to.data(), to.data() + to.size(), x); }
void write_fixed(text& to, quad x) {
  zorvac::to_chars(to.data(), to.data() + to.size(), x, chars_format::fixed, 6);
}
void write_all_as_peer(text& to, quad x) {
  quadmath_snprintf(to.data(), to.size(), "%.36Qg", static_cast<__float128>(x));
}
void write_fixed_as_peer(text& to, quad x) {
  quadmath_snprintf(to.data(), to.size(), "%.6Qf", static_cast<__float128>(x));
}

template <void (*Write)(text&, quad)>
void writing(benchmark::State& state, quad x) {
  text to;
  for (auto _ : state) {
    Write(to, x);
    benchmark::DoNotOptimize(to);
  }
}

void read_zorvac(benchmark::State& state, quad x) {
  text from;
  const char* const end = zorvac::to_chars(from.data(), from.data() + from.size(), x).ptr;
  for (auto _ : state) {
    quad value;
    zorvac::from_chars(from.data(), end, value);
    benchmark::DoNotOptimize(value);
  }
}
void read_libquadmath(benchmark::State& state, quad x) {
  const std::string from = to_string(x);
  for (auto _ : state) benchmark::DoNotOptimize(strtoflt128(from.c_str(), nullptr));
}

[[maybe_unused]] const bool registered = [] {
  constexpr struct {
    const char* name;
    quad value;
  } numbers[] = {{"123", 123},
                 {"0.1", 0.1_q},
                 {"pi", 3.14159265358979323846264338327950288_q},
                 {"1e600", 1e600_q},
                 {"1e-600", 1e-600_q},
                 {"largest", std::numeric_limits<quad>::max()},
                 {"smallest", std::numeric_limits<quad>::denorm_min()}};
  constexpr struct {
    const char* name;
    const char* contender;
    void (*run)(benchmark::State&, quad);
  } runs[] = {{"write", "zorvac", writing<write_all>},
              {"write", "libquadmath", writing<write_all_as_peer>},
              {"write-shortest", "zorvac", writing<write_shortest>},
              {"write-shortest", "libquadmath", writing<write_all_as_peer>},
              {"write-fixed", "zorvac", writing<write_fixed>},
              {"write-fixed", "libquadmath", writing<write_fixed_as_peer>},
              {"read", "zorvac", read_zorvac},
              {"read", "libquadmath", read_libquadmath}};
  for (const auto& number : numbers) {
    for (const auto& run : runs) {
      const std::string name =
          std::string("decimal/") + run.name + '-' + number.name + '/' + run.contender;
      benchmark::RegisterBenchmark(name.c_str(), run.run, number.value);
    }
  }
  return true;
}();

}  // namespace
