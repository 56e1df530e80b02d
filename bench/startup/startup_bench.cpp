// What a dispatch costs beside a direct call of the variant it ends at, and what loading the library
// costs beside loading an empty one: its constructor, most of whose time CPUID takes (on a virtual
// machine each execution is a visit to the hypervisor), looking up its symbols, relocating it.
#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include "zorvac/cpu.h"
#include "zorvac/startup.h"

extern "C" {
void avx2_variant(int) __asm__("__zorva_new_proc_init_E.V");
void sse2_variant(int) __asm__("__zorva_new_proc_init_B.K");
}

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

}  // namespace
