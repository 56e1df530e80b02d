// The cost of a dispatch beside a direct call of the selected variant, and the cost of loading the
// library beside an empty one: the constructor, the look-up of its symbols, and relocation. CPUID
// takes most of the constructor's time: on a virtual machine each one is a call of the hypervisor.
#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <cstdio>
#include <string>
#include <type_traits>

#include "mixes/blocks.h"
#include "zorvac/cpu.h"
#include "zorvac/mem.h"
#include "zorvac/startup.h"

extern "C" {
void avx2_variant(int) __asm__("__zorva_new_proc_init_E.V");
void sse2_variant(int) __asm__("__zorva_new_proc_init_B.K");
}

namespace zorvac::bench {
namespace {

template <void (*Routine)(int), std::uint64_t Indicator>
void call(benchmark::State& state) {
  __zorva_cpu_feature_indicator = Indicator;
  for (auto _ : state) Routine(0);  // flags 0: nothing is set
}
BENCHMARK(call<avx2_variant, 0x9d97ff>)->Name("dispatch/first-row/direct");
BENCHMARK(call<__zorva_new_proc_init_E, 0x9d97ff>)->Name("dispatch/first-row/zorvac");
BENCHMARK(call<sse2_variant, 0x7f>)->Name("dispatch/second-row/direct");
BENCHMARK(call<__zorva_new_proc_init_B, 0x7f>)->Name("dispatch/second-row/zorvac");

// The cost of the two jumps before a worker, for calls as in programs.
const block_arena arena;
std::uint64_t detected = 0;
template <auto* Routine>
void operate(const block_call& c) {
  if constexpr (std::is_invocable_v<decltype(Routine), void*, int, std::size_t>)
    benchmark::DoNotOptimize(Routine(arena.to + c.to, 0x5a, c.bytes));
  else
    benchmark::DoNotOptimize(Routine(arena.to + c.to, arena.from + c.from, c.bytes));
}
template <auto* Routine>
void blocks(benchmark::State& state, const block_mix& mix) {
  __zorva_cpu_feature_indicator = detected;
  for (auto _ : state)
    for (const block_call& c : mix.calls) operate<Routine>(c);
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(mix.calls.size()));
}
void add_blocks() {
  static const block_mix mixes[] = {fixed_blocks("fixed-16", 16, true),
                                    mixed_blocks("mixed-1-64", 1, 64, false)};
  for (const block_mix& mix : mixes) {
    const auto add = [&](const std::string& row, void (*run)(benchmark::State&, const block_mix&)) {
      benchmark::RegisterBenchmark(row.c_str(), [&, run](benchmark::State& s) { run(s, mix); });
    };
    add("dispatch-copy/" + mix.name + "/zorvac_fast", blocks<_zorva_fast_memcpy>);
    add("dispatch-copy/" + mix.name + "/worker", blocks<__zorva_avx_rep_memcpy>);
    add("dispatch-fill/" + mix.name + "/zorvac_fast", blocks<_zorva_fast_memset>);
    add("dispatch-fill/" + mix.name + "/worker", blocks<__zorva_avx_rep_memset>);
  }
}

template <void (*Routine)()>
void detect(benchmark::State& state) {
  for (auto _ : state) Routine();
}
BENCHMARK(detect<__zorva_cpu_features_init_x>)->Name("detect/features/zorvac");
BENCHMARK(detect<__zorva_cpu_indicator_init>)->Name("detect/class/zorvac");

void load(benchmark::State& state, const char* file) {
  for (auto _ : state) {
    void* handle = dlopen(file, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
      state.SkipWithError(dlerror());
      return;
    }
    dlclose(handle);
  }
}
BENCHMARK_CAPTURE(load, empty, EMPTY_LIBRARY)->Name("load/constructor/empty-library");
BENCHMARK_CAPTURE(load, zorvac, LIBRARY)->Name("load/constructor/zorvac");

// The feature indicator on this processor, of the measured library and of the build that accepts
// only its own vendor, for the page's list.
void record_indicator(const std::string& library, const std::uint64_t& indicator) {
  char text[32];
  std::snprintf(text, sizeof text, "%#llx", static_cast<unsigned long long>(indicator));
  benchmark::AddCustomContext("indicator " + library, text);
}
void record_indicators() {
  __zorva_cpu_features_init();
  detected = __zorva_cpu_feature_indicator;
  record_indicator("any-vendor", detected);
  void* const other = dlopen(LIBRARY, RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND);
  if (other == nullptr) return;
  const auto init = reinterpret_cast<void (*)()>(dlsym(other, "__zorva_cpu_features_init"));
  init();
  record_indicator("default",
                   *static_cast<std::uint64_t*>(dlsym(other, "__zorva_cpu_feature_indicator")));
  dlclose(other);
}

}  // namespace
}  // namespace zorvac::bench

int main(int argc, char** argv) {
  zorvac::bench::record_indicators();
  if (__builtin_cpu_supports("avx2")) zorvac::bench::add_blocks();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
}
