// Reductions beside the plain loops that a compiler vectorises for the same processor level.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "zorvac/array.h"
#include "zorvac/cpu.h"

namespace {

// A target and a partial array whose page offsets are half a page apart: a load waits for a store
// still in flight that has the same page offset.
template <class T>
struct arrays {
  explicit arrays(std::uint64_t count)
      : all((count * sizeof(T) / 4096 * 2 + 3) * 4096 / sizeof(T), T{1}),
        p(all.data() + (count * sizeof(T) / 4096 * 4096 + 4096 + 2048) / sizeof(T)) {}
  std::vector<T> all;
  T *t = all.data(), *p;
};

// Like ours, out of line, and the arrays may overlap.
template <class T>
[[gnu::noinline]] void fold(T* t, const T* p, std::uint64_t count, auto combined) {
  for (std::uint64_t i = 0; i < count; ++i) t[i] = combined(t[i], p[i]);
}

template <class T>
void add_rows(const std::string& name, std::uint32_t type, std::uint32_t op, auto plain) {
  for (const std::uint64_t count : std::initializer_list<std::uint64_t>{8, 64, 1024, 65536}) {
    const std::string row = name + '/' + std::to_string(count) + '/';
    benchmark::RegisterBenchmark((row + "zorvac").c_str(), [=](benchmark::State& state) {
      const arrays<T> a(count);
      for (auto _ : state) {
        __zorva_simd_reduction_final_array(a.t, a.p, count, 1, 0, op, type);
        benchmark::ClobberMemory();
      }
    });
    benchmark::RegisterBenchmark((row + "loop").c_str(), [=](benchmark::State& state) {
      const arrays<T> a(count);
      for (auto _ : state) {
        fold(a.t, a.p, count, plain);
        benchmark::ClobberMemory();
      }
    });
  }
}

const bool registered = [] {
  __zorva_cpu_features_init();  // as a compiled program does before it begins
  const auto sum = [](auto t, auto p) { return static_cast<decltype(t)>(t + p); };
  const auto product = [](auto t, auto p) { return static_cast<decltype(t)>(t * p); };
  const auto maximum = [](auto t, auto p) { return t > p ? t : p; };
  const auto equal = [](auto t, auto p) { return static_cast<decltype(t)>(t == p); };
  add_rows<std::uint8_t>("sum-u8", 1, 1, sum);
  add_rows<std::int32_t>("sum-i32", 6, 1, sum);
  add_rows<std::int32_t>("maximum-i32", 6, 4, maximum);
  add_rows<std::int32_t>("equivalence-i32", 6, 12, equal);
  add_rows<std::int64_t>("product-i64", 8, 2, product);
  add_rows<float>("sum-f32", 9, 1, sum);
  add_rows<float>("maximum-f32", 9, 4, maximum);
  add_rows<double>("sum-f64", 10, 1, sum);
  add_rows<double>("maximum-f64", 10, 4, maximum);
  return true;
}();

}  // namespace
