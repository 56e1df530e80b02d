// What a dispatch costs beside a direct call of the variant it ends at, and what the library's
// constructor adds to loading a library. The constructor's time is the CPUID instruction's: on a
// virtual machine each execution is a visit to the hypervisor.
#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include "zorvac/cpu.h"
#include "zorvac/startup.h"

extern "C" {
void avx2_variant(int) __asm__("__zorva_new_proc_init_E.V");
void sse2_variant(int) __asm__("__zorva_new_proc_init_B.K");
}

namespace {

template <void (*Routine)(int)>
void call(benchmark::State& state) {
  __zorva_cpu_feature_indicator = static_cast<std::uint64_t>(state.range(0));
  for (auto _ : state) Routine(0);  // flags 0: nothing is set
}
BENCHMARK(call<avx2_variant>)->Name("dispatch/first-row/direct")->Arg(0x9d97ff);
BENCHMARK(call<__zorva_new_proc_init_E>)->Name("dispatch/first-row/zorvac")->Arg(0x9d97ff);
BENCHMARK(call<sse2_variant>)->Name("dispatch/second-row/direct")->Arg(0x7f);
BENCHMARK(call<__zorva_new_proc_init_B>)->Name("dispatch/second-row/zorvac")->Arg(0x7f);

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
BENCHMARK_CAPTURE(load, empty, EMPTY_LIBRARY)->Name("load/empty-library");
BENCHMARK_CAPTURE(load, zorvac, LIBRARY)->Name("load/zorvac");

}  // namespace
